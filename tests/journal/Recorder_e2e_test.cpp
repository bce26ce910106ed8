// md-record and md-journal against qxdc-sim over loopback.
//
// - The journal holds what a client of the library saw in the same
//   session, field by field, and md-journal's JSON lines give it back
//   without loss; the SQLite export has the journal's rows and values.
// - A recorder killed with SIGKILL under load leaves a journal that reads
//   to its last whole entry; the next recorder appends after it, keeping
//   every byte before.
// - A market that rolls to the next trading day starts a new file.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <sqlite3.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "OrvexWiraMdApi.h"
#include "journal/JournalFormat.h"
#include "journal/JournalReader.h"
#include "journal/RecordFields.h"
#include "support/JournalKit.h"
#include "support/ProcessKit.h"
#include "support/RecordingSpi.h"

namespace {

using namespace orvex::journal;
using orvex_test::OwnedEntry;
using orvex_test::ReadJournal;
using orvex_test::SameFields;
using orvex_test::Child;
using orvex_test::ScopedTempDir;
using orvex_test::Slurp;
using orvex_test::WaitUntil;

std::vector<OwnedEntry> Depths(const std::vector<OwnedEntry>& entries) {
    std::vector<OwnedEntry> out;
    for (const OwnedEntry& e : entries)
        if (e.kind == kDepth) out.push_back(e);
    return out;
}

// A plain client of the library: logs in, keeps every depth record.
class ClientSpi : public COrvexWiraMdSpi {
public:
    COrvexWiraMdApi* api = nullptr;
    void OnFrontLinked() override {
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        api->ReqUserLogin(&req, 1);
    }
    void OnLoginAnswer(COrvexWiraRspUserLoginField*, COrvexWiraRspInfoField*, int, bool) override { loggedIn = true; }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        std::lock_guard<std::mutex> lock(m_lock);
        depths.push_back(*d);
    }
    std::vector<COrvexWiraDepthMarketDataField> Take() {
        std::lock_guard<std::mutex> lock(m_lock);
        return depths;
    }
    std::atomic<bool> loggedIn{false};

private:
    std::mutex m_lock;
    std::vector<COrvexWiraDepthMarketDataField> depths;
};

// Rebuilds a depth record from one JSON line by the field table.
bool DepthFromJson(const rapidjson::Value& v, COrvexWiraDepthMarketDataField* d) {
    std::memset(d, 0, sizeof(*d));
    unsigned char* p = reinterpret_cast<unsigned char*>(d);
    for (const FieldDesc& f : DepthFields()) {
        if (!v.HasMember(f.name)) return false;
        const rapidjson::Value& x = v[f.name];
        if (f.type == FieldDesc::Double) {
            const double value = x.GetDouble();
            std::memcpy(p + f.offset, &value, 8);
        } else if (f.type == FieldDesc::Int) {
            const int value = x.GetInt();
            std::memcpy(p + f.offset, &value, 4);
        } else {
            std::memcpy(p + f.offset, x.GetString(), std::min<size_t>(x.GetStringLength(), f.size - 1));
        }
    }
    return true;
}

std::string JournalIn(const std::string& dir) {
    std::string error;
    const std::vector<std::string> files = JournalFiles(dir, &error);
    return files.empty() ? std::string() : files.back();
}

int64_t SqlCount(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* s = nullptr;
    int64_t n = -1;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW)
        n = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    return n;
}

