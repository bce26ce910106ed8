// End-to-end measurements of libOrvexMdUserApi over loopback.
//
// The library is used as an application uses it (the shared library and the
// public headers), in a scratch working directory with full pushes and no
// subscription filter. A blaster (Blaster.h) plays the quote server.
//
//   snapshot   login -> "Quotation Completed" for 10,000 and 1,000
//              instruments, and the heap and resident memory per instrument
//   idle       CPU of the connected, idle library
//   stream     pushed rows at full speed and at fixed rates, to the library
//              and to a bare baseline client in turn: rows delivered per
//              second and the latency from send to delivery
//   reconnect  server close -> OnFrontLost, and the next connect attempt
//
// Results go to standard output and, with --markdown FILE, as a report
// section to FILE.
//
// Options: --seconds S (each fixed-rate run, default 4), --full-rows N and
// --full-rounds R (full speed: R rounds of N rows per receiver, default 11
// of 1000000), --rates A,B,C (default 10000,50000,100000; empty: full
// speed only), --idle-seconds S (default 5), --trials N (snapshot loads
// per size, default 3), --paced-seconds S (each paced cell per receiver,
// default 8; 0: none), --latency-dir DIR, --journal-dir DIR (where the
// recording runs write; default the scratch directory), --no-reconnect,
// --quick.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchMarket.h"
#include "BenchUtil.h"
#include "Blaster.h"
#include "OrvexWiraMdApi.h"
#include "JournalingSpi.h"
#include "LibraryClient.h"
#include "Receivers.h"

using namespace orvex_bench;

namespace {

struct Options {
    double seconds = 4;
    uint64_t fullRows = 1000000;   // per full-speed round
    int fullRounds = 11;
    std::vector<double> rates = {10000, 50000, 100000};
    double idleSeconds = 5;
    int trials = 3;
    bool reconnect = true;
    std::string markdown;
    double pacedSeconds = 8;   // each paced run; 0: none
    std::string latencyDir;    // where the paced runs' latency curves go
    std::string journalDir;    // where the recording runs write their journal (default: the scratch directory)
};

double Ms(int64_t ns) { return static_cast<double>(ns) / 1e6; }
double Us(int64_t ns) { return static_cast<double>(ns) / 1e3; }

// Of an even count, the mean of the middle two.
double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t h = v.size() / 2;
    return v.size() % 2 ? v[h] : (v[h - 1] + v[h]) / 2;
}

// ---- idle ----

// A thread that does nothing but wait in poll() with a 2 ms time-out on a
// socket that never becomes readable: the floor of a 2 ms poll loop.
class BarePoller {
public:
    BarePoller() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds) != 0) return;
        m_thread = std::thread([this] {
            m_tid = static_cast<int>(gettid());
            while (!m_stop.load()) {
                pollfd p{m_fds[0], POLLIN, 0};
                poll(&p, 1, 2);
            }
        });
        WaitUntil([this] { return m_tid.load() >= 0; }, 2000);
    }
    ~BarePoller() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        for (int fd : m_fds)
            if (fd >= 0) close(fd);
    }
    int Tid() const { return m_tid.load(); }

private:
    int m_fds[2] = {-1, -1};
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_tid{-1};
    std::thread m_thread;
};

// ---- snapshot ----

struct SnapshotResult {
    int instruments = 0;
    std::vector<double> totalMs, afterLastMs, lastDepthMs;
    uint64_t rows = 0;
    bool ok = true;
    int64_t heapBytes = -1, rssBytes = -1;
};

SnapshotResult MeasureSnapshot(int instruments, int trials, bool measureMemory) {
    SnapshotResult r;
    r.instruments = instruments;
    BenchCatalog cat;
    cat.instruments = instruments;
    for (int t = 0; t < trials; ++t) {
        Blaster blaster(cat);
        LibraryClient client(blaster.Front(), true);
        client.Init();
        if (!WaitUntil([&] { return client.spi.linked.load() > 0; }, 5000)) {
            r.ok = false;
            break;
        }
        int64_t heap0 = 0, rss0 = 0;
        if (measureMemory && t == 0) {
            SleepNs(50000000);
            heap0 = HeapInUseBytes();
            rss0 = ResidentBytes();
        }
        const int64_t t0 = NowNs();
        client.Login();
        if (!WaitUntil([&] { return client.spi.completedAt.load() != 0; }, 20000)) {
            r.ok = false;
            break;
        }
        const int64_t done = client.spi.completedAt.load();
        r.totalMs.push_back(Ms(done - t0));
        r.afterLastMs.push_back(Ms(done - blaster.LastQuoteSentAt()));
        r.lastDepthMs.push_back(Ms(client.spi.lastSnapshotAt.load() - t0));
        r.rows = client.spi.snapshotRows.load();
        if (measureMemory && t == 0) {
            SleepNs(50000000);
            r.heapBytes = HeapInUseBytes() - heap0;
            r.rssBytes = ResidentBytes() - rss0;
        }
    }
    return r;
}

// ---- stream ----

struct RunResult {
    std::string name;
    double rate = 0;   // 0: full speed
    StreamResult sent;
    LatencySummary lat;
    uint64_t delivered = 0, duplicates = 0, outOfOrder = 0, stray = 0;
    double rowsPerSecond = 0;
    double cpuPerRow = 0;   // ns of the receiving thread's CPU per row
    double cpuShare = 0;    // the receiving thread's CPU while sending, % of a core
    std::vector<int64_t> sorted;   // latencies, ns
};

