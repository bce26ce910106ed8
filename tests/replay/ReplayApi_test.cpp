// libOrvexMdReplay, used as an application uses it: through
// CreateWiraReplayApi and the public interface only, on journals written
// with the journal writer.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OrvexWiraMdReplay.h"
#include "journal/JournalFormat.h"
#include "journal/JournalWriter.h"
#include "support/JournalKit.h"
#include "support/RecordingSpi.h"

namespace {

using namespace orvex::journal;
using orvex_test::MakeDepth;
using orvex_test::ScopedTempDir;

constexpr int kTemplateSize = 100;

// Every callback as a line, records kept.
class ReplaySpi : public COrvexWiraMdSpi {
public:
    void OnFrontLinked() override {
        Add("linked");
        if (onLinked) onLinked();
    }
    void OnFrontLost(int reason) override { Add("lost:" + std::to_string(reason)); }
    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int id, bool last) override {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            if (rsp) logins.push_back(*rsp);
        }
        Add("login:" + std::to_string(id) + ":" + std::to_string(info ? info->ErrorID : -1) + (last ? ":last" : ""));
        if (onLogin) onLogin();
    }
    void OnInstrumentAnswer(COrvexWiraInstrumentField* rec, COrvexWiraRspInfoField* info, int id, bool last) override {
        Add("instrument:" + std::to_string(id) + ":" + (rec ? std::string(rec->InstrumentID) + "." + rec->ExchangeID : "-") +
            ":" + std::to_string(info ? info->ErrorID : -1) + (last ? ":last" : ""));
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            depths.push_back(*d);
        }
        Add(std::string("depth:") + d->InstrumentID + "." + d->ExchangeID);
        if (onDepth) onDepth(static_cast<int>(depths.size()));
    }
    void OnStatusChange(COrvexWiraMarketStatusField* s) override {
        Add(std::string("status:") + s->ExchangeID + ":" + s->MarketStatus);
    }
    void OnTemplateData(unsigned short id, void* data) override {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            templates.emplace_back(static_cast<const char*>(data), kTemplateSize);
        }
        Add("template:" + std::to_string(id));
    }

    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> lock(m_lock);
        return events;
    }

    std::function<void()> onLinked, onLogin;
    std::function<void(int)> onDepth;
    std::vector<COrvexWiraRspUserLoginField> logins;
    std::vector<COrvexWiraDepthMarketDataField> depths;
    std::vector<std::string> templates;

private:
    void Add(const std::string& e) {
        std::lock_guard<std::mutex> lock(m_lock);
        events.push_back(e);
    }
    std::mutex m_lock;
    std::vector<std::string> events;
};

// Writes a journal entry by entry.
class JournalBuilder {
public:
    explicit JournalBuilder(const std::string& dir, const std::string& day = "20250102") : m_writer(Options(dir)) {
        m_writer.Start(nullptr);
        m_writer.SetTradingDay(day);
        m_day = day;
    }
    void Linked() { Add(kLinked, 0, nullptr, 0); }
    void Lost(int32_t reason) { Add(kLost, 0, &reason, 4); }
    void Login(int errorId = 0) {
        unsigned char p[kLoginPayload] = {0};
        p[4] = kHasRecord | kHasInfo | kIsLast;
        COrvexWiraRspUserLoginField rsp;
        std::memset(&rsp, 0, sizeof(rsp));
        std::snprintf(rsp.TradingDay, sizeof(rsp.TradingDay), "%s", m_day.c_str());
        std::strcpy(rsp.SystemName, "QXDC");
        rsp.FrontID = 3;
        COrvexWiraRspInfoField info;
        std::memset(&info, 0, sizeof(info));
        info.ErrorID = errorId;
        std::memcpy(p + kAnswerHead, &rsp, sizeof(rsp));
        std::memcpy(p + kAnswerHead + sizeof(rsp), &info, sizeof(info));
        Add(kLogin, 0, p, sizeof(p));
    }
    void Status(const char* exchange, char status) {
        COrvexWiraMarketStatusField s;
        std::memset(&s, 0, sizeof(s));
        std::snprintf(s.ExchangeID, sizeof(s.ExchangeID), "%s", exchange);
        s.MarketStatus = status;
        Add(kStatus, 0, &s, sizeof(s));
    }
    COrvexWiraDepthMarketDataField Depth(const char* id, const char* exchange) {
        const COrvexWiraDepthMarketDataField d = MakeDepth(id, exchange, ++m_seq, m_day.c_str());
        Add(kDepth, 0, &d, sizeof(d));
        return d;
    }
    void Template(uint16_t id, char fill) {
        const std::string bytes(kTemplateSize, fill);
        Add(kTemplate, id, bytes.data(), kTemplateSize);
    }
    void Instrument(const char* id, const char* exchange, int volumeMultiple) {
        unsigned char p[kInstrumentPayload] = {0};
        p[4] = kHasRecord | kHasInfo;
        COrvexWiraInstrumentField inst;
        std::memset(&inst, 0, sizeof(inst));
        std::snprintf(inst.InstrumentID, sizeof(inst.InstrumentID), "%s", id);
        std::snprintf(inst.ExchangeID, sizeof(inst.ExchangeID), "%s", exchange);
        inst.VolumeMultiple = volumeMultiple;
        std::memcpy(p + kAnswerHead, &inst, sizeof(inst));
        Add(kInstrument, 0, p, sizeof(p));
    }
    // The next entry's receive time moves on by ns.
    void Wait(int64_t ns) { m_time += ns; }
    void Close() { m_writer.Close(); }

private:
    static JournalWriter::Options Options(const std::string& dir) {
        JournalWriter::Options o;
        o.dir = dir;
        o.log = [](const std::string&) {};
        return o;
    }
    void Add(uint16_t kind, uint16_t aux, const void* p, uint32_t n) {
        m_writer.Add(kind, aux, m_time, p, n);
        m_time += 1000;
    }
    JournalWriter m_writer;
    std::string m_day;
    int64_t m_time = 1735779600000000000;
    int m_seq = 0;
};

