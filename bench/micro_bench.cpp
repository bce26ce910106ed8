// Micro-benchmarks of the market data hot path, on the market-data engine
// with a host that sends nothing: its model is filled through the handlers
// with the answers the benchmark blaster sends (one market, 1,000 or 10,000
// instruments), and the handlers are then called directly. The callback
// object only counts.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BenchMarket.h"
#include "BenchUtil.h"
#include "DepthBook.h"
#include "codec/DataPackage.h"
#include "codec/PackageDecoder.h"
#include "dc/MdEngine.h"
#include "dc/FrameCutter.h"
#include "journal/JournalSpi.h"
#include "journal/JournalWriter.h"
#include "protocol/DcFrames.h"
#include "protocol/QuoteBodies.h"
#include "support/FakeEngineHost.h"

using namespace orvex_bench;

namespace {

class CountingSpi : public COrvexWiraMdSpi {
public:
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        ++depth;
        sink += d->LastPrice;
    }
    void OnStatusChange(COrvexWiraMarketStatusField*) override { ++status; }
    uint64_t depth = 0, status = 0;
    double sink = 0;
};

// An engine whose model holds one market of n instruments with their
// snapshot quotes.
class Model {
public:
    explicit Model(int n, bool deliverSnapshot = true) {
        cat.instruments = n;
        MdEngineSettings settings;
        settings.deliverSnapshot = deliverSnapshot;
        api.reset(new CMdEngine(host, settings));
        api->SetSpi(&spi);
        Feed(MarketStatusFrame(cat));
        for (const std::string& f : NameTableFrames(cat)) Feed(f);
        for (const std::string& f : QuotationFrames(cat)) Feed(f);
        market = api->FindMarket(cat.market);
        if (!market || market->instruments.size() != static_cast<size_t>(n)) {
            std::fprintf(stderr, "model not loaded\n");
            std::abort();
        }
        spi.depth = 0;
    }
    void Feed(const std::string& frame) {
        api->Dispatch(static_cast<unsigned char>(frame[1]) >> 1, frame.data() + 4,
                      static_cast<int>(frame.size() - 4));
    }

    BenchCatalog cat;
    CountingSpi spi;
    orvex_test::FakeEngineHost host;
    std::unique_ptr<CMdEngine> api;
    CQxMarket* market = nullptr;
};

// One model per size, built on first use and kept for the process.
Model& ModelOf(int n) {
    static std::unique_ptr<Model> models[2];
    std::unique_ptr<Model>& m = models[n > 1000 ? 1 : 0];
    if (!m) m.reset(new Model(n));
    return *m;
}

// ---- pushed rows ----

void BM_PushFull(benchmark::State& state) {
    Model& m = ModelOf(1000);
    const std::string row = PushedRowBytes(m.cat, 7, PackedTimeAfterOpen(1000));
    CQxInstrument* inst = m.market->FindInstrument(m.cat.Code(7).c_str());
    COrvexWiraDepthMarketDataField out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.api->ProcessPushQuotation(row.data(), static_cast<int>(row.size()), inst, &out));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PushFull);