TEST(RecorderE2E, JournalHoldsWhatAClientSawAndExportsWithoutLoss) {
    ScopedTempDir tmp;
    ASSERT_EQ(0, std::system((std::string(ORVEX_SIM) + " --write-templates qxdctrans.xml > /dev/null").c_str()));
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "60", "--rate", "3000", "--seed", "11", "--index-every", "50"});
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--file-front", sim.fileFront, "--query", "--journal", "j",
                    "--flush", "every"},
                   "record.out", "record.log");
    ASSERT_TRUE(WaitUntil(
        [] {
            const std::string f = JournalIn("j");
            if (f.empty()) return false;
            for (const OwnedEntry& e : ReadJournal(f))
                if (e.kind == kInstrument) return true;
            return false;
        },
        10000))
        << Slurp("record.log");

    // A client of its own in this process, pushes only (no snapshot).
    ClientSpi spi;
    COrvexWiraMdApi* api = CreateWiraMdApi("", false, false, false);
    spi.api = api;
    api->RegisterSpi(&spi);
    std::string front = sim.front;
    api->RegisterFront(&front[0]);
    api->Init();
    ASSERT_TRUE(WaitUntil([&] { return spi.loggedIn.load(); }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    api->Release();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(0, recorder.Stop(SIGTERM));
    const std::string log = Slurp("record.log");
    EXPECT_NE(std::string::npos, log.find("dropped 0")) << log;
    EXPECT_NE(std::string::npos, log.find(", 60 instruments today,")) << log;
    // The last summary comes after the writer has taken everything.
    const size_t lastQueue = log.rfind(", queue ");
    ASSERT_NE(std::string::npos, lastQueue) << log;
    EXPECT_EQ(0, log.compare(lastQueue, 23, ", queue 0 bytes waiting")) << log.substr(lastQueue, 60);

    const std::string file = JournalIn("j");
    uint64_t torn = 1;
    const std::vector<OwnedEntry> entries = ReadJournal(file, &torn);
    EXPECT_EQ(0u, torn);
    const std::vector<OwnedEntry> depths = Depths(entries);
    const std::vector<COrvexWiraDepthMarketDataField> seen = spi.Take();
    ASSERT_GT(seen.size(), 300u);

    // The client's pushes are one unbroken run of the journal's records.
    size_t at = 0;
    while (at < depths.size() && !SameFields(DepthFields(), depths[at].payload.data(), &seen[0])) ++at;
    ASSERT_LT(at, depths.size()) << "the client's first record is not in the journal";
    ASSERT_LE(at + seen.size(), depths.size());
    for (size_t i = 0; i < seen.size(); ++i) {
        std::string which;
        ASSERT_TRUE(SameFields(DepthFields(), depths[at + i].payload.data(), &seen[i], &which))
            << "record " << i << " differs in " << which;
    }

    // md-journal cat: every entry as a JSON line; depth records rebuilt from
    // their fields equal the journal's bytes.
    ASSERT_EQ(0, std::system((std::string(ORVEX_MD_JOURNAL) + " cat j --format jsonl > all.jsonl").c_str()));
    std::ifstream in("all.jsonl");
    std::string line;
    size_t lines = 0, depthLines = 0, kinds[9] = {0};
    while (std::getline(in, line)) {
        rapidjson::Document doc;
        ASSERT_FALSE(doc.Parse(line.c_str()).HasParseError()) << line.substr(0, 200);
        ASSERT_LT(lines, entries.size());
        const OwnedEntry& e = entries[lines++];
        EXPECT_EQ(e.time, doc["time"].GetInt64());
        EXPECT_STREQ(KindName(e.kind), doc["kind"].GetString());
        ++kinds[e.kind];
        if (e.kind == kTemplate) {
            // Decoded by the template file the journal carries.
            ASSERT_TRUE(doc.HasMember("Fields")) << line.substr(0, 300);
            EXPECT_STREQ("ExchangeIndex", doc["Template"].GetString());
            const std::string market = doc["Fields"]["Market"].GetString();
            EXPECT_TRUE(market == "SHFE" || market == "DCE" || market == "CZCE" || market == "CFFEX") << market;
            EXPECT_TRUE(doc["Fields"]["Top"].IsArray());
        }
        if (e.kind != kDepth) continue;
        COrvexWiraDepthMarketDataField d;
        ASSERT_TRUE(DepthFromJson(doc, &d)) << line.substr(0, 200);
        std::string which;
        ASSERT_TRUE(SameFields(DepthFields(), e.payload.data(), &d, &which)) << depthLines << " " << which;
        ++depthLines;
    }
    EXPECT_EQ(entries.size(), lines);
    EXPECT_EQ(depths.size(), depthLines);
    EXPECT_EQ(60u, kinds[kInstrument]);
    EXPECT_EQ(1u, kinds[kLogin]);
    EXPECT_GT(kinds[kTemplate], 0u);   // the simulator's index packages
    EXPECT_GT(kinds[kStatus], 0u);

    // Filters: one instrument, a time window that holds everything.
    const std::string id = reinterpret_cast<const COrvexWiraDepthMarketDataField*>(depths.back().payload.data())->InstrumentID;
    size_t ofId = 0;
    for (const OwnedEntry& e : depths)
        ofId += std::strcmp(reinterpret_cast<const COrvexWiraDepthMarketDataField*>(e.payload.data())->InstrumentID, id.c_str()) == 0;
    ASSERT_EQ(0, std::system((std::string(ORVEX_MD_JOURNAL) + " cat j --kind depth --instrument " + id + " --from 00:00:00 --to 23:59:59 > one.jsonl").c_str()));
    std::ifstream one("one.jsonl");
    size_t oneLines = 0;
    while (std::getline(one, line)) ++oneLines;
    EXPECT_EQ(ofId, oneLines);

    // SQLite: a row per entry of each kind, values as recorded, indexed.
    ASSERT_EQ(0, std::system((std::string(ORVEX_MD_JOURNAL) + " sqlite j ticks.db 2> sqlite.log").c_str()))
        << Slurp("sqlite.log");
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open("ticks.db", &db));
    EXPECT_EQ(static_cast<int64_t>(depths.size()), SqlCount(db, "SELECT count(*) FROM depth"));
    EXPECT_EQ(static_cast<int64_t>(kinds[kStatus]), SqlCount(db, "SELECT count(*) FROM status"));
    EXPECT_EQ(60, SqlCount(db, "SELECT count(*) FROM instrument"));
    EXPECT_EQ(1, SqlCount(db, "SELECT count(*) FROM login"));
    EXPECT_EQ(static_cast<int64_t>(kinds[kTemplate]), SqlCount(db, "SELECT count(*) FROM template"));
    EXPECT_EQ(static_cast<int64_t>(kinds[kLinked] + kinds[kLost]), SqlCount(db, "SELECT count(*) FROM event"));
    EXPECT_EQ(static_cast<int64_t>(ofId), SqlCount(db, "SELECT count(*) FROM depth WHERE InstrumentID = '" + id + "'"));
    EXPECT_EQ(1, SqlCount(db, "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'depth_instrument_time'"));
    const auto* last = reinterpret_cast<const COrvexWiraDepthMarketDataField*>(depths.back().payload.data());
    sqlite3_stmt* s = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db,
                                            "SELECT time, InstrumentID, LastPrice, Volume, BidVolume1, UpdateTime, "
                                            "UpdateMillisec, ClosePrice FROM depth ORDER BY rowid DESC LIMIT 1",
                                            -1, &s, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(s));
    EXPECT_EQ(depths.back().time, sqlite3_column_int64(s, 0));
    EXPECT_STREQ(last->InstrumentID, reinterpret_cast<const char*>(sqlite3_column_text(s, 1)));
    EXPECT_EQ(last->LastPrice, sqlite3_column_double(s, 2));
    EXPECT_EQ(last->Volume, sqlite3_column_double(s, 3));
    EXPECT_EQ(last->BidVolume1, sqlite3_column_int(s, 4));
    EXPECT_STREQ(last->UpdateTime, reinterpret_cast<const char*>(sqlite3_column_text(s, 5)));
    EXPECT_EQ(last->UpdateMillisec, sqlite3_column_int(s, 6));
    EXPECT_EQ(last->ClosePrice, sqlite3_column_double(s, 7));
    sqlite3_finalize(s);
    sqlite3_close(db);
}