struct Session {
    COrvexWiraMdApi* api = nullptr;
    ~Session() {
        if (api) api->Release();
    }
};

char* Ids(std::vector<std::string>& v, std::vector<char*>* out) {
    out->clear();
    for (std::string& s : v) out->push_back(&s[0]);
    return nullptr;
}

void Subscribe(COrvexWiraMdApi* api, std::vector<std::string> ids, bool subscribe = true) {
    std::vector<char*> p;
    Ids(ids, &p);
    if (subscribe) api->SubscribeMarketData(p.data(), static_cast<int>(p.size()));
    else api->UnSubscribeMarketData(p.data(), static_cast<int>(p.size()));
}

void LoginOnLink(COrvexWiraMdApi* api, ReplaySpi& spi, int requestId) {
    spi.onLinked = [api, requestId] {
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        api->ReqUserLogin(&req, requestId);
    };
}

TEST(ReplayApi, ReplaysEveryCallbackInRecordedOrderByteForByte) {
    ScopedTempDir tmp;
    std::vector<COrvexWiraDepthMarketDataField> recorded;
    {
        JournalBuilder j("j");
        j.Linked();
        j.Login();
        j.Instrument("cu2501", "SHFE", 5);   // an answer to the recorder: not replayed unasked
        j.Status("SHFE", '2');
        for (int i = 0; i < 50; ++i) recorded.push_back(j.Depth(i % 2 ? "cu2501" : "IF2501", i % 2 ? "SHFE" : "CFFEX"));
        j.Template(901, 'x');
        j.Lost(4097);
        j.Close();
    }
    Session s;
    s.api = CreateWiraReplayApi("j/20250102.mdj", 0);
    ASSERT_NE(nullptr, s.api);
    ReplaySpi spi;
    LoginOnLink(s.api, spi, 7);
    s.api->RegisterSpi(&spi);
    char front[] = "tcp://127.0.0.1:1";
    s.api->RegisterFront(front);
    EXPECT_STREQ("", s.api->GetTradingDay());
    s.api->Init();
    EXPECT_EQ(0, s.api->Join());

    std::vector<std::string> want = {"linked", "login:7:0:last", "status:SHFE:2"};
    for (const auto& d : recorded) want.push_back(std::string("depth:") + d.InstrumentID + "." + d.ExchangeID);
    want.push_back("template:901");
    want.push_back("lost:4097");
    EXPECT_EQ(want, spi.Events());
    ASSERT_EQ(recorded.size(), spi.depths.size());
    for (size_t i = 0; i < recorded.size(); ++i)
        EXPECT_EQ(0, std::memcmp(&recorded[i], &spi.depths[i], sizeof(recorded[i]))) << i;
    ASSERT_EQ(1u, spi.templates.size());
    EXPECT_EQ(std::string(kTemplateSize, 'x'), spi.templates[0]);
    ASSERT_EQ(1u, spi.logins.size());
    EXPECT_EQ(3, spi.logins[0].FrontID);
    EXPECT_STREQ("20250102", s.api->GetTradingDay());
}

TEST(ReplayApi, LoginIsAnsweredOnlyWhenAsked) {
    ScopedTempDir tmp;
    {
        JournalBuilder j("j");
        j.Linked();
        j.Login();
        j.Depth("cu2501", "SHFE");
        j.Close();
    }
    Session s;
    s.api = CreateWiraReplayApi("j", 0);
    ASSERT_NE(nullptr, s.api);
    ReplaySpi spi;
    s.api->RegisterSpi(&spi);
    s.api->Init();
    s.api->Join();
    EXPECT_EQ((std::vector<std::string>{"linked", "depth:cu2501.SHFE"}), spi.Events());
    EXPECT_STREQ("", s.api->GetTradingDay());
}

