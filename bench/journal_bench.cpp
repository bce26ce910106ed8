// Reading and replaying tick journals: a journal of N depth records (1,000
// instruments, as md-record writes them) is written with the journal
// writer, then walked with the reader and replayed through
// libOrvexMdReplay at speed 0 into a callback that only counts. Each is
// timed over several passes; the median pass counts.
//
//   orvex-bench-journal [--records N] [--passes P] [--dir DIR] [--markdown FILE]
//
// With --dir the journal is left there (the Python benchmark reads it).
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "BenchUtil.h"
#include "DepthBook.h"
#include "OrvexWiraMdReplay.h"
#include "journal/JournalReader.h"
#include "journal/JournalWriter.h"

namespace {

using namespace orvex_bench;
using namespace orvex::journal;

class CountingSpi : public COrvexWiraMdSpi {
public:
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        ++count;
        sum += d->LastPrice;   // touch the record
    }
    uint64_t count = 0;
    double sum = 0;
};


double MedianOf(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t records = 2000000;
    int passes = 5;
    std::string dir, markdown;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--records") records = std::strtoull(next().c_str(), nullptr, 10);
        else if (a == "--passes") passes = std::max(1, std::atoi(next().c_str()));
        else if (a == "--dir") dir = next();
        else if (a == "--markdown") markdown = next();
    }
    ScratchDir scratch("orvex-journal-");
    if (dir.empty()) dir = scratch.Path() + "/journal";

    // ---- write ----
    JournalWriter::Options o;
    o.dir = dir;
    o.queueBytes = 256u << 20;
    o.log = [](const std::string&) {};   // refusals are counted below: this producer retries them
    JournalWriter writer(o);
    std::string error;
    if (!writer.Start(&error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    writer.SetTradingDay("20250102");
    // A market of 1,000 instruments ticking in turn: each tick moves what a
    // real one moves (time, last price, volume, turnover, open interest and
    // a few levels of the book), so that the deltas are of a real size.
    std::vector<COrvexWiraDepthMarketDataField> book = DepthBook(1000);
    uint32_t lcg = 12345;
    auto rnd = [&lcg] { return (lcg = lcg * 1664525u + 1013904223u) >> 8; };
    const int64_t start = NowNs();
    const int self = static_cast<int>(syscall(SYS_gettid));
    const int64_t cpuStart = ThreadCpuNs(self);
    uint64_t accepted = 0, refused = 0;
    for (uint64_t i = 0; i < records; ++i) {
        COrvexWiraDepthMarketDataField& d = book[i % book.size()];
        d.UpdateMillisec = static_cast<int>((d.UpdateMillisec + 500) % 1000);
        d.LastPrice += static_cast<double>(static_cast<int>(rnd() % 5) - 2) * 10;
        d.Volume += 1 + rnd() % 20;
        d.Turnover += d.LastPrice * 5;
        d.OpenInterest += static_cast<double>(static_cast<int>(rnd() % 3) - 1);
        const int levels = 1 + static_cast<int>(rnd() % 3);
        for (int level = 0; level < levels; ++level) {
            SetLevel<int>(&d, offsetof(COrvexWiraDepthMarketDataField, BidVolume1), static_cast<int>(rnd() % 5),
                          static_cast<int>(1 + rnd() % 100));
            SetLevel<int>(&d, offsetof(COrvexWiraDepthMarketDataField, AskVolume1), static_cast<int>(rnd() % 5),
                          static_cast<int>(1 + rnd() % 100));
        }
        // A producer faster than any feed: wait for room rather than drop.
        while (!writer.Add(kDepth, 0, 1735795200000000000 + static_cast<int64_t>(i) * 1000, &d, sizeof(d))) {
            ++refused;
            SleepNs(100000);
        }
        ++accepted;
    }
    const double producerNs = static_cast<double>(ThreadCpuNs(self) - cpuStart) / static_cast<double>(records);
    writer.Close();
    const double writeSeconds = static_cast<double>(NowNs() - start) / 1e9;
    const JournalWriter::Stats ws = writer.GetStats();
    const std::string file = DayFileName(dir, "20250102");

    // ---- read ----
    std::vector<double> readRates, replayRates;
    uint64_t readCount = 0, replayCount = 0;
    for (int p = 0; p < passes; ++p) {
        JournalReader r;
        if (!r.Open(file, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
        const int64_t t0 = NowNs();
        Entry e;
        uint64_t n = 0;
        double touch = 0;
        while (r.Next(&e)) {
            if (e.kind != kDepth) continue;
            ++n;
            touch += e.payload[64];
        }
        readRates.push_back(static_cast<double>(n) * 1e9 / static_cast<double>(NowNs() - t0));
        readCount = n + (touch < 0 ? 1 : 0);
    }
    // ---- replay ----
    for (int p = 0; p < passes; ++p) {
        COrvexWiraMdApi* api = CreateWiraReplayApi(file.c_str(), 0);
        if (!api) return 1;
        CountingSpi spi;
        api->RegisterSpi(&spi);
        const int64_t t0 = NowNs();
        api->Init();
        api->Join();
        replayRates.push_back(static_cast<double>(spi.count) * 1e9 / static_cast<double>(NowNs() - t0));
        replayCount = spi.count;
        api->Release();
    }
    struct stat st;
    const double fileBytes = stat(file.c_str(), &st) == 0 ? static_cast<double>(st.st_size) : 0;

    std::ostringstream md;
    md << "## Journal reading and replay\n\n";
    md << "A journal of " << records << " depth records (1,000 instruments) written by the journal writer from one "
          "thread, then read back from the page cache. Median of " << passes << " passes.\n\n";
    md << "| step | records | per second |\n|---|---:|---:|\n";
    md << "| write (Add, the writer thread writing) | " << accepted << " | "
       << Fmt("%.2f M", static_cast<double>(accepted) / writeSeconds / 1e6) << " |\n";
    md << "| read (JournalReader, every entry checked) | " << readCount << " | " << Fmt("%.2f M", MedianOf(readRates) / 1e6)
       << " |\n";
    md << "| replay at speed 0 (libOrvexMdReplay, a callback per record) | " << replayCount << " | "
       << Fmt("%.2f M", MedianOf(replayRates) / 1e6) << " |\n\n";
    md << Fmt("replay callbacks/s: %.2f M\n", MedianOf(replayRates) / 1e6);
    md << Fmt("journal bytes per million depth records: %.0f (%.1f MB)\n\n", fileBytes * 1e6 / static_cast<double>(records),
              fileBytes / static_cast<double>(records));
    md << "writer: " << ws.entries << " entries; refused while the queue was full and retried by this producer: " << refused
       << ", queue high-water " << ws.highWater << " bytes\n\n";
    md << Fmt("CPU per depth record: %.0f ns in the producer (the record's changes and Add), %.0f ns in the writer "
              "thread (deltas, checks and write())\n\n",
              producerNs, static_cast<double>(ws.writerCpuNs) / static_cast<double>(records));
    std::fputs(md.str().c_str(), stdout);
    if (!markdown.empty()) {
        FILE* f = std::fopen(markdown.c_str(), "w");
        if (f) {
            std::fputs(md.str().c_str(), f);
            std::fclose(f);
        }
    }
    return readCount == records && replayCount == records ? 0 : 1;
}