// Two rows whose prices differ (their volumes and counts do not), applied
// in turn: every price is a change.
void BM_PushDeltaChanged(benchmark::State& state) {
    Model& m = ModelOf(1000);
    std::string rows[2] = {PushedRowBytes(m.cat, 7, PackedTimeAfterOpen(1000)),
                           PushedRowBytes(m.cat, 8, PackedTimeAfterOpen(1000))};
    CQxInstrument* inst = m.market->FindInstrument(m.cat.Code(7).c_str());
    COrvexWiraDepthMarketDataField out;
    bool changed = false;
    size_t k = 0;
    uint64_t changes = 0;
    for (auto _ : state) {
        const std::string& row = rows[k++ & 1];
        m.api->ProcessPushQuotationDelta(row.data(), static_cast<int>(row.size()), inst, &changed, &out);
        changes += changed;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["changed"] = static_cast<double>(changes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PushDeltaChanged);

// The same row again and again: nothing changes after the first.
void BM_PushDeltaUnchanged(benchmark::State& state) {
    Model& m = ModelOf(1000);
    const std::string row = PushedRowBytes(m.cat, 7, PackedTimeAfterOpen(1000));
    CQxInstrument* inst = m.market->FindInstrument(m.cat.Code(7).c_str());
    COrvexWiraDepthMarketDataField out;
    bool changed = false;
    for (auto _ : state) {
        m.api->ProcessPushQuotationDelta(row.data(), static_cast<int>(row.size()), inst, &changed, &out);
        benchmark::DoNotOptimize(changed);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PushDeltaUnchanged);

// ---- snapshot ----

// A quotation packet of 15 rows (not the last packet, which would end the
// load), each row stored, converted and delivered to the callback.
void BM_QuotationPacket(benchmark::State& state) {
    Model& m = ModelOf(static_cast<int>(state.range(0)));
    std::vector<std::string> bodies;
    for (int first = 0; first + 15 < m.cat.instruments && bodies.size() < 16; first += 15 * 3)
        bodies.push_back(QuotationBody(m.cat, first, 15));
    size_t k = 0;
    const uint64_t before = m.spi.depth;
    for (auto _ : state) {
        const std::string& b = bodies[k++ % bodies.size()];
        m.api->ProcessQuotationRsp(b.data(), static_cast<int>(b.size()));
    }
    state.SetItemsProcessed(state.iterations() * 15);
    state.counters["delivered/row"] =
        static_cast<double>(m.spi.depth - before) / static_cast<double>(state.iterations() * 15);
}
BENCHMARK(BM_QuotationPacket)->Arg(1000)->Arg(10000);

// ---- dynamic information ----

// A full body of 27 pushed rows for instruments spread over the market,
// all at one time of day: replayed, every row stays current (same date,
// time not earlier) and is delivered.
void BM_Dynainfo(benchmark::State& state) {
    Model& m = ModelOf(static_cast<int>(state.range(0)));
    std::vector<std::string> bodies;
    for (int b = 0; b < 8; ++b) {
        std::vector<int> list;
        for (int r = 0; r < 27; ++r) list.push_back((b * 27 + r) * 37 % m.cat.instruments);
        bodies.push_back(DynainfoBody(m.cat, list, PackedTimeAfterOpen(2000)));
    }
    size_t k = 0;
    const uint64_t before = m.spi.depth;
    for (auto _ : state) {
        const std::string& b = bodies[k++ % bodies.size()];
        m.api->ProcessDynainfo(b.data(), static_cast<unsigned>(b.size()));
    }
    state.SetItemsProcessed(state.iterations() * 27);
    state.counters["delivered/row"] =
        static_cast<double>(m.spi.depth - before) / static_cast<double>(state.iterations() * 27);
}
BENCHMARK(BM_Dynainfo)->Arg(1000)->Arg(10000);

// Bodies of ten pushed rows, the instruments taken in turn through a market
// of 1,000 as the end-to-end stream takes them: a frame of the paced stream
// at 100,000 rows/s. With Arg 1 the caches are swept before every body (a
// buffer larger than the second-level cache is written), as after the worker
// has slept between two frames. Only the body's own time is counted (read
// from the monotonic clock around it).
void BM_DynainfoTenRows(benchmark::State& state) {
    static Model model(1000);
    constexpr int kRows = 10;
    std::vector<std::string> bodies;
    for (int b = 0; b < 100; ++b) {
        std::vector<int> list;
        for (int r = 0; r < kRows; ++r) list.push_back((b * kRows + r) % model.cat.instruments);
        bodies.push_back(DynainfoBody(model.cat, list, PackedTimeAfterOpen(3000)));
    }
    std::vector<char> sweep(state.range(0) != 0 ? size_t{8} << 20 : 0);
    size_t k = 0;
    const uint64_t before = model.spi.depth;
    for (auto _ : state) {
        if (!sweep.empty()) {
            for (size_t i = 0; i < sweep.size(); i += 64) sweep[i] = static_cast<char>(sweep[i] + 1);
            benchmark::ClobberMemory();
        }
        const std::string& b = bodies[k++ % bodies.size()];
        const int64_t start = NowNs();
        model.api->ProcessDynainfo(b.data(), static_cast<unsigned>(b.size()));
        state.SetIterationTime(static_cast<double>(NowNs() - start) / 1e9);
    }
    state.SetItemsProcessed(state.iterations() * kRows);
    state.counters["delivered/row"] =
        static_cast<double>(model.spi.depth - before) / static_cast<double>(state.iterations() * kRows);
}
BENCHMARK(BM_DynainfoTenRows)->Arg(0)->Arg(1)->UseManualTime();

// ---- look-ups ----

void BM_FindInstrument(benchmark::State& state) {
    Model& m = ModelOf(static_cast<int>(state.range(0)));
    std::vector<std::string> codes;
    for (int i = 0; i < m.cat.instruments; ++i) codes.push_back(m.cat.Code(i));
    std::shuffle(codes.begin(), codes.end(), std::mt19937(42));
    size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.market->FindInstrument(codes[k].c_str()));
        if (++k == codes.size()) k = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindInstrument)->Arg(1000)->Arg(10000);

// ---- frames ----

class NullSink : public IDCFrameSink {
public:
    bool OnFrame(int command, const char*, int length) override {
        bytes += static_cast<uint64_t>(length) + static_cast<uint64_t>(command);
        return true;
    }
    uint64_t bytes = 0;
};

// 16 KB of dynamic-information frames cut the way the worker cuts them.
void BM_FrameCutter(benchmark::State& state) {
    BenchCatalog cat;
    PushStream stream(cat);
    std::string chunk;
    char frame[4096];
    for (uint64_t seq = 0; chunk.size() + 4096 <= 16384; seq += 27)
        chunk.append(frame, stream.Build(frame, seq, stream.MaxRowsPerFrame(), PackedTimeAfterOpen(0)));
    std::unique_ptr<CDCFrameCutter> cutter(new CDCFrameCutter);
    NullSink sink;
    for (auto _ : state) cutter->Feed(chunk.data(), chunk.size(), sink);
    benchmark::DoNotOptimize(sink.bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(chunk.size()));
}
BENCHMARK(BM_FrameCutter);

// ---- template packages ----

const char kQuoteTemplate[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<qxpackets>
  <qxpacket id="30" name="Quote" version="1.0" mask="0">
    <int16 id="1" name="market"/><string id="2" name="code" maxlen="20"/><string id="3" name="name" maxlen="32"/>
    <int32 id="4" name="date"/><int32 id="11" name="time"/>
    <int32 id="5" name="last" price="1"/><int32 id="6" name="open" price="1"/><int32 id="7" name="high" price="1"/>
    <int32 id="8" name="low" price="1"/><int32 id="9" name="preClose" price="1"/>
    <int32 id="10" name="preSettlement" price="1"/><int32 id="12" name="upperLimit" price="1"/>
    <int32 id="13" name="lowerLimit" price="1"/><int32 id="14" name="average" price="1"/>
    <double id="15" name="volume"/><double id="16" name="turnover"/><int32 id="17" name="openInterest"/>
    <float id="18" name="ratio"/><int8 id="19" name="flag"/>
  </qxpacket>
</qxpackets>
)";

void BM_DecodeFieldData(benchmark::State& state) {
    ScratchDir dir("orvex-tpl-");
    dir.Write("qxdctrans.xml", kQuoteTemplate);
    if (!LoadPackageTemplate((dir.Path() + "/qxdctrans.xml").c_str())) {
        state.SkipWithError("template not loaded");
        return;
    }
    const CQxDataPackage* t = FindPackageTemplate(30);
    if (!t) {
        state.SkipWithError("template 30 missing");
        return;
    }
    orvex_test::BodyWriter w;
    w.U16(30).U16(2001).Raw("cu2501", 7).Raw("copper 2501", 12).U32(20240102).U32(93000500);
    for (int i = 0; i < 9; ++i) w.I32(7000000 + i);
    w.F64(12345).F64(8.6e9).U32(150000);
    float ratio = 0.5f;
    w.Raw(&ratio, 4).U8(1);
    const std::string body = w.bytes;
    std::vector<char> rec(static_cast<size_t>(t->size));
    int fields = 0;
    for (auto _ : state) {
        int pos = 2;
        fields = 0;
        for (const CQxDataItem& it : t->items) {
            if (it.isArray) continue;
            const int n = DecodeFieldData(body.data() + pos, static_cast<int>(body.size()) - pos,
                                          rec.data() + it.field.offset, &it.field);
            if (n < 0) break;
            pos += n;
            ++fields;
        }
        benchmark::DoNotOptimize(rec.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["fields"] = fields;
}
BENCHMARK(BM_DecodeFieldData);

// ---- the recorder on the library's thread ----

// What md-record adds to every depth callback: the receive time and the
// copy into the writer's queue, with the writer thread running. Records of
// 1,000 instruments in turn, each with a moving price and volume.
void BM_JournalDepthCallback(benchmark::State& state) {
    struct Journal final : orvex::journal::JournalSpi {
        using JournalSpi::JournalSpi;
    };
    orvex::journal::JournalWriter::Options o;
    o.dir = "journal";
    o.queueBytes = size_t{256} << 20;
    o.log = [](const std::string&) {};
    orvex::journal::JournalWriter writer(o);
    if (!writer.Start(nullptr)) {
        state.SkipWithError("journal writer did not start");
        return;
    }
    Journal spi(&writer, {});
    std::vector<COrvexWiraDepthMarketDataField> book = DepthBook(1000);
    size_t i = 0;
    for (auto _ : state) {
        COrvexWiraDepthMarketDataField& d = book[i++ % book.size()];
        d.LastPrice += 10;
        d.Volume += 1;
        spi.OnDepthMarketData(&d);
        if ((i & 0xFFFF) == 0) {
            // No feed is this fast for long: the writer catches up, untimed,
            // so that every call measured is one that the queue takes.
            state.PauseTiming();
            while (writer.GetStats().waiting > 0) usleep(200);
            state.ResumeTiming();
        }
    }
    writer.Close();
    const orvex::journal::JournalWriter::Stats s = writer.GetStats();
    state.SetItemsProcessed(state.iterations());
    state.counters["dropped"] = static_cast<double>(s.dropped);
}
BENCHMARK(BM_JournalDepthCallback);

}  // namespace

int main(int argc, char** argv) {
    ScratchDir dir("orvex-micro-");
    if (dir.Path().empty() || chdir(dir.Path().c_str()) != 0) return 1;
    dir.Write("OrvexWiraMdApi.def", "[CONFIG]\nLog=0\nSubscribe=0\nDeltaQuot=0\n");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
