// The Redis fan-out end to end: the library fed by the blaster over
// loopback, md-record's Redis sink attached to its callbacks, and a local
// redis-server (started here, unix socket, no persistence).
//
// - Full speed: rounds of N rows as fast as the library takes them; how
//   fast the library delivers, and how fast Redis acknowledges the same
//   rows (first row sent to last acknowledgement), with nothing dropped.
// - Paced at 10,000 rows/s (one row every 100 µs): a consumer on its own
//   connection follows the exchange stream (XREAD BLOCK); the latency of
//   each row from the blaster's send() to the consumer's read.
// - Redis memory per million rows (used_memory before and after a round;
//   every row is in two streams, its exchange's and its instrument's).
//
//   orvex-bench-redis [--rows N] [--rounds R] [--paced-seconds S] [--markdown FILE]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <hiredis/hiredis.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchMarket.h"
#include "BenchUtil.h"
#include "Blaster.h"
#include "LibraryClient.h"
#include "Receivers.h"
#include "fanout/RedisLink.h"
#include "fanout/RedisSink.h"
#include "journal/JournalWriter.h"

namespace {

using namespace orvex_bench;
using orvex::fanout::FreeReply;
using orvex::fanout::RedisAddress;
using orvex::fanout::RedisLink;
using orvex::fanout::RedisSink;

// The benchmark's callback object with the Redis sink attached.
class RedisTapSpi : public BenchSpi {
public:
    RedisSink* sink = nullptr;
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        if (sink) sink->AddDepth(*d, orvex::journal::WallNanos());
        BenchSpi::OnDepthMarketData(d);
    }
};

