// md-record's Redis sink and md-tail against a real redis-server (started
// here on a free loopback port, without persistence) and qxdc-sim:
// - every depth record and status report reaches the streams once, in
//   order, with its exact bytes (checked against the journal md-record
//   writes at the same time); three consumers see the same stream; a late
//   consumer reads from a past time;
// - Redis killed and started again: the recorder reconnects, sends what it
//   kept, and its counters account for every record;
// - a stalled consumer does not slow the recorder;
// - a wrong or missing password is a clear error.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fanout/RedisLink.h"
#include "fanout/RedisSink.h"
#include "journal/JournalFormat.h"
#include "journal/JournalReader.h"
#include "journal/JournalText.h"
#include "support/JournalKit.h"
#include "support/ProcessKit.h"
#include "support/RecordingSpi.h"

namespace {

using namespace orvex::journal;
using orvex::fanout::FreeReply;
using orvex::fanout::RedisAddress;
using orvex::fanout::RedisLink;
using orvex::fanout::RedisSink;
using orvex_test::Child;
using orvex_test::OwnedEntry;
using orvex_test::ScopedTempDir;
using orvex_test::Slurp;
using orvex_test::WaitUntil;

int FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// redis-server on a loopback port (or, with `unix`, on a socket in the
// current directory: a server started again gets the same address even
// while other tests take ports), no persistence.
class RedisServer {
public:
    explicit RedisServer(std::string password = "", bool unix = false)
        : m_port(unix ? 0 : FreePort()), m_password(std::move(password)) {
        if (unix) {
            char cwd[4096];
            m_path = std::string(getcwd(cwd, sizeof(cwd)) ? cwd : ".") + "/redis.sock";
        }
        Start();
    }
    void Start() {
        std::vector<std::string> args = {ORVEX_REDIS_SERVER, "--port", std::to_string(m_port), "--bind", "127.0.0.1",
                                         "--save", "", "--appendonly", "no", "--dir", "."};
        if (!m_path.empty()) args.insert(args.end(), {"--unixsocket", m_path});
        if (!m_password.empty()) args.insert(args.end(), {"--requirepass", m_password});
        m_child.reset(new Child(args, "redis.out", "redis.log"));
        const RedisAddress address = Address();
        WaitUntil(
            [&] {
                RedisLink link;
                bool auth = false;
                return link.Open(address, m_password, 500, nullptr, &auth) || auth;
            },
            5000);
    }
    void Kill() { m_child->Stop(SIGKILL); }
    std::string Url() const { return m_path.empty() ? "redis://127.0.0.1:" + std::to_string(m_port) : m_path; }
    RedisAddress Address() const {
        RedisAddress a;
        if (!m_path.empty()) {
            a.path = m_path;
            return a;
        }
        a.host = "127.0.0.1";
        a.port = m_port;
        return a;
    }

private:
    int m_port;
    std::string m_path;
    std::string m_password;
    std::unique_ptr<Child> m_child;
};

struct StreamEntry {
    std::string id, kind, raw;
    int64_t rt;
};

std::vector<StreamEntry> ReadStream(RedisLink& link, const std::string& key) {
    std::vector<StreamEntry> out;
    redisReply* r = link.Command({"XRANGE", key, "-", "+"});
    for (size_t i = 0; r && r->type == REDIS_REPLY_ARRAY && i < r->elements; ++i) {
        const redisReply* e = r->element[i];
        StreamEntry x;
        x.id.assign(e->element[0]->str, e->element[0]->len);
        const redisReply* f = e->element[1];
        for (size_t k = 0; k + 1 < f->elements; k += 2) {
            const std::string name(f->element[k]->str, f->element[k]->len);
            const std::string value(f->element[k + 1]->str, f->element[k + 1]->len);
            if (name == "k") x.kind = value;
            else if (name == "r") x.raw = value;
            else if (name == "rt") x.rt = std::atoll(value.c_str());
        }
        out.push_back(x);
    }
    FreeReply(r);
    return out;
}

// The journal's depth records and status reports, per exchange, in order.
std::map<std::string, std::vector<OwnedEntry>> ByExchange(const std::string& dir) {
    std::map<std::string, std::vector<OwnedEntry>> out;
    std::string error;
    for (const std::string& f : JournalFiles(dir, &error)) {
        for (OwnedEntry& e : orvex_test::ReadJournal(f)) {
            if (e.kind != kDepth && e.kind != kStatus) continue;
            Entry x;
            x.kind = e.kind;
            x.payload = reinterpret_cast<const unsigned char*>(e.payload.data());
            x.size = static_cast<uint32_t>(e.payload.size());
            out[EntryExchange(x)].push_back(e);
        }
    }
    return out;
}

std::string Line(const OwnedEntry& e) {
    Entry x;
    x.kind = e.kind;
    x.time = e.time;
    x.payload = reinterpret_cast<const unsigned char*>(e.payload.data());
    x.size = static_cast<uint32_t>(e.payload.size());
    std::string line;
    AppendJson(x, &line);
    return line + "\n";
}

// "redis: N entries written" and the like from md-record's summary.
uint64_t Counter(const std::string& log, const std::string& after, const std::string& name) {
    const size_t at = log.rfind(after);
    if (at == std::string::npos) return UINT64_MAX;
    const size_t n = log.find(name, at);
    if (n == std::string::npos) return UINT64_MAX;
    size_t start = n;
    while (start > 0 && log[start - 1] == ' ') --start;
    size_t begin = start;
    while (begin > 0 && std::isdigit(static_cast<unsigned char>(log[begin - 1]))) --begin;
    if (begin == start) {   // "dropped 0": the number follows
        size_t v = n + name.size();
        while (v < log.size() && log[v] == ' ') ++v;
        return std::strtoull(log.c_str() + v, nullptr, 10);
    }
    return std::strtoull(log.substr(begin, start - begin).c_str(), nullptr, 10);
}

TEST(RedisFanoutE2E, EveryRecordOnceInOrderThreeConsumersAndALateOne) {
    ScopedTempDir tmp;
    RedisServer redis;
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "40", "--rate", "2000", "--seed", "5"});
    std::vector<std::unique_ptr<Child>> tails;
    for (int i = 0; i < 3; ++i)
        tails.emplace_back(new Child({ORVEX_MD_TAIL, "--redis", redis.Url(), "--exchange", "SHFE", "--from-start",
                                      "--idle-exit", "3"},
                                     "tail" + std::to_string(i) + ".jsonl", "tail" + std::to_string(i) + ".log"));
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--redis", redis.Url(), "--duration", "2.5"},
                   "record.out", "record.log");
    ASSERT_EQ(0, recorder.Wait()) << Slurp("record.log");
    const std::string log = Slurp("record.log");
    EXPECT_EQ(0u, Counter(log, "redis:", "dropped")) << log;

    const auto journal = ByExchange("j");
    ASSERT_EQ(4u, journal.size());
    RedisLink link;
    ASSERT_TRUE(link.Open(redis.Address(), "", 2000, nullptr));
    size_t total = 0;
    for (const auto& kv : journal) {
        const std::vector<StreamEntry> stream = ReadStream(link, RedisSink::ExchangeKey("md", kv.first));
        ASSERT_EQ(kv.second.size(), stream.size()) << kv.first;
        std::map<std::string, std::vector<std::string>> perInstrument;
        for (size_t i = 0; i < stream.size(); ++i) {
            ASSERT_EQ(kv.second[i].payload, stream[i].raw) << kv.first << " " << i;
            EXPECT_EQ(kv.second[i].time, stream[i].rt);
            EXPECT_EQ(kv.second[i].kind == kDepth ? "depth" : "status", stream[i].kind);
            EXPECT_EQ(std::to_string(kv.second[i].time / 1000000), stream[i].id.substr(0, stream[i].id.find('-')));
            if (kv.second[i].kind == kDepth) {
                COrvexWiraDepthMarketDataField d;
                std::memcpy(&d, stream[i].raw.data(), sizeof(d));
                perInstrument[d.InstrumentID].push_back(stream[i].raw);
            }
        }
        // Each instrument's own stream: its records, in the same order.
        for (const auto& inst : perInstrument) {
            const std::vector<StreamEntry> own = ReadStream(link, RedisSink::InstrumentKey("md", kv.first, inst.first));
            ASSERT_EQ(inst.second.size(), own.size()) << inst.first;
            for (size_t i = 0; i < own.size(); ++i) EXPECT_EQ(inst.second[i], own[i].raw);
        }
        total += stream.size();
    }
    EXPECT_EQ(total, Counter(log, "redis:", "entries written"));

    // The three consumers that followed SHFE while it was recorded printed
    // the same lines: the journal's SHFE depth records.
    std::string expected;
    const std::vector<OwnedEntry>& shfe = journal.at("SHFE");
    for (const OwnedEntry& e : shfe)
        if (e.kind == kDepth) expected += Line(e);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, tails[i]->Wait());
        EXPECT_EQ(expected, Slurp("tail" + std::to_string(i) + ".jsonl")) << "consumer " << i;
    }

    // A consumer starting now from a past time: what came from then on.
    size_t middle = shfe.size() / 2;
    while (middle < shfe.size() && shfe[middle].kind != kDepth) ++middle;
    ASSERT_LT(middle, shfe.size());
    const int64_t ms = shfe[middle].time / 1000000;
    std::string later;
    for (const OwnedEntry& e : shfe)
        if (e.kind == kDepth && e.time / 1000000 >= ms) later += Line(e);
    Child late({ORVEX_MD_TAIL, "--redis", redis.Url(), "--exchange", "SHFE", "--since-ms", std::to_string(ms),
                "--idle-exit", "0.5"},
               "late.jsonl", "late.log");
    EXPECT_EQ(0, late.Wait());
    EXPECT_EQ(later, Slurp("late.jsonl"));
}