// One run: `send` streams rows from *nextSeq on, at most `capacity`.
template <class Send>
RunResult MeasureRun(DeliveryRecorder& recorder, int receiverTid, double rate, uint64_t capacity,
                     uint64_t* nextSeq, Send send) {
    RunResult out;
    out.rate = rate;
    recorder.Arm(*nextSeq, capacity);
    const int64_t cpu0 = ThreadCpuNs(receiverTid);
    out.sent = send();
    recorder.WaitFor(out.sent.rows, 3000);
    const int64_t cpu1 = ThreadCpuNs(receiverTid);
    SleepNs(20000000);   // anything late or doubled would show now
    recorder.Disarm();
    out.delivered = recorder.Count();
    out.duplicates = recorder.Duplicates();
    out.outOfOrder = recorder.OutOfOrder();
    out.stray = recorder.Stray();
    out.lat = recorder.Summarize();
    const int64_t span = recorder.LastAt() - out.sent.startNs;
    out.rowsPerSecond = span > 0 ? static_cast<double>(out.delivered) * 1e9 / static_cast<double>(span) : 0;
    if (cpu0 >= 0 && cpu1 >= cpu0 && out.delivered > 0)
        out.cpuPerRow = static_cast<double>(cpu1 - cpu0) / static_cast<double>(out.delivered);
    const int64_t sending = out.sent.endNs - out.sent.startNs;
    if (cpu0 >= 0 && cpu1 >= cpu0 && sending > 0)
        out.cpuShare = 100.0 * static_cast<double>(cpu1 - cpu0) / static_cast<double>(sending);
    out.sorted = recorder.SortedLatencies();
    *nextSeq += out.sent.rows + 1000;
    return out;
}

RunResult RunStream(Blaster& blaster, DeliveryRecorder& recorder, int receiverTid, const PushStream& stream,
                    double rate, double seconds, uint64_t maxRows, uint64_t* nextSeq) {
    const uint64_t capacity =
        rate > 0 ? std::min<uint64_t>(maxRows, static_cast<uint64_t>(rate * seconds * 1.05) + 1000) : maxRows;
    const uint64_t first = *nextSeq;
    return MeasureRun(recorder, receiverTid, rate, capacity, nextSeq,
                      [&] { return blaster.Stream(stream, rate, seconds, capacity, first); });
}

// One frame every 100 µs carrying rate / 10,000 rows.
constexpr int64_t kTickNs = 100000;
// A paced measurement is this many slices of each receiver, alternating;
// a fixed-rate one, this many.
constexpr int kPacedSlices = 8;
constexpr int kRatedSlices = 4;

RunResult RunPaced(Blaster& blaster, DeliveryRecorder& recorder, int receiverTid, const PushStream& stream,
                   double rate, double seconds, uint64_t* nextSeq) {
    const int perTick = std::max(1, static_cast<int>(rate * static_cast<double>(kTickNs) / 1e9 + 0.5));
    const uint64_t capacity = static_cast<uint64_t>(seconds * 1e9 / static_cast<double>(kTickNs) + 10) * perTick + 1000;
    const uint64_t first = *nextSeq;
    return MeasureRun(recorder, receiverTid, rate, capacity, nextSeq,
                      [&] { return blaster.StreamPaced(stream, kTickNs, perTick, seconds, first); });
}

// Several runs of one receiver as one: rows and latencies pooled, rows/s
// and CPU over the time of all of them.
RunResult Pool(const std::vector<RunResult>& runs) {
    RunResult out;
    if (runs.empty()) return out;
    out.rate = runs.front().rate;
    double cpuNs = 0, sendingNs = 0, rowCpuNs = 0, spanS = 0;
    for (const RunResult& r : runs) {
        if (r.rowsPerSecond > 0) spanS += static_cast<double>(r.delivered) / r.rowsPerSecond;
        rowCpuNs += r.cpuPerRow * static_cast<double>(r.delivered);
        out.sent.rows += r.sent.rows;
        out.sent.frames += r.sent.frames;
        out.delivered += r.delivered;
        out.duplicates += r.duplicates;
        out.outOfOrder += r.outOfOrder;
        out.stray += r.stray;
        out.sorted.insert(out.sorted.end(), r.sorted.begin(), r.sorted.end());
        const double sending = static_cast<double>(r.sent.endNs - r.sent.startNs);
        sendingNs += sending;
        cpuNs += r.cpuShare / 100.0 * sending;
    }
    std::sort(out.sorted.begin(), out.sorted.end());
    out.cpuShare = sendingNs > 0 ? 100.0 * cpuNs / sendingNs : 0;
    out.rowsPerSecond = spanS > 0 ? static_cast<double>(out.delivered) / spanS : 0;
    out.cpuPerRow = out.delivered > 0 ? rowCpuNs / static_cast<double>(out.delivered) : 0;
    out.lat = SummarizeLatencies(out.sorted);
    return out;
}

// Two receivers measured in slices taken in turn: each one's slices pooled,
// and the library's p99 minus the bare receiver's (µs), of the pooled
// slices and as the median of the slice pairs.
struct Alternated {
    RunResult bare, library;
    double pooledGap = 0, sliceGap = 0;
};