TEST(RecorderE2E, KilledRecorderLeavesAWholeJournalAndTheNextAppends) {
    ScopedTempDir tmp;
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "200", "--rate", "40000", "--trading-day", "20250102"});
    std::mt19937 rng(20250102);
    std::string before;            // the journal's whole entries after the previous run
    size_t entriesBefore = 0;
    for (int run = 0; run < 5; ++run) {
        const bool last = run == 4;
        std::vector<std::string> args = {ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--flush", "every"};
        if (last) args.insert(args.end(), {"--duration", "1"});
        Child recorder(args, "record.out", "record" + std::to_string(run) + ".log");
        if (last) {
            ASSERT_EQ(0, recorder.Wait());
        } else {
            // Killed at a random moment once it is recording.
            ASSERT_TRUE(WaitUntil([&] { return ReadJournal("j/20250102.mdj").size() > entriesBefore + 1; }, 20000));
            std::this_thread::sleep_for(std::chrono::milliseconds(100 + rng() % 700));
            ASSERT_EQ(128 + SIGKILL, recorder.Stop(SIGKILL));
        }
        const std::string file = "j/20250102.mdj";
        uint64_t torn = 0;
        std::string error;
        const std::vector<OwnedEntry> entries = ReadJournal(file, &torn, &error);
        ASSERT_EQ("", error);
        // More whole entries than before, and every byte before kept.
        EXPECT_GT(entries.size(), entriesBefore) << "run " << run;
        const std::string bytes = orvex_test::FileBytes(file);
        ASSERT_GE(bytes.size(), before.size());
        EXPECT_TRUE(bytes.compare(0, before.size(), before) == 0) << "run " << run;
        JournalReader r;
        ASSERT_TRUE(r.Open(file, &error));
        Entry e;
        while (r.Next(&e)) {
        }
        before = bytes.substr(0, r.Offset());
        entriesBefore = entries.size();
        if (last) {
            EXPECT_EQ(0u, torn);
        }
        if (run > 0) {
            const std::string log = Slurp("record" + std::to_string(run) + ".log");
            EXPECT_NE(std::string::npos, log.find("appending to j/20250102.mdj")) << log;
        }
    }
    EXPECT_GT(Depths(ReadJournal("j/20250102.mdj")).size(), 1000u);
}