// The three request forms, as live, and unsubscribing in the middle.
TEST(ReplayApi, SubscriptionsFilterDepthRecords) {
    ScopedTempDir tmp;
    {
        JournalBuilder j("j");
        for (int round = 0; round < 3; ++round) {
            j.Depth("cu2501", "SHFE");
            j.Depth("ag2501", "SHFE");
            j.Depth("IF2501", "CFFEX");
            j.Depth("m2501", "DCE");
            j.Depth("m2501", "SGE");   // not one of the four main exchanges
        }
        j.Status("SHFE", '6');
        j.Close();
    }
    auto run = [](std::function<void(COrvexWiraMdApi*, ReplaySpi&)> setup) {
        Session s;
        s.api = CreateWiraReplayApi("j", 0);
        EXPECT_NE(nullptr, s.api);
        ReplaySpi spi;
        s.api->RegisterSpi(&spi);
        setup(s.api, spi);
        s.api->Init();
        s.api->Join();
        std::vector<std::string> seen;
        for (const std::string& e : spi.Events())
            if (e.rfind("depth:", 0) == 0) seen.push_back(e.substr(6));
        EXPECT_EQ("status:SHFE:6", spi.Events().back());   // status is not filtered
        return seen;
    };
    EXPECT_EQ(15u, run([](COrvexWiraMdApi*, ReplaySpi&) {}).size());
    EXPECT_EQ(std::vector<std::string>(3, "cu2501.SHFE"),
              run([](COrvexWiraMdApi* api, ReplaySpi&) { Subscribe(api, {"cu2501.SHFE"}); }));
    EXPECT_EQ(std::vector<std::string>(3, "IF2501.CFFEX"),
              run([](COrvexWiraMdApi* api, ReplaySpi&) { Subscribe(api, {"CFFEX"}); }));
    EXPECT_EQ(std::vector<std::string>(3, "m2501.DCE"),
              run([](COrvexWiraMdApi* api, ReplaySpi&) { Subscribe(api, {"m2501"}); }));
    EXPECT_EQ(std::vector<std::string>(3, "m2501.SGE"),
              run([](COrvexWiraMdApi* api, ReplaySpi&) { Subscribe(api, {"m2501.SGE"}); }));
    // Subscribing nothing yet is still the first call: from then on only
    // what is subscribed, which is nothing.
    EXPECT_EQ(0u, run([](COrvexWiraMdApi* api, ReplaySpi&) { Subscribe(api, {}); }).size());
    // From a callback: after the 4th record (m2501.DCE of round 1), SHFE is
    // taken; after the 7th (IF2501 of round 2), cu2501.SHFE is given back.
    const std::vector<std::string> changed = run([](COrvexWiraMdApi* api, ReplaySpi& spi) {
        spi.onDepth = [api](int n) {
            if (n == 4) Subscribe(api, {"SHFE"});
            if (n == 6) Subscribe(api, {"SHFE"}, false), Subscribe(api, {"cu2501.SHFE"});
        };
    });
    EXPECT_EQ((std::vector<std::string>{"cu2501.SHFE", "ag2501.SHFE", "IF2501.CFFEX", "m2501.DCE", "cu2501.SHFE",
                                        "ag2501.SHFE", "cu2501.SHFE"}),
              changed);
}