// The latency curve of a run: latency (µs) against the share of rows at
// least that late, at shares falling by a factor of 10^0.05 from 1 down to
// one row, so that the tail is drawn as finely as the body.
void WriteLatencyCurve(const std::string& path, const std::vector<int64_t>& sorted) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return;
    const size_t n = sorted.size();
    std::fprintf(f, "# latency_us share_at_least\n");
    size_t last = n;
    for (int k = 0; n > 0; ++k) {
        const double share = std::pow(10.0, -0.05 * k);
        size_t i = static_cast<size_t>((1.0 - share) * static_cast<double>(n));
        if (i >= n) i = n - 1;
        if (i != last) {
            std::fprintf(f, "%.3f %.9g\n", static_cast<double>(sorted[i]) / 1000.0,
                         static_cast<double>(n - i) / static_cast<double>(n));
            last = i;
        }
        if (i == n - 1) break;
    }
    std::fclose(f);
}

std::string RunLabel(double rate) { return rate > 0 ? Fmt("%.0f rows/s", rate) : std::string("full speed"); }

std::string JoinRatios(const std::vector<double>& v) {
    std::string out;
    for (double r : v) out += (out.empty() ? "" : ", ") + Fmt("%.2f", r);
    return out;
}

// ---- options ----

std::vector<double> ParseRates(const std::string& s) {
    std::vector<double> v;
    std::stringstream ss(s);
    std::string item;
    while (std::getline(ss, item, ',')) v.push_back(std::atof(item.c_str()));
    return v;
}