TEST(RecorderE2E, ANewTradingDayStartsANewFile) {
    ScopedTempDir tmp;
    // Trades 1 s, closes for 3 s, then the next day's auction (2 s).
    orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "30", "--rate", "500", "--session", "1", "--trading-day", "20250102"});
    Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "j", "--duration", "5"}, "record.out",
                   "record.log");
    ASSERT_EQ(0, recorder.Wait());
    std::string error;
    const std::vector<std::string> files = JournalFiles("j", &error);
    ASSERT_EQ(2u, files.size()) << Slurp("record.log");
    EXPECT_EQ("j/20250102.mdj", files[0]);
    EXPECT_EQ("j/20250103.mdj", files[1]);
    // The library keeps the trading day its depth records carry until the
    // next login, so records of the new file may still say the old day;
    // status reports move with the market.
    for (size_t i = 0; i < files.size(); ++i) {
        JournalReader r;
        ASSERT_TRUE(r.Open(files[i], &error));
        const std::string day = r.Header().tradingDay;
        size_t depth = 0;
        Entry e;
        while (r.Next(&e)) {
            if (e.kind == kDepth) {
                ++depth;
                COrvexWiraDepthMarketDataField d;
                std::memcpy(&d, e.payload, sizeof(d));   // entries have any alignment
                const std::string recordDay = d.TradingDay;
                EXPECT_TRUE(recordDay == day || (i == 1 && recordDay == "20250102")) << recordDay;
            }
            if (e.kind == kStatus) {
                COrvexWiraMarketStatusField st;
                std::memcpy(&st, e.payload, sizeof(st));
                EXPECT_EQ(day, st.TradingDay);
            }
        }
        EXPECT_GT(depth, 0u) << files[i];
    }
}

}  // namespace

