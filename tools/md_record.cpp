// md-record: records the feed into a tick journal.
//
// It connects like md-console (the same connection options), with snapshot
// delivery on, and journals every callback the library makes, each with its
// receive time, into DIR/DAY.mdj, one file per trading day (see
// journal/JournalFormat.h). The library's thread only copies each callback
// into a bounded queue; a writer thread writes the files. A full queue
// drops entries, and says so in the log and in the summary.
//
//   md-record --front tcp://127.0.0.1:7000 --journal ticks/
//   md-record --front tcp://127.0.0.1:7000 --file-front ftp://127.0.0.1:7001 --query
//             --journal ticks/ --flush every --duration 3600
//
// A recorder that is killed leaves a journal that reads back to its last
// whole entry; started again on the same day it appends after cutting the
// torn tail.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "ClientOptions.h"
#include "OrvexWiraMdApi.h"
#include "TemplateFile.h"
#include "fanout/RedisSink.h"
#include "journal/JournalSpi.h"
#include "journal/JournalWriter.h"

namespace {

using orvex::journal::JournalSpi;
using orvex::fanout::RedisSink;
using orvex::journal::JournalWriter;

struct Options : ClientOptions {
    std::string journal;          // directory of the journal files
    int flushMs = 20;             // 0: every entry
    bool sync = false;
    size_t queueBytes = 64u << 20;
    double summaryEvery = -1;     // seconds; -1: every 5 s when standard error is a terminal
    bool wholeRecords = false;    // no depth deltas
    std::string redis;            // redis://HOST:PORT[/DB], unix:///PATH or /PATH
    std::string redisConfig;      // INI file with [redis] password=
    std::string redisPrefix = "md";
    uint64_t redisMaxLen = 1000000;
    size_t redisBuffer = 1000000;
    bool redisInstrumentStreams = true;
};

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: md-record --front tcp://HOST:PORT (--journal DIR | --redis URL) [options]\n"
                 "\n"
                 "%s"
                 "  --journal DIR        directory of the journal files, DAY.mdj (created when missing)\n"
                 "  --flush P            when entries reach the OS: every (each entry) or a period in\n"
                 "                       milliseconds (20)\n"
                 "  --sync               fdatasync after every write (survives power loss; slower)\n"
                 "  --queue-mb N         bound of the in-memory queue, MiB (64); when full, entries are\n"
                 "                       dropped and counted\n"
                 "  --whole-records      write every depth record whole (by default a record is written as\n"
                 "                       its change from the instrument's previous one; readers see no\n"
                 "                       difference)\n"
                 "  --redis URL          also publish depth records and status reports into Redis Streams:\n"
                 "                       redis://HOST:PORT[/DB], unix:///PATH or /PATH; the password comes\n"
                 "                       from ORVEX_REDIS_PASSWORD or --redis-config, never the command line\n"
                 "  --redis-config FILE  an INI file with [redis] password=...\n"
                 "  --redis-prefix P     key prefix (md): streams P:{EXCHANGE} and P:{EXCHANGE}:INSTRUMENT\n"
                 "  --redis-streams S    both (default): a stream per exchange and one per instrument;\n"
                 "                       exchange: per exchange only (twice the rate into Redis; a consumer\n"
                 "                       of one instrument filters its exchange's stream)\n"
                 "  --redis-maxlen N     trim every stream to about N entries (1000000)\n"
                 "  --redis-buffer N     entries kept while Redis is away (1000000); past that the oldest\n"
                 "                       are dropped and counted\n"
                 "  --summary S          print the counters every S seconds (default: every 5 s on a\n"
                 "                       terminal, else only at the end; 0: only at the end)\n"
                 "  --help\n",
                 kClientUsage);
}

int ParseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const int shared = ParseClientOption("md-record", argc, argv, i, o);
        if (shared == 2) return 2;
        if (shared == 1) continue;
        const std::string arg = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "md-record: %s needs a value\n", arg.c_str());
                return nullptr;
            }
            return argv[++i];
        };
        const char* v = nullptr;
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return -1;
        } else if (arg == "--journal") {
            if (!(v = value())) return 2;
            o.journal = v;
        } else if (arg == "--flush") {
            if (!(v = value())) return 2;
            char* end = nullptr;
            const long ms = std::strtol(v, &end, 10);
            if (std::strcmp(v, "every") == 0) {
                o.flushMs = 0;
            } else if (end != v && *end == '\0' && ms > 0 && ms <= 60000) {
                o.flushMs = static_cast<int>(ms);
            } else {
                std::fprintf(stderr, "md-record: --flush takes \"every\" or milliseconds (1-60000), not %s\n", v);
                return 2;
            }
        } else if (arg == "--sync") {
            o.sync = true;
        } else if (arg == "--whole-records") {
            o.wholeRecords = true;
        } else if (arg == "--queue-mb") {
            if (!(v = value())) return 2;
            const long mb = std::atol(v);
            if (mb < 1 || mb > 65536) {
                std::fprintf(stderr, "md-record: --queue-mb takes 1-65536, not %s\n", v);
                return 2;
            }
            o.queueBytes = static_cast<size_t>(mb) << 20;
        } else if (arg == "--redis" || arg == "--redis-config" || arg == "--redis-prefix") {
            if (!(v = value())) return 2;
            (arg == "--redis" ? o.redis : arg == "--redis-config" ? o.redisConfig : o.redisPrefix) = v;
        } else if (arg == "--redis-streams") {
            if (!(v = value())) return 2;
            if (std::strcmp(v, "both") != 0 && std::strcmp(v, "exchange") != 0) {
                std::fprintf(stderr, "md-record: --redis-streams takes both or exchange, not %s\n", v);
                return 2;
            }
            o.redisInstrumentStreams = std::strcmp(v, "both") == 0;
        } else if (arg == "--redis-maxlen" || arg == "--redis-buffer") {
            if (!(v = value())) return 2;
            char* end = nullptr;
            const unsigned long long n = std::strtoull(v, &end, 10);
            if (end == v || *end != '\0' || n == 0) {
                std::fprintf(stderr, "md-record: %s takes a positive number, not %s\n", arg.c_str(), v);
                return 2;
            }
            if (arg == "--redis-maxlen") o.redisMaxLen = n;
            else o.redisBuffer = static_cast<size_t>(n);
        } else if (arg == "--summary") {
            if (!(v = value())) return 2;
            o.summaryEvery = std::atof(v);
        } else {
            std::fprintf(stderr, "md-record: unknown option %s (see --help)\n", arg.c_str());
            return 2;
        }
    }
    if (o.fronts.empty()) {
        std::fprintf(stderr, "md-record: give at least one --front tcp://host:port\n");
        return 2;
    }
    if (o.journal.empty() && o.redis.empty()) {
        std::fprintf(stderr, "md-record: give --journal DIR, --redis URL or both\n");
        return 2;
    }
    return 0;
}

// Journals everything (the base) and acts as the client: logs in on every
// link, subscribes after every successful login, queries once.
class RecorderSpi : public JournalSpi {
public:
    RecorderSpi(COrvexWiraMdApi* api, const Options& o, JournalWriter* writer, RedisSink* redis,
                std::map<int, int> templateSizes)
        : JournalSpi(writer, std::move(templateSizes)), m_api(api), m_options(o), m_redis(redis) {}

    void OnFrontLinked() override {
        JournalSpi::OnFrontLinked();
        SendLogin(m_api, m_options, ++m_requestId);
    }

    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int id, bool last) override {
        JournalSpi::OnLoginAnswer(rsp, info, id, last);
        if (info && info->ErrorID != 0) {
            std::fprintf(stderr, "md-record: login refused (%d)\n", info->ErrorID);
            return;
        }
        SendSubscriptions(m_api, m_options);
        if (m_queried.exchange(true)) return;
        const int first = m_requestId.fetch_add(static_cast<int>(m_options.queries.size())) + 1;
        SendQueries(m_api, m_options, first);
    }

protected:
    // Depth records and status reports also go to Redis.
    void Tap(uint16_t kind, int64_t time, const void* payload, uint32_t) override {
        if (!m_redis) return;
        if (kind == orvex::journal::kDepth)
            m_redis->AddDepth(*static_cast<const COrvexWiraDepthMarketDataField*>(payload), time);
        else if (kind == orvex::journal::kStatus)
            m_redis->AddStatus(*static_cast<const COrvexWiraMarketStatusField*>(payload), time);
    }

private:
    COrvexWiraMdApi* m_api;
    const Options& m_options;
    RedisSink* m_redis;
    std::atomic<int> m_requestId{0};
    std::atomic<bool> m_queried{false};
};