Options ParseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (a == "--seconds") o.seconds = std::atof(next().c_str());
        else if (a == "--full-rows") o.fullRows = std::strtoull(next().c_str(), nullptr, 10);
        else if (a == "--full-rounds") o.fullRounds = std::max(1, std::atoi(next().c_str()));
        else if (a == "--rates") o.rates = ParseRates(next());
        else if (a == "--idle-seconds") o.idleSeconds = std::atof(next().c_str());
        else if (a == "--trials") o.trials = std::atoi(next().c_str());
        else if (a == "--no-reconnect") o.reconnect = false;
        else if (a == "--markdown") o.markdown = next();
        else if (a == "--paced-seconds") o.pacedSeconds = std::atof(next().c_str());
        else if (a == "--latency-dir") o.latencyDir = next();
        else if (a == "--journal-dir") o.journalDir = next();
        else if (a == "--quick") {
            o.seconds = 1;
            o.fullRows = 300000;
            o.fullRounds = 3;
            o.idleSeconds = 2;
            o.trials = 1;
            o.pacedSeconds = 1;
        } else {
            std::fprintf(stderr, "unknown option %s\n", a.c_str());
            std::exit(2);
        }
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt = ParseOptions(argc, argv);
    std::string markdownPath = opt.markdown;
    if (!markdownPath.empty() && markdownPath[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof(cwd))) markdownPath = std::string(cwd) + "/" + markdownPath;
    }

    // The library reads ./OrvexWiraMdApi.def and ./qxdctrans.xml and writes
    // ./qxmktaccess.xml: all of it happens in a scratch directory.
    ScratchDir scratch("orvex-e2e-");
    if (scratch.Path().empty() || chdir(scratch.Path().c_str()) != 0) {
        std::fprintf(stderr, "cannot make a scratch directory\n");
        return 1;
    }
    scratch.Write("OrvexWiraMdApi.def", "[CONFIG]\nLog=0\nSubscribe=0\nDeltaQuot=0\n");
    scratch.Write("qxdctrans.xml", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<qxpackets>\n</qxpackets>\n");
    scratch.Write("qxmktaccess.xml", "<qxmkts allaccess=\"1\"/>\n");

    std::ostringstream md;
    bool allOk = true;

    // ---- snapshot loads and memory ----
    std::printf("snapshot loads...\n");
    std::fflush(stdout);
    SnapshotResult big = MeasureSnapshot(10000, opt.trials, true);
    SnapshotResult small = MeasureSnapshot(1000, opt.trials, false);
    allOk = allOk && big.ok && small.ok;

    // ---- the streaming connection ----
    BenchCatalog cat;
    cat.instruments = 1000;
    Blaster libBlaster(cat);
    Blaster baseBlaster(cat);
    PushStream stream(cat);
    DeliveryRecorder libRecorder, baseRecorder;
    LibraryClient client(libBlaster.Front(), false);
    client.spi.recorder = &libRecorder;
    client.Init();
    bool ready = WaitUntil([&] { return client.spi.linked.load() > 0; }, 5000);
    if (ready) client.Login();
    ready = ready && WaitUntil([&] { return client.spi.completedAt.load() != 0; }, 10000) &&
            libBlaster.WaitSubscribed(5000);
    if (!ready) {
        std::fprintf(stderr, "the library did not log in and load its snapshot\n");
        return 1;
    }

    // A third client of the library, with md-record's journal attached
    // (files in the scratch directory), for the recording runs.
    orvex::journal::JournalWriter::Options journalOptions;
    journalOptions.dir = opt.journalDir.empty() ? std::string("journal") : opt.journalDir;
    // Room for a whole full-speed round: the rounds come faster than this
    // machine's disk takes them (see the page), and the queue is what
    // carries a burst.
    journalOptions.queueBytes = size_t{1} << 30;
    journalOptions.log = [](const std::string& line) { std::fprintf(stderr, "journal: %s\n", line.c_str()); };
    orvex::journal::JournalWriter journalWriter(journalOptions);
    Blaster journalBlaster(cat);
    DeliveryRecorder journalRecorder;
    JournalingSpi journalSpi(journalWriter);
    journalSpi.recorder = &journalRecorder;
    std::string journalError;
    if (!journalWriter.Start(&journalError)) {
        std::fprintf(stderr, "journal: %s\n", journalError.c_str());
        return 1;
    }
    auto journalClient = std::make_unique<LibraryClient>(journalBlaster.Front(), false, &journalSpi);
    journalClient->Init();
    ready = WaitUntil([&] { return journalSpi.linked.load() > 0; }, 5000);
    if (ready) journalClient->Login();
    ready = ready && WaitUntil([&] { return journalSpi.completedAt.load() != 0; }, 10000) &&
            journalBlaster.WaitSubscribed(5000);
    if (!ready) {
        std::fprintf(stderr, "the journaling client did not log in and load its snapshot\n");
        return 1;
    }

    // ---- idle CPU ----
    std::printf("idle CPU...\n");
    std::fflush(stdout);
    SleepNs(500000000);
    const int worker = client.spi.tid.load();
    const int64_t cpu0 = ProcessCpuNs(), thread0 = ThreadCpuNs(worker), wall0 = NowNs();
    const long wake0 = ThreadWakeups(worker);
    SleepNs(static_cast<int64_t>(opt.idleSeconds * 1e9));
    const int64_t wall = NowNs() - wall0;
    const double idleProcess = 100.0 * static_cast<double>(ProcessCpuNs() - cpu0) / static_cast<double>(wall);
    const double idleThread = 100.0 * static_cast<double>(ThreadCpuNs(worker) - thread0) / static_cast<double>(wall);
    const double idleWakeups = static_cast<double>(ThreadWakeups(worker) - wake0) * 1e9 / static_cast<double>(wall);
    // Then, over one window, the worker next to a bare 2 ms poll loop.
    double sideLibrary = 0, sideBare = 0;
    {
        BarePoller bare;
        SleepNs(200000000);
        const int64_t l0 = ThreadCpuNs(worker), b0 = ThreadCpuNs(bare.Tid()), w0 = NowNs();
        SleepNs(static_cast<int64_t>(opt.idleSeconds * 1e9));
        const double w = static_cast<double>(NowNs() - w0);
        sideLibrary = 100.0 * static_cast<double>(ThreadCpuNs(worker) - l0) / w;
        sideBare = 100.0 * static_cast<double>(ThreadCpuNs(bare.Tid()) - b0) / w;
    }

    // ---- streams ----
    BaselineClient baseline(baseRecorder);
    if (!baseline.Connect(baseBlaster.Port()) || !baseBlaster.WaitAccepted(1, 5000)) {
        std::fprintf(stderr, "baseline client could not connect\n");
        return 1;
    }
    uint64_t nextSeq = 1;
    // Warm-up: pages, caches and clocks of both paths.
    WaitUntil([&] { return baseline.Tid() >= 0; }, 2000);
    const int baseTid = baseline.Tid();
    // The sender (this thread) keeps one CPU and both receiving threads
    // share another, so that every run has the same placement.
    const std::vector<int> cpus = UsableCpus();
    const bool pinned = cpus.size() >= 2 && PinThread(0, cpus[0]) && PinThread(worker, cpus[1]) &&
                        PinThread(baseTid, cpus[1]);
    RunStream(baseBlaster, baseRecorder, baseTid, stream, 0, 10, 200000, &nextSeq);
    RunStream(libBlaster, libRecorder, worker, stream, 0, 10, 200000, &nextSeq);
    const int journalTid = journalSpi.tid.load();
    if (pinned) PinThread(journalTid, cpus[1]);
    RunStream(journalBlaster, journalRecorder, journalTid, stream, 0, 10, 200000, &nextSeq);

    std::vector<double> rates = opt.rates;
    rates.insert(rates.begin(), 0.0);
    // One result per rate and receiver; at full speed, the round with the
    // median rows/s of several (the receivers take turns in every round).
    std::vector<RunResult> baseRuns, libRuns;
    std::vector<double> ratedSliceGaps;   // µs, per fixed rate: the median of the slice pairs' p99 gaps
    std::vector<double> roundRatios;
    std::vector<RunResult> journalRuns, journalLibRuns;   // full speed, one pair per round
    uint64_t journalLost = 0;
    uint64_t lostRows = 0, libLost = 0;
    auto account = [&](const RunResult& r, bool library) {
        const uint64_t lost = r.sent.rows - std::min(r.sent.rows, r.delivered);
        lostRows += lost;
        if (library) libLost += lost;
    };
    // `slices` pairs of runs, the bare receiver's first in each.
    auto alternate = [&](int slices, const std::function<RunResult()>& bareRun,
                         const std::function<RunResult()>& libraryRun) {
        std::vector<RunResult> b, l;
        std::vector<double> gaps;
        for (int slice = 0; slice < slices; ++slice) {
            b.push_back(bareRun());
            l.push_back(libraryRun());
            account(b.back(), false);
            account(l.back(), true);
            gaps.push_back(Us(l.back().lat.p99 - b.back().lat.p99));
        }
        Alternated a;
        a.bare = Pool(b);
        a.library = Pool(l);
        a.pooledGap = Us(a.library.lat.p99 - a.bare.lat.p99);
        a.sliceGap = Median(gaps);
        return a;
    };
    auto median = [](std::vector<RunResult> v) {
        std::sort(v.begin(), v.end(),
                  [](const RunResult& a, const RunResult& b) { return a.rowsPerSecond < b.rowsPerSecond; });
        return v[v.size() / 2];
    };
    for (double rate : rates) {
        std::printf("stream %s...\n", RunLabel(rate).c_str());
        std::fflush(stdout);
        if (rate > 0) {
            // In slices taken in turn, as the paced runs below.
            const double seconds = opt.seconds / kRatedSlices;
            const Alternated a = alternate(
                kRatedSlices,
                [&] { return RunStream(baseBlaster, baseRecorder, baseTid, stream, rate, seconds, UINT64_MAX, &nextSeq); },
                [&] { return RunStream(libBlaster, libRecorder, worker, stream, rate, seconds, UINT64_MAX, &nextSeq); });
            baseRuns.push_back(a.bare);
            libRuns.push_back(a.library);
            ratedSliceGaps.push_back(a.sliceGap);
            continue;
        }
        std::vector<RunResult> b, l;
        // The library with the journal attached takes the same stream; its
        // writer's backlog is worked off, and the file system's write-back
        // of it done, before anything else runs, so that neither falls on
        // another receiver's run.
        auto journalRun = [&] {
            journalRuns.push_back(
                RunStream(journalBlaster, journalRecorder, journalTid, stream, 0, 60, opt.fullRows, &nextSeq));
            WaitUntil([&] { return journalWriter.GetStats().waiting == 0; }, 60000);
            const int dirFd = open(journalOptions.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (dirFd >= 0) {
                syncfs(dirFd);
                close(dirFd);
            }
            journalLost += journalRuns.back().sent.rows - std::min(journalRuns.back().sent.rows, journalRuns.back().delivered);
        };
        for (int round = 0; round < opt.fullRounds; ++round) {
            // Even rounds run baseline, library, journal; odd rounds the
            // other way round, so that neither side always comes first
            // after the quiet of the journal's drain.
            const bool forward = round % 2 == 0;
            if (!forward) journalRun();
            if (forward) b.push_back(RunStream(baseBlaster, baseRecorder, baseTid, stream, 0, 60, opt.fullRows, &nextSeq));
            l.push_back(RunStream(libBlaster, libRecorder, worker, stream, 0, 60, opt.fullRows, &nextSeq));
            if (!forward) b.push_back(RunStream(baseBlaster, baseRecorder, baseTid, stream, 0, 60, opt.fullRows, &nextSeq));
            if (forward) journalRun();
            account(b.back(), false);
            account(l.back(), true);
            roundRatios.push_back(b.back().rowsPerSecond > 0 ? l.back().rowsPerSecond / b.back().rowsPerSecond : 0);
            journalLibRuns.push_back(l.back());
        }
        baseRuns.push_back(median(b));
        libRuns.push_back(median(l));
    }
    baseline.Stop();
    // The recording client has done its part: gone, it wakes nobody during
    // the paced runs (its writer's flush timer, its worker's time-outs).
    journalClient.reset();   // its last callbacks are queued before the writer drains
    journalWriter.Close();

    // ---- paced: one frame every 100 µs, against the barest receiver ----
    struct PacedRun : Alternated {
        bool pinned = false;
    };
    std::vector<PacedRun> paced;
    if (opt.pacedSeconds > 0) {
        DeliveryRecorder bareRecorder;
        BaselineClient bare(bareRecorder, BaselineClient::Mode::Blocking);
        if (!bare.Connect(baseBlaster.Port()) || !baseBlaster.WaitAccepted(2, 5000) ||
            !WaitUntil([&] { return bare.Tid() >= 0; }, 2000)) {
            std::fprintf(stderr, "bare client could not connect\n");
            return 1;
        }
        for (bool pin : {false, true}) {
            if (pin && !pinned) continue;
            // Unpinned: every thread may run on every CPU, as a user's
            // process would.
            for (int tid : {0, worker, bare.Tid()}) {
                if (pin) PinThread(tid, tid == 0 ? cpus[0] : cpus[1]);
                else AllowCpus(tid, cpus);
            }
            for (double rate : {10000.0, 100000.0}) {
                std::printf("paced %s, %s...\n", RunLabel(rate).c_str(), pin ? "pinned" : "unpinned");
                std::fflush(stdout);
                PacedRun r;
                // The two receivers take turns in short slices, so that
                // whatever else the machine does at the time falls on both
                // alike.
                const double seconds = opt.pacedSeconds / kPacedSlices;
                static_cast<Alternated&>(r) = alternate(
                    kPacedSlices,
                    [&] { return RunPaced(baseBlaster, bareRecorder, bare.Tid(), stream, rate, seconds, &nextSeq); },
                    [&] { return RunPaced(libBlaster, libRecorder, worker, stream, rate, seconds, &nextSeq); });
                r.pinned = pin;
                paced.push_back(std::move(r));
            }
        }
        bare.Stop();
        // The other measurements keep their placement.
        if (pinned) {
            PinThread(0, cpus[0]);
            PinThread(worker, cpus[1]);
        }
    }
    if (!opt.latencyDir.empty()) {
        for (const PacedRun& r : paced) {
            const std::string stem = opt.latencyDir + "/paced-" + (r.pinned ? "pinned-" : "unpinned-") +
                                     (r.bare.rate >= 100000 ? "100k" : "10k");
            WriteLatencyCurve(stem + "-bare.dat", r.bare.sorted);
            WriteLatencyCurve(stem + "-library.dat", r.library.sorted);
        }
    }

    // ---- connection loss ----
    struct LossResult {
        bool done = false;
        double connectionAgeS = 0, detectMs = 0, reconnectS = 0, sinceAttemptS = 0;
        int reason = -1;
    };
    std::vector<LossResult> losses;
    if (opt.reconnect) {
        std::printf("connection loss...\n");
        std::fflush(stdout);
        // First on the long-lived streaming connection, then on the fresh
        // connection that replaced it, one second after it was made.
        for (int round = 0; round < 2; ++round) {
            LossResult l;
            const int lostBefore = client.spi.lost.load();
            const int acceptsBefore = libBlaster.Accepted();
            const int64_t acceptedAt = libBlaster.AcceptedAt();
            if (round == 1) SleepNs(1000000000 - (NowNs() - acceptedAt));
            const int64_t closedAt = libBlaster.CloseClient();
            l.connectionAgeS = static_cast<double>(closedAt - acceptedAt) / 1e9;
            if (!WaitUntil([&] { return client.spi.lost.load() > lostBefore; }, 5000)) break;
            l.detectMs = Ms(client.spi.lostAt.load() - closedAt);
            l.reason = client.spi.lostReason.load();
            if (!WaitUntil([&] { return libBlaster.Accepted() > acceptsBefore; }, 15000)) break;
            l.reconnectS = static_cast<double>(libBlaster.AcceptedAt() - closedAt) / 1e9;
            l.sinceAttemptS = static_cast<double>(libBlaster.AcceptedAt() - acceptedAt) / 1e9;
            l.done = true;
            losses.push_back(l);
            WaitUntil([&] { return client.spi.linked.load() >= 2 + round; }, 5000);
        }
    }

    // ---- results ----
    const double ratio = baseRuns[0].rowsPerSecond > 0 ? libRuns[0].rowsPerSecond / baseRuns[0].rowsPerSecond : 0;

    md << "## End to end over loopback\n\n";
    md << "One market of 1,000 instruments. The blaster streams dynamic information: pushed rows of 150 bytes "
          "(last price, volume, open interest, turnover, five bid and ask levels), at most 27 per frame and "
          "up to four frames per send(), TCP_NODELAY; at a fixed rate the blaster sleeps until the next row "
          "is due and sends all rows due by then (the timer's lateness batches a few rows at high rates). "
          "Each row carries its send time in Volume and its sequence number in Turnover; both reach the "
          "depth record unchanged. The library runs with full pushes and no subscription filter; its "
          "callback only records the row. The baseline client receives the same stream with the library's "
          "buffer and 2 ms poll, cuts the frames and walks the row heads, and does nothing else. Receivers "
          "take turns: at a fixed rate the baseline's slice, then the library's, " << kRatedSlices
       << " slices each (the table pools each one's slices; the latency target takes the median of the "
          "slice pairs' p99 gaps); at full speed, round by round, every other round in the opposite order, "
          "the library with the journal (below) first. "
       << (pinned ? "The sending thread is bound to one CPU and both receiving threads to another. "
                  : "Threads are not bound to CPUs (fewer than two usable). ")
       << "Latency is from the send() "
          "of the row's frame to the delivery of the row; both receivers read the monotonic clock once "
          "per row for it. CPU ns/row is the receiving thread's CPU time (user and system) per row "
          "delivered.\n\n";
    md << "| run | receiver | rows sent | delivered | lost | rows/s | CPU ns/row | p50 µs | p99 µs | p99.9 µs | "
          "max µs |\n";
    md << "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    for (size_t i = 0; i < rates.size(); ++i) {
        for (const RunResult* r : {&baseRuns[i], &libRuns[i]}) {
            const uint64_t lost = r->sent.rows - std::min(r->sent.rows, r->delivered);
            md << "| " << RunLabel(rates[i]) << " | " << (r == &baseRuns[i] ? "baseline" : "library") << " | "
               << r->sent.rows << " | " << r->delivered << " | " << lost << " | " << Fmt("%.0f", r->rowsPerSecond)
               << " | " << Fmt("%.0f", r->cpuPerRow) << " | " << Fmt("%.1f", Us(r->lat.p50)) << " | "
               << Fmt("%.1f", Us(r->lat.p99)) << " | " << Fmt("%.1f", Us(r->lat.p999)) << " | "
               << Fmt("%.1f", Us(r->lat.max)) << " |\n";
            if (r->duplicates || r->outOfOrder || r->stray) {
                md << "\n(" << (r == &baseRuns[i] ? "baseline" : "library") << ", " << RunLabel(rates[i])
                   << ": " << r->duplicates << " duplicates, " << r->outOfOrder << " out of order, " << r->stray
                   << " unexpected)\n\n";
                allOk = false;
            }
        }
    }
    md << "\nFull speed: " << opt.fullRounds << " rounds of " << opt.fullRows
       << " rows per receiver, the table shows each receiver's median round; library over baseline rows/s "
          "round by round: "
       << JoinRatios(roundRatios) << ".\n\n";
    md << "Library rows/s over baseline rows/s at full speed (medians), and rows sent minus rows delivered over "
          "all runs and rounds (both receivers):\n\n";
    md << Fmt("ratio: %.2f\n", ratio);
    md << "lost: " << lostRows << "\n\n";

    // The 100k run (or the fastest fixed rate) decides the latency target.
    size_t latencyRun = 0;
    for (size_t i = 1; i < rates.size(); ++i)
        if (rates[i] >= rates[latencyRun] || latencyRun == 0) latencyRun = i;
    const double p99Pooled = latencyRun > 0 ? Us(libRuns[latencyRun].lat.p99 - baseRuns[latencyRun].lat.p99) : 0;
    const double p99Excess = latencyRun > 0 ? ratedSliceGaps[latencyRun - 1] : 0;

    double pacedGap100k = 0, pooledGap100k = 0;
    if (!paced.empty()) {
        md << "## Paced every 100 µs\n\n";
        md << "The blaster sends one frame every 100 µs on an absolute schedule: one row per frame at 10,000 "
              "rows/s, ten at 100,000; every row is stamped at its frame's send(). The bare receiver does one "
              "blocking recv() per pass, cuts the frames and reads the stamps, nothing else; the library "
              "receives the same schedule. The two take turns in " << kPacedSlices << " slices each, so that "
              "what else the machine does at the time falls on both alike, and each one's slices are pooled. "
              "Unpinned, every thread may run on every CPU; pinned, the sender has one CPU and the receivers "
              "the other. CPU is the receiving thread's, in % of a core while the stream lasts.\n\n"
              "Two gaps are given, library p99 minus bare p99. Pooled: of the pooled slices. Slice pairs: "
              "the median of the gaps of the slices taken one after the other, which the targets below use. "
              "On this shared machine a stall of the whole virtual machine (the host's other work) lands in "
              "one slice now and then and can move a pooled p99 by a hundred microseconds or more, in either "
              "direction; the median of the pairs is what the library adds in a typical second, and the "
              "pooled p99s beside it show the whole tail.\n\n";
        md << "| placement | rate | receiver | rows | lost | p50 µs | p99 µs | p99.9 µs | max µs | CPU % | "
              "p99 gap µs, pooled | p99 gap µs, slice pairs |\n";
        md << "|---|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
        for (const PacedRun& r : paced) {
            if (!r.pinned && r.bare.rate >= 100000) {
                pacedGap100k = r.sliceGap;
                pooledGap100k = r.pooledGap;
            }
            for (const RunResult* x : {&r.bare, &r.library}) {
                const uint64_t lost = x->sent.rows - std::min(x->sent.rows, x->delivered);
                md << "| " << (r.pinned ? "pinned" : "unpinned") << " | " << RunLabel(x->rate) << " | "
                   << (x == &r.bare ? "bare" : "library") << " | " << x->sent.rows << " | " << lost << " | "
                   << Fmt("%.1f", Us(x->lat.p50)) << " | " << Fmt("%.1f", Us(x->lat.p99)) << " | "
                   << Fmt("%.1f", Us(x->lat.p999)) << " | " << Fmt("%.1f", Us(x->lat.max)) << " | "
                   << Fmt("%.1f", x->cpuShare) << " | "
                   << (x == &r.library ? Fmt("%+.1f", r.pooledGap) + " | " + Fmt("%+.1f", r.sliceGap) : " | ")
                   << " |\n";
            }
        }
        md << "\n" << Fmt("p99 gap 100k: %.1f µs\n", pacedGap100k)
           << Fmt("pooled p99 gap 100k: %.1f µs\n\n", pooledGap100k);
    }

    // ---- recording ----
    double recordingRatio = 0;
    uint64_t recordingDropped = 0;
    {
        const orvex::journal::JournalWriter::Stats js = journalWriter.GetStats();
        recordingDropped = js.dropped + journalLost;
        std::vector<double> ratios;
        for (size_t i = 0; i < journalRuns.size(); ++i)
            ratios.push_back(journalLibRuns[i].rowsPerSecond > 0
                                 ? journalRuns[i].rowsPerSecond / journalLibRuns[i].rowsPerSecond : 0);
        std::vector<double> sortedRatios = ratios;
        std::sort(sortedRatios.begin(), sortedRatios.end());
        recordingRatio = sortedRatios.empty() ? 0 : sortedRatios[sortedRatios.size() / 2];
        const uint64_t depthEntries = journalSpi.Journaled(orvex::journal::kDepth);
        const double perMillion = depthEntries ? static_cast<double>(js.bytes) * 1e6 / static_cast<double>(depthEntries) : 0;
        md << "## Recording\n\n";
        md << "A third client of the library has md-record's journal attached (its callback object journals every "
              "callback through the bounded queue (1 GiB here, md-record --queue-mb 1024) and the writer thread into "
              "files in a scratch directory under /tmp, 20 ms flush period, then records the row as the others do). In each full-speed round it takes the same "
              "stream right after the plain library client (every other round right before it); after its run the "
              "writer's backlog is worked off and the file system synced before any other run; the ratio is its "
              "rows/s over the plain library's in that round.\n\n";
        md << "| round | library rows/s | worker CPU ns/row | library + journal rows/s | worker CPU ns/row | ratio |\n"
              "|---:|---:|---:|---:|---:|---:|\n";
        for (size_t i = 0; i < journalRuns.size(); ++i)
            md << "| " << i + 1 << " | " << Fmt("%.0f", journalLibRuns[i].rowsPerSecond) << " | "
               << Fmt("%.0f", journalLibRuns[i].cpuPerRow) << " | " << Fmt("%.0f", journalRuns[i].rowsPerSecond) << " | "
               << Fmt("%.0f", journalRuns[i].cpuPerRow) << " | " << Fmt("%.2f", ratios[i]) << " |\n";
        md << "\n" << Fmt("recording ratio: %.2f (median)\n", recordingRatio);
        md << Fmt("writer thread CPU: %.0f ns per depth record (all rounds; it shares the two CPUs with the others)\n\n",
                  depthEntries ? static_cast<double>(js.writerCpuNs) / static_cast<double>(depthEntries) : 0.0);
        md << "journal: " << js.entries << " entries, " << js.bytes << " bytes in " << js.files << " file(s), queue high-water "
           << js.highWater << " of " << js.queueBytes << " bytes, dropped " << js.dropped << "; rows lost " << journalLost
           << "\n\n";
        md << Fmt("Journal size: %.0f MB per million depth records", perMillion / 1e6)
           << " (a 24-byte entry head and the 408-byte record; the other kinds add little). The files are not "
              "compressed, by us or by the file system: what is written is what is stored.\n\n";
        allOk = allOk && js.dropped == 0 && journalLost == 0;
    }

    md << "## Snapshot load\n\n";
    md << "Login sent to the first status report after \"Quotation Completed\" (the library's own snapshot "
          "callbacks on); median of " << opt.trials << " loads. \"After the last packet\" runs from the "
          "return of the blaster's send() of the last quotation packet, an upper bound for the time after "
          "its arrival.\n\n";
    md << "| instruments | login → completed ms | last packet sent → completed ms | "
          "login → last depth callback ms | depth callbacks |\n";
    md << "|---:|---:|---:|---:|---:|\n";
    for (const SnapshotResult* s : {&small, &big}) {
        md << "| " << s->instruments << " | " << Fmt("%.1f", Median(s->totalMs)) << " | "
           << Fmt("%.1f", Median(s->afterLastMs)) << " | " << Fmt("%.1f", Median(s->lastDepthMs)) << " | "
           << s->rows << " |\n";
    }
    md << "\n## Memory per instrument\n\n";
    md << "Growth of the process while 10,000 instruments are loaded (name tables and snapshot; the blaster's "
          "answers are built beforehand):\n\n";
    md << "| measure | total | per instrument |\n|---|---:|---:|\n";
    md << "| heap in use (malloc) | " << Fmt("%.2f MiB", static_cast<double>(big.heapBytes) / 1048576.0) << " | "
       << Fmt("%.0f B", static_cast<double>(big.heapBytes) / 10000.0) << " |\n";
    md << "| resident set | " << Fmt("%.2f MiB", static_cast<double>(big.rssBytes) / 1048576.0) << " | "
       << Fmt("%.0f B", static_cast<double>(big.rssBytes) / 10000.0) << " |\n\n";

    md << "## Idle CPU\n\n";
    md << Fmt("Connected, logged in, nothing arriving, over %.0f s: ", opt.idleSeconds);
    md << Fmt("the process used %.3f%% of one core, the library's worker thread %.3f%% "
              "(%.0f wake-ups per second).\n\n",
              idleProcess, idleThread, idleWakeups);
    md << Fmt("Over a second window of the same length, side by side, the worker used %.3f%% and a bare "
              "thread that only waits in poll() with a 2 ms time-out on a silent socket %.3f%%, the cost "
              "of waking every 2 ms.\n\n",
              sideLibrary, sideBare);

    md << "## Connection loss and reconnect\n\n";
    if (losses.empty()) {
        md << "Not measured.\n\n";
    } else {
        md << "The blaster shuts the connection down (FIN). Reconnect attempts are at most one per 10 s, counted "
              "from the previous attempt, so a connection older than 10 s is remade at once and a younger one "
              "when its 10 s are up.\n\n";
        md << "| connection age s | close → OnFrontLost ms | reason | close → reconnected s | previous connect → "
              "reconnect s |\n|---:|---:|---:|---:|---:|\n";
        for (const LossResult& l : losses)
            md << Fmt("| %.1f | %.3f | %d | %.3f | %.3f |\n", l.connectionAgeS, l.detectMs, l.reason, l.reconnectS,
                      l.sinceAttemptS);
        md << "\n";
    }

    md << "## Targets\n\n| target | measured | met |\n|---|---|---|\n";
    auto row = [&](const std::string& what, const std::string& value, bool met) {
        md << "| " << what << " | " << value << " | " << (met ? "yes" : "**no**") << " |\n";
    };
    row("every pushed row delivered, every rate", Fmt("%" PRIu64 " rows lost by the library", libLost), libLost == 0);
    row("library throughput ≥ half the baseline's", Fmt("%.2f", ratio), ratio >= 0.5);
    row("library throughput ≥ 0.6 of the baseline's", Fmt("%.2f", ratio), ratio >= 0.6);
    row("recording: library rows/s with the journal ≥ 0.8 of without, nothing dropped or lost",
        Fmt("%.2f, %" PRIu64 " dropped or lost", recordingRatio, recordingDropped),
        recordingRatio >= 0.8 && recordingDropped == 0);
    if (latencyRun > 0)
        row(Fmt("p99 at %s: library − baseline < 20 µs (slice pairs)", RunLabel(rates[latencyRun]).c_str()),
            Fmt("%+.1f µs (pooled %+.1f)", p99Excess, p99Pooled), p99Excess < 20);
    row("10,000-instrument snapshot < 100 ms after the last packet", Fmt("%.1f ms", Median(big.afterLastMs)),
        Median(big.afterLastMs) < 100);
    row("idle CPU < 1% of a core", Fmt("%.3f%%", idleProcess), idleProcess < 1.0);
    for (const PacedRun& r : paced)
        row(Fmt("paced, %s, %s: p99 within 20 µs of the bare loop (slice pairs)", RunLabel(r.bare.rate).c_str(),
                r.pinned ? "pinned" : "unpinned"),
            Fmt("%+.1f µs (pooled %+.1f)", r.sliceGap, r.pooledGap), r.sliceGap <= 20);
    md << "\n";

    const std::string report = md.str();
    std::fputs(report.c_str(), stdout);
    if (!markdownPath.empty()) {
        FILE* f = std::fopen(markdownPath.c_str(), "w");
        if (f) {
            std::fputs(report.c_str(), f);
            std::fclose(f);
        }
    }
    return allOk ? 0 : 1;
}