namespace {

// A recorded session served again by qxdc-sim and recorded again: every
// depth record of the second journal is a record of the first, in the
// first's order for each instrument, and nearly all of them come back.
TEST(RecorderE2E, ARecordedSessionServedBySimulatorComesBackTheSame) {
    ScopedTempDir tmp;
    {
        orvex_test::Sim sim(ORVEX_SIM, {"--instruments", "20", "--rate", "600", "--seed", "3"});
        Child recorder({ORVEX_MD_RECORD, "--front", sim.front, "--journal", "first", "--duration", "2"}, "first.out",
                       "first.log");
        ASSERT_EQ(0, recorder.Wait()) << Slurp("first.log");
    }
    std::string error;
    const std::string firstFile = JournalFiles("first", &error).at(0);
    {
        std::vector<std::string> args = {ORVEX_SIM, "--port", "0", "--file-port", "0", "--ready-file", "replay.ready",
                                         "--replay", firstFile};
        Child sim(args, "replay.out", "replay.log");
        ASSERT_TRUE(WaitUntil([] { return Slurp("replay.ready").find("quote_port=") != std::string::npos; }, 5000))
            << Slurp("replay.log");
        const std::string ready = Slurp("replay.ready");
        const size_t at = ready.find("quote_port=") + 11;
        const std::string front = "tcp://127.0.0.1:" + ready.substr(at, ready.find('\n', at) - at);
        Child recorder({ORVEX_MD_RECORD, "--front", front, "--journal", "second", "--duration", "3"}, "second.out",
                       "second.log");
        ASSERT_EQ(0, recorder.Wait()) << Slurp("second.log");
    }
    std::map<std::string, std::vector<std::string>> first, second;
    auto load = [](const std::string& dir, std::map<std::string, std::vector<std::string>>* out) {
        std::string err;
        size_t n = 0;
        for (const std::string& f : JournalFiles(dir, &err))
            for (const OwnedEntry& e : ReadJournal(f))
                if (e.kind == kDepth) {
                    COrvexWiraDepthMarketDataField d;
                    std::memcpy(&d, e.payload.data(), sizeof(d));
                    (*out)[std::string(d.InstrumentID) + "." + d.ExchangeID].push_back(e.payload);
                    ++n;
                }
        return n;
    };
    const size_t firstCount = load("first", &first);
    const size_t secondCount = load("second", &second);
    ASSERT_GT(firstCount, 500u);
    // The replay starts with the simulator: what it served before the
    // recorder had logged in is in the snapshot, not in records of its own.
    EXPECT_GE(secondCount * 3, firstCount * 2) << secondCount << " of " << firstCount;
    for (const auto& kv : second) {
        const std::vector<std::string>& mine = kv.second;
        const std::vector<std::string>& theirs = first[kv.first];
        size_t j = 0;
        // The first record of each instrument is the snapshot at login: the
        // replay started with the simulator, so it holds the state reached
        // by then, with the time the simulator's clock gives it.
        for (size_t m = 1; m < mine.size(); ++m) {
            const std::string& rec = mine[m];
            const size_t from = j;
            while (j < theirs.size() && !SameFields(DepthFields(), theirs[j].data(), rec.data())) ++j;
            if (j == theirs.size()) {
                std::string which = "?";
                for (size_t k = 0; k < theirs.size(); ++k) {
                    COrvexWiraDepthMarketDataField a, b;
                    std::memcpy(&a, theirs[k].data(), sizeof(a));
                    std::memcpy(&b, rec.data(), sizeof(b));
                    if (a.Volume == b.Volume && std::strcmp(a.UpdateTime, b.UpdateTime) == 0) {
                        SameFields(DepthFields(), theirs[k].data(), rec.data(), &which);
                        which += " (record " + std::to_string(k) + ", looked from " + std::to_string(from) + ")";
                    }
                }
                FAIL() << kv.first << ": a record the first session did not have, or out of order; closest differs in "
                       << which;
            }
            ++j;
        }
    }
}

}  // namespace