std::string Summary(const RecorderSpi& spi, const JournalWriter* writer, const RedisSink* redis) {
    using namespace orvex::journal;
    char text[1024];
    std::snprintf(text, sizeof(text),
                  "md-record: callbacks: depth %llu, status %llu, instrument %llu, login %llu, template %llu, "
                  "linked %llu, lost %llu",
                  static_cast<unsigned long long>(spi.Count(kDepth)), static_cast<unsigned long long>(spi.Count(kStatus)),
                  static_cast<unsigned long long>(spi.Count(kInstrument)), static_cast<unsigned long long>(spi.Count(kLogin)),
                  static_cast<unsigned long long>(spi.Count(kTemplate)), static_cast<unsigned long long>(spi.Count(kLinked)),
                  static_cast<unsigned long long>(spi.Count(kLost)));
    std::string out = text;
    if (writer) {
        const JournalWriter::Stats s = writer->GetStats();
        std::snprintf(text, sizeof(text),
                      "; journal: %llu entries written, %llu instruments today, %llu bytes in %llu file(s)%s%s, queue "
                      "%llu bytes waiting (high-water %llu of %llu), dropped %llu",
                      static_cast<unsigned long long>(s.entries), static_cast<unsigned long long>(s.instruments),
                      static_cast<unsigned long long>(s.bytes), static_cast<unsigned long long>(s.files),
                      s.file.empty() ? "" : ", now ", s.file.c_str(), static_cast<unsigned long long>(s.waiting),
                      static_cast<unsigned long long>(s.highWater), static_cast<unsigned long long>(s.queueBytes),
                      static_cast<unsigned long long>(s.dropped));
        out += text;
    }
    if (redis) {
        const RedisSink::Stats r = redis->GetStats();
        std::snprintf(text, sizeof(text),
                      "; redis: %llu entries written, %llu waiting (high-water %llu), dropped %llu, duplicates %llu, "
                      "refused %llu, reconnects %llu",
                      static_cast<unsigned long long>(r.written), static_cast<unsigned long long>(r.waiting),
                      static_cast<unsigned long long>(r.highWater), static_cast<unsigned long long>(r.dropped),
                      static_cast<unsigned long long>(r.duplicates), static_cast<unsigned long long>(r.refused),
                      static_cast<unsigned long long>(r.reconnects));
        out += text;
    }
    if (spi.TemplatesSkipped())
        out += "; " + std::to_string(spi.TemplatesSkipped()) + " template records without a layout not journaled";
    return out;
}

std::atomic<bool> g_interrupted{false};
void OnSignal(int) { g_interrupted.store(true); }

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int rc = ParseOptions(argc, argv, options);
    if (rc != 0) return rc < 0 ? 0 : rc;

    if (!PrepareWorkingDirectory(options, "md-record")) return 1;

    // Template records are journaled with the sizes the template file gives,
    // and the file itself goes into every journal file.
    TemplateFile templates;
    templates.Load("./qxdctrans.xml");

    JournalWriter::Options wo;
    wo.dir = options.journal;
    wo.flushMs = options.flushMs;
    wo.sync = options.sync;
    wo.queueBytes = options.queueBytes;
    wo.templatesText = templates.Text();
    wo.depthDeltas = !options.wholeRecords;
    wo.log = [](const std::string& line) { std::fprintf(stderr, "md-record: %s\n", line.c_str()); };
    std::unique_ptr<JournalWriter> writer;
    std::string error;
    if (!options.journal.empty()) {
        writer.reset(new JournalWriter(wo));
        if (!writer->Start(&error)) {
            std::fprintf(stderr, "md-record: %s\n", error.c_str());
            return 1;
        }
    }
    std::unique_ptr<RedisSink> redis;
    if (!options.redis.empty()) {
        RedisSink::Options ro;
        if (!orvex::fanout::ParseRedisUrl(options.redis, &ro.address, &error)) {
            std::fprintf(stderr, "md-record: %s\n", error.c_str());
            return 2;
        }
        ro.password = orvex::fanout::RedisPassword(options.redisConfig);
        ro.prefix = options.redisPrefix;
        ro.maxLen = options.redisMaxLen;
        ro.buffer = options.redisBuffer;
        ro.instrumentStreams = options.redisInstrumentStreams;
        ro.log = wo.log;
        redis.reset(new RedisSink(ro));
        if (!redis->Start(&error)) {
            std::fprintf(stderr, "md-record: %s\n", error.c_str());
            return 2;
        }
    }

    CatchStopSignals(OnSignal);
    // A Redis that goes away mid-write must not kill the process: hiredis
    // writes with plain write(), and the error is handled where it comes.
    signal(SIGPIPE, SIG_IGN);

    COrvexWiraMdApi* api = CreateWiraMdApi(options.flow.c_str(), false, false, true);
    if (!api) {
        std::fprintf(stderr, "md-record: CreateWiraMdApi failed\n");
        return 1;
    }
    RecorderSpi spi(api, options, writer.get(), redis.get(), templates.Sizes());
    api->RegisterSpi(&spi);
    for (std::string& front : options.fronts) api->RegisterFront(&front[0]);
    for (std::string& front : options.fileFronts) api->RegisterFront(&front[0]);
    api->Init();

    const double every = options.summaryEvery >= 0 ? options.summaryEvery : (isatty(STDERR_FILENO) ? 5.0 : 0.0);
    const auto start = std::chrono::steady_clock::now();
    double nextSummary = every;
    while (!g_interrupted.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (options.duration > 0 && elapsed >= options.duration) break;
        if (every > 0 && elapsed >= nextSummary) {
            nextSummary += every;
            std::fprintf(stderr, "%s\n", Summary(spi, writer.get(), redis.get()).c_str());
        }
    }

    // The library is stopped first, so that its last callbacks are queued
    // before the writer drains the queue and closes the file.
    api->Release();
    if (writer) writer->Close();
    if (redis) redis->Close();
    std::fprintf(stderr, "%s\n", Summary(spi, writer.get(), redis.get()).c_str());
    return 0;
}