TEST(RedisFanoutE2E, RedisKilledAndRestartedEveryRecordIsAccountedFor) {
    ScopedTempDir tmp;
    RedisServer redis("", true);
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "40", "--rate", "3000"});
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--redis", redis.Url(), "--redis-buffer",
                    "500"},
                   "record.out", "record.log");
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    redis.Kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));   // about 4,500 records: far past the buffer
    redis.Start();
    ASSERT_TRUE(WaitUntil([] { return Slurp("record.log").find("redis: reconnected") != std::string::npos; }, 15000))
        << Slurp("record.log");
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    ASSERT_EQ(0, recorder.Stop(SIGTERM));
    const std::string log = Slurp("record.log");
    const uint64_t written = Counter(log, "redis:", "entries written");
    const uint64_t dropped = Counter(log, "redis:", "dropped");
    const uint64_t duplicates = Counter(log, "redis:", "duplicates");
    const uint64_t atLoss = Counter(log, "lost (", "entries written");
    ASSERT_NE(UINT64_MAX, atLoss) << log;
    EXPECT_GT(dropped, 1000u) << log;
    EXPECT_NE(std::string::npos, log.find("oldest entries dropped so far")) << log;

    // Every record the library delivered was either written or dropped.
    const auto journal = ByExchange("j");
    size_t recorded = 0;
    for (const auto& kv : journal) recorded += kv.second.size();
    EXPECT_EQ(recorded, written + dropped + duplicates) << log;

    // The new server holds what was written since the connection was lost:
    // per exchange, an unbroken tail of the journal's records.
    RedisLink link;
    ASSERT_TRUE(link.Open(redis.Address(), "", 2000, nullptr));
    size_t held = 0;
    for (const auto& kv : journal) {
        const std::vector<StreamEntry> stream = ReadStream(link, RedisSink::ExchangeKey("md", kv.first));
        held += stream.size();
        ASSERT_LE(stream.size(), kv.second.size());
        const size_t offset = kv.second.size() - stream.size();
        for (size_t i = 0; i < stream.size(); ++i)
            ASSERT_EQ(kv.second[offset + i].payload, stream[i].raw) << kv.first << " " << i;
    }
    EXPECT_EQ(written - atLoss, held) << log;
}