uint64_t UsedMemory(RedisLink& link) {
    redisReply* r = link.Command({"INFO", "memory"});
    uint64_t used = 0;
    if (r && r->type == REDIS_REPLY_STRING) {
        const std::string info(r->str, r->len);
        const size_t at = info.find("used_memory:");
        if (at != std::string::npos) used = std::strtoull(info.c_str() + at + 12, nullptr, 10);
    }
    FreeReply(r);
    return used;
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t rows = 500000;
    int rounds = 3;
    double pacedSeconds = 5;
    std::string markdown;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--rows") rows = std::strtoull(next().c_str(), nullptr, 10);
        else if (a == "--rounds") rounds = std::max(1, std::atoi(next().c_str()));
        else if (a == "--paced-seconds") pacedSeconds = std::atof(next().c_str());
        else if (a == "--markdown") markdown = next();
    }
    signal(SIGPIPE, SIG_IGN);
    ScratchDir scratch("orvex-redis-");
    if (scratch.Path().empty() || chdir(scratch.Path().c_str()) != 0) return 1;
    scratch.Write("OrvexWiraMdApi.def", "[CONFIG]\nLog=0\nSubscribe=0\nDeltaQuot=0\n");
    scratch.Write("qxdctrans.xml", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<qxpackets>\n</qxpackets>\n");
    scratch.Write("qxmktaccess.xml", "<qxmkts allaccess=\"1\"/>\n");

    // ---- redis-server ----
    const std::string socketPath = scratch.Path() + "/redis.sock";
    const pid_t server = fork();
    if (server == 0) {
        if (!freopen("redis.log", "w", stdout)) _exit(126);
        execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socketPath.c_str(), "--save", "",
               "--appendonly", "no", "--dir", scratch.Path().c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    RedisAddress address;
    address.path = socketPath;
    RedisLink admin;
    std::string error;
    for (int i = 0; i < 100 && !admin.Open(address, "", 1000, &error); ++i) SleepNs(50000000);
    if (!admin.IsOpen()) {
        std::fprintf(stderr, "redis-server did not start: %s\n", error.c_str());
        kill(server, SIGKILL);
        return 1;
    }
    FreeReply(admin.Command({"FLUSHALL"}));

    RedisSink::Options so;
    so.address = address;
    so.buffer = rows * 4 + 1000000;   // a whole round may wait: nothing may drop
    auto sinkPtr = std::make_unique<RedisSink>(so);
    if (!sinkPtr->Start(&error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        kill(server, SIGKILL);
        return 1;
    }

    // ---- the library ----
    BenchCatalog cat;
    cat.instruments = 1000;
    Blaster blaster(cat);
    PushStream stream(cat);
    DeliveryRecorder recorder;
    RedisTapSpi spi;
    spi.recorder = &recorder;
    spi.sink = sinkPtr.get();
    auto client = std::make_unique<LibraryClient>(blaster.Front(), false, &spi);
    client->Init();
    bool ready = WaitUntil([&] { return spi.linked.load() > 0; }, 5000);
    if (ready) client->Login();
    ready = ready && WaitUntil([&] { return spi.completedAt.load() != 0; }, 10000) && blaster.WaitSubscribed(5000);
    if (!ready) {
        std::fprintf(stderr, "the library did not log in\n");
        kill(server, SIGKILL);
        return 1;
    }
    uint64_t nextSeq = 1;
    auto waitAcked = [&](RedisSink& sink, uint64_t added, int timeoutMs) {
        return WaitUntil([&] { const auto s = sink.GetStats(); return s.written + s.dropped >= added; }, timeoutMs);
    };

    // ---- full speed ----
    std::printf("full speed...\n");
    std::fflush(stdout);
    struct Round {
        double libraryRate = 0, redisRate = 0;
        uint64_t bytes = 0;
        bool both = true;
    };
    std::vector<Round> results;
    uint64_t droppedAll = 0;
    for (int r = 0; r < 2 * rounds; ++r) {
        // The first rounds with both kinds of stream, then exchange streams only.
        const bool both = r < rounds;
        if (r == rounds) {
            spi.sink = nullptr;
            sinkPtr->Close();
            droppedAll += sinkPtr->GetStats().dropped;
            so.instrumentStreams = false;
            sinkPtr = std::make_unique<RedisSink>(so);
            if (!sinkPtr->Start(&error)) return 1;
            spi.sink = sinkPtr.get();
        }
        RedisSink& sink = *sinkPtr;
        FreeReply(admin.Command({"FLUSHALL"}));
        const uint64_t mem0 = UsedMemory(admin);
        const uint64_t added0 = sink.GetStats().added;
        recorder.Arm(nextSeq, rows);
        const StreamResult sent = blaster.Stream(stream, 0, 120, rows, nextSeq);
        recorder.WaitFor(sent.rows, 3000);
        const int64_t deliveredAt = recorder.LastAt();
        recorder.Disarm();
        const uint64_t added = sink.GetStats().added - added0;
        waitAcked(sink, sink.GetStats().added, 120000);
        const int64_t ackedAt = NowNs();
        Round x;
        x.libraryRate = static_cast<double>(recorder.Count()) * 1e9 / static_cast<double>(deliveredAt - sent.startNs);
        x.redisRate = static_cast<double>(added) * 1e9 / static_cast<double>(ackedAt - sent.startNs);
        x.bytes = UsedMemory(admin) - mem0;
        x.both = both;
        results.push_back(x);
        nextSeq += sent.rows + 1000;
    }

    // ---- paced, through a consumer ----
    std::printf("paced 10,000 rows/s...\n");
    std::fflush(stdout);
    FreeReply(admin.Command({"FLUSHALL"}));
    DeliveryRecorder consumed;
    std::atomic<bool> stop{false};
    const std::string key = RedisSink::ExchangeKey("md", cat.Code(0).empty() ? "SHFE" : "SHFE");
    std::thread consumer([&] {
        RedisLink link;
        if (!link.Open(address, "", 2000, nullptr)) return;
        std::string after = "0-0";
        while (!stop.load()) {
            redisReply* r = link.Command({"XREAD", "COUNT", "1000", "BLOCK", "50", "STREAMS", key, after});
            if (!r) return;
            for (size_t s = 0; r->type == REDIS_REPLY_ARRAY && s < r->elements; ++s) {
                const redisReply* entries = r->element[s]->element[1];
                for (size_t e = 0; e < entries->elements; ++e) {
                    const redisReply* entry = entries->element[e];
                    after.assign(entry->element[0]->str, entry->element[0]->len);
                    const redisReply* f = entry->element[1];
                    for (size_t k = 0; k + 1 < f->elements; k += 2) {
                        if (f->element[k]->len != 1 || f->element[k]->str[0] != 'r') continue;
                        if (f->element[k + 1]->len != sizeof(COrvexWiraDepthMarketDataField)) continue;
                        COrvexWiraDepthMarketDataField d;
                        std::memcpy(&d, f->element[k + 1]->str, sizeof(d));
                        consumed.Record(d.Turnover, d.Volume);
                    }
                }
            }
            FreeReply(r);
        }
    });
    const uint64_t pacedCapacity = static_cast<uint64_t>(pacedSeconds * 10000) + 1000;
    consumed.Arm(nextSeq, pacedCapacity);
    const StreamResult paced = blaster.StreamPaced(stream, 100000, 1, pacedSeconds, nextSeq);
    consumed.WaitFor(paced.rows, 3000);
    consumed.Disarm();
    stop = true;
    consumer.join();
    const LatencySummary lat = consumed.Summarize();

    client.reset();
    sinkPtr->Close();
    const RedisSink::Stats ss = sinkPtr->GetStats();
    droppedAll += ss.dropped;
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);

    // ---- report ----
    std::vector<double> red, mem, redExchange, memExchange;
    std::vector<double> perRound;
    for (const Round& x : results) {
        const double m = static_cast<double>(x.bytes) * 1e6 / static_cast<double>(rows);
        perRound.push_back(m);
        (x.both ? red : redExchange).push_back(x.redisRate);
        (x.both ? mem : memExchange).push_back(m);
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::ostringstream md;
    md << "## Redis fan-out\n\n";
    md << "md-record's Redis sink on the library's callbacks, the blaster's stream of 1,000 instruments over "
          "loopback, a local redis-server (7.0, unix socket, no persistence). Every row goes to its exchange's "
          "stream and its instrument's stream (two XADD, MAXLEN ~ 1,000,000, pipelined: two batches of up to 2,048 rows in flight).\n\n";
    md << "| round | streams | rows | library rows/s | into Redis rows/s (first send to last acknowledgement) | "
          "Redis memory MB per million rows |\n|---:|---|---:|---:|---:|---:|\n";
    for (size_t i = 0; i < results.size(); ++i)
        md << "| " << i + 1 << " | " << (results[i].both ? "exchange + instrument" : "exchange only") << " | " << rows
           << " | " << Fmt("%.0f", results[i].libraryRate) << " | " << Fmt("%.0f", results[i].redisRate) << " | "
           << Fmt("%.0f", perRound[i] / 1e6) << " |\n";
    md << "\n" << Fmt("redis rows/s: %.0f (median; exchange and instrument streams)\n", median(red));
    md << Fmt("redis rows/s, exchange streams only: %.0f (median)\n", median(redExchange));
    md << "redis dropped: " << droppedAll << ", refused " << ss.refused << ", duplicates " << ss.duplicates << "\n";
    md << Fmt("redis memory per million rows: %.0f MB (both streams), %.0f MB (exchange streams only)\n\n",
              median(mem) / 1e6, median(memExchange) / 1e6);
    md << "Paced at 10,000 rows/s for " << pacedSeconds << " s, a consumer on its own connection following the exchange "
          "stream (XREAD BLOCK): from the blaster's send() to the consumer's read, through the library, the sink's "
          "queue and thread, and Redis.\n\n";
    md << Fmt("redis latency 10k: p50 %.0f µs, p99 %.0f µs, p99.9 %.0f µs, max %.0f µs (%llu of %llu rows)\n\n",
              lat.p50 / 1e3, lat.p99 / 1e3, lat.p999 / 1e3, lat.max / 1e3, static_cast<unsigned long long>(consumed.Count()),
              static_cast<unsigned long long>(paced.rows));
    std::fputs(md.str().c_str(), stdout);
    if (!markdown.empty()) {
        FILE* f = std::fopen(markdown.c_str(), "w");
        if (f) {
            std::fputs(md.str().c_str(), f);
            std::fclose(f);
        }
    }
    return droppedAll == 0 && consumed.Count() == paced.rows ? 0 : 1;
}