TEST(ReplayApi, QueriesAreAnsweredFromRecordedInstruments) {
    ScopedTempDir tmp;
    {
        JournalBuilder j("j");
        j.Linked();
        j.Login();
        j.Instrument("cu2501", "SHFE", 5);
        j.Instrument("IF2501", "CFFEX", 300);
        j.Instrument("ag2501", "SHFE", 15);
        j.Instrument("cu2501", "SHFE", 10);   // a later answer of the same instrument wins
        j.Depth("cu2501", "SHFE");
        j.Close();
    }
    Session s;
    s.api = CreateWiraReplayApi("j", 0);
    ASSERT_NE(nullptr, s.api);
    ReplaySpi spi;
    LoginOnLink(s.api, spi, 1);
    COrvexWiraMdApi* api = s.api;
    spi.onLogin = [api] {
        COrvexWiraQryInstrumentField q;
        std::memset(&q, 0, sizeof(q));
        std::strcpy(q.ExchangeID, "SHFE");
        EXPECT_EQ(0, api->ReqQryInstrument(&q, 11));
        std::strcpy(q.ExchangeID, "XXX");
        EXPECT_EQ(0, api->ReqQryInstrument(&q, 12));
        std::memset(&q, 0, sizeof(q));
        EXPECT_EQ(0, api->ReqQryInstrument(&q, 13));
        EXPECT_EQ(-1, api->ReqQryInstrument(nullptr, 14));
    };
    s.api->RegisterSpi(&spi);
    s.api->Init();
    s.api->Join();
    EXPECT_EQ((std::vector<std::string>{"linked", "login:1:0:last", "instrument:11:cu2501.SHFE:0",
                                        "instrument:11:ag2501.SHFE:0:last", "instrument:12:-:1:last",
                                        "instrument:13:cu2501.SHFE:0", "instrument:13:IF2501.CFFEX:0",
                                        "instrument:13:ag2501.SHFE:0:last", "depth:cu2501.SHFE"}),
              spi.Events());

    // After the end of the journal queries are still answered.
    COrvexWiraQryInstrumentField q;
    std::memset(&q, 0, sizeof(q));
    std::strcpy(q.ExchangeID, "CFFEX");
    s.api->ReqQryInstrument(&q, 20);
    for (int i = 0; i < 200 && spi.Events().size() < 10; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ("instrument:20:IF2501.CFFEX:0:last", spi.Events().back());
}

TEST(ReplayApi, DirectoryIsReplayedInTradingDayOrder) {
    ScopedTempDir tmp;
    {
        JournalBuilder late("j", "20250103");
        late.Depth("cu2501", "SHFE");
        late.Close();
        JournalBuilder early("j", "20250102");
        early.Depth("ag2501", "SHFE");
        early.Close();
    }
    Session s;
    s.api = CreateWiraReplayApi("j", 0);
    ASSERT_NE(nullptr, s.api);
    ReplaySpi spi;
    s.api->RegisterSpi(&spi);
    s.api->Init();
    s.api->Join();
    ASSERT_EQ(2u, spi.depths.size());
    EXPECT_STREQ("20250102", spi.depths[0].TradingDay);
    EXPECT_STREQ("20250103", spi.depths[1].TradingDay);
}

TEST(ReplayApi, PacedReplayKeepsTheRecordedPaceAndReleaseStopsAWait) {
    ScopedTempDir tmp;
    {
        JournalBuilder j("j");
        j.Depth("cu2501", "SHFE");
        j.Wait(500000000);   // 0.5 s later
        j.Depth("cu2501", "SHFE");
        j.Wait(3600LL * 1000000000);   // an hour later
        j.Depth("cu2501", "SHFE");
        j.Close();
    }
    using Clock = std::chrono::steady_clock;
    {
        // Ten times faster: the half second takes about 50 ms.
        COrvexWiraMdApi* api = CreateWiraReplayApi("j", 10.0);
        ASSERT_NE(nullptr, api);
        ReplaySpi spi;
        std::atomic<int64_t> secondAt{0};
        const auto start = Clock::now();
        spi.onDepth = [&](int n) {
            if (n == 2) secondAt = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        };
        api->RegisterSpi(&spi);
        api->Init();
        for (int i = 0; i < 400 && secondAt.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_GE(secondAt.load(), 45);
        EXPECT_EQ(2u, spi.Events().size());
        // The third record is six minutes away: Release ends the wait at once.
        const auto released = Clock::now();
        api->Release();
        EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - released).count(), 1000);
    }
}

TEST(ReplayApi, ReleaseFromACallbackAndUnreadableJournals) {
    ScopedTempDir tmp;
    {
        JournalBuilder j("j");
        for (int i = 0; i < 10; ++i) j.Depth("cu2501", "SHFE");
        j.Close();
    }
    COrvexWiraMdApi* api = CreateWiraReplayApi("j", 0);
    ASSERT_NE(nullptr, api);
    ReplaySpi spi;
    std::atomic<bool> released{false};
    spi.onDepth = [&](int n) {
        if (n == 3) {
            api->Release();
            released = true;
        }
    };
    api->RegisterSpi(&spi);
    api->Init();
    for (int i = 0; i < 400 && !released; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(released);
    EXPECT_EQ(3u, spi.Events().size());

    EXPECT_EQ(nullptr, CreateWiraReplayApi("no-such-journal", 0));
    EXPECT_EQ(nullptr, CreateWiraReplayApi(nullptr, 0));
    EXPECT_EQ(nullptr, CreateWiraReplayApi("j", -1));
    std::string bytes = orvex_test::FileBytes("j/20250102.mdj");
    bytes[8] = 2;   // format version 2
    orvex_test::WriteBytes("newer.mdj", bytes);
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, CreateWiraReplayApi("newer.mdj", 0));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find("journal format version 2 is not supported")) << said;
}

}  // namespace