TEST(RedisFanoutE2E, AStalledConsumerDoesNotSlowTheRecorder) {
    ScopedTempDir tmp;
    RedisServer redis;
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "40", "--rate", "3000"});
    Child tail({ORVEX_MD_TAIL, "--redis", redis.Url(), "--group", "g", "--consumer", "c1", "--exchange", "SHFE"},
               "tail.jsonl", "tail.log");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(tail.Pid(), SIGSTOP);   // stalled: reads nothing, acknowledges nothing
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--redis", redis.Url(), "--duration", "2"},
                   "record.out", "record.log");
    ASSERT_EQ(0, recorder.Wait());
    kill(tail.Pid(), SIGCONT);
    const std::string log = Slurp("record.log");
    size_t recorded = 0;
    for (const auto& kv : ByExchange("j")) recorded += kv.second.size();
    EXPECT_GT(recorded, 2000u);
    EXPECT_EQ(recorded, Counter(log, "redis:", "entries written")) << log;
    EXPECT_EQ(0u, Counter(log, "redis:", "dropped")) << log;
    EXPECT_LT(Counter(log, "redis:", "high-water"), 2000u) << log;
}

TEST(RedisFanoutE2E, WrongOrMissingPasswordIsAClearError) {
    ScopedTempDir tmp;
    RedisServer redis("s3cret");
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "10"});
    {
        Child r({ORVEX_MD_RECORD, "--front", sim.front, "--redis", redis.Url(), "--duration", "1"}, "a.out", "a.log",
                {"ORVEX_REDIS_PASSWORD=wrong"});
        EXPECT_EQ(2, r.Wait());
        EXPECT_NE(std::string::npos, Slurp("a.log").find("refused the password")) << Slurp("a.log");
    }
    {
        Child r({ORVEX_MD_RECORD, "--front", sim.front, "--redis", redis.Url(), "--duration", "1"}, "b.out", "b.log");
        EXPECT_EQ(2, r.Wait());
        EXPECT_NE(std::string::npos, Slurp("b.log").find("NOAUTH")) << Slurp("b.log");
        EXPECT_NE(std::string::npos, Slurp("b.log").find("ORVEX_REDIS_PASSWORD")) << Slurp("b.log");
    }
    {
        // From a configuration file; consumers too.
        std::ofstream("redis.ini") << "[redis]\npassword=s3cret\n";
        Child r({ORVEX_MD_RECORD, "--front", sim.front, "--redis", redis.Url(), "--redis-config", "redis.ini",
                 "--duration", "1"},
                "c.out", "c.log");
        EXPECT_EQ(0, r.Wait()) << Slurp("c.log");
        Child t({ORVEX_MD_TAIL, "--redis", redis.Url(), "--from-start", "--count", "5"}, "t.jsonl", "t.log",
                {"ORVEX_REDIS_PASSWORD=s3cret"});
        EXPECT_EQ(0, t.Wait()) << Slurp("t.log");
        const std::string lines = Slurp("t.jsonl");
        EXPECT_EQ(5, std::count(lines.begin(), lines.end(), '\n'));
        Child bad({ORVEX_MD_TAIL, "--redis", redis.Url(), "--from-start", "--count", "5"}, "u.jsonl", "u.log",
                  {"ORVEX_REDIS_PASSWORD=nope"});
        EXPECT_EQ(2, bad.Wait());
        EXPECT_NE(std::string::npos, Slurp("u.log").find("refused the password")) << Slurp("u.log");
    }
}

// With exchange streams only, an instrument's consumer gets the same
// records, picked out of its exchange's stream.
TEST(RedisFanoutE2E, ExchangeStreamsOnly) {
    ScopedTempDir tmp;
    RedisServer redis;
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "20", "--rate", "1000"});
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--redis", redis.Url(), "--redis-streams",
                    "exchange", "--duration", "1.5"},
                   "record.out", "record.log");
    ASSERT_EQ(0, recorder.Wait()) << Slurp("record.log");
    const auto journal = ByExchange("j");
    const std::vector<OwnedEntry>& shfe = journal.at("SHFE");
    COrvexWiraDepthMarketDataField last;
    std::memcpy(&last, shfe.back().payload.data(), sizeof(last));
    std::string expected;
    for (const OwnedEntry& e : shfe) {
        COrvexWiraDepthMarketDataField d;
        if (e.kind != kDepth) continue;
        std::memcpy(&d, e.payload.data(), sizeof(d));
        if (std::strcmp(d.InstrumentID, last.InstrumentID) == 0) expected += Line(e);
    }
    RedisLink link;
    ASSERT_TRUE(link.Open(redis.Address(), "", 2000, nullptr));
    EXPECT_EQ(shfe.size(), ReadStream(link, RedisSink::ExchangeKey("md", "SHFE")).size());
    EXPECT_EQ(0u, ReadStream(link, RedisSink::InstrumentKey("md", "SHFE", last.InstrumentID)).size());
    Child tail({ORVEX_MD_TAIL, "--redis", redis.Url(), "--instrument", std::string(last.InstrumentID) + ".SHFE",
                "--from-start", "--idle-exit", "0.5"},
               "one.jsonl", "one.log");
    EXPECT_EQ(0, tail.Wait());
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(expected, Slurp("one.jsonl"));
}

TEST(RedisUrl, FormsAndMistakes) {
    RedisAddress a;
    std::string error;
    ASSERT_TRUE(orvex::fanout::ParseRedisUrl("redis://10.0.0.5:6380/2", &a, &error));
    EXPECT_EQ("10.0.0.5", a.host);
    EXPECT_EQ(6380, a.port);
    EXPECT_EQ(2, a.db);
    ASSERT_TRUE(orvex::fanout::ParseRedisUrl("redis://cache", &a, &error));
    EXPECT_EQ(6379, a.port);
    ASSERT_TRUE(orvex::fanout::ParseRedisUrl("unix:///run/redis.sock?db=3", &a, &error));
    EXPECT_EQ("/run/redis.sock", a.path);
    EXPECT_EQ(3, a.db);
    ASSERT_TRUE(orvex::fanout::ParseRedisUrl("/tmp/r.sock", &a, &error));
    EXPECT_EQ("/tmp/r.sock", a.path);
    EXPECT_FALSE(orvex::fanout::ParseRedisUrl("redis://user:pw@host:1", &a, &error));
    EXPECT_NE(std::string::npos, error.find("ORVEX_REDIS_PASSWORD"));
    EXPECT_FALSE(orvex::fanout::ParseRedisUrl("redis://host:99999", &a, &error));
    EXPECT_FALSE(orvex::fanout::ParseRedisUrl("http://host", &a, &error));
    EXPECT_FALSE(orvex::fanout::ParseRedisUrl("unix://relative.sock", &a, &error));
}

}  // namespace
