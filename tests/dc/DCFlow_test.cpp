// The whole quote-server flow through the worker thread against the fake
// server: login, market status, name tables, a snapshot split over packets
// with dynamic information held back meanwhile, pushes in full and delta
// mode, subscriptions and instrument queries.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cfloat>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "dc/DCThread.h"
#include "sf/QXSFThread.h"
#include "support/FakeFileServer.h"
#include "support/FakeQuoteServer.h"
#include "protocol/QuoteBodies.h"
#include "support/RecordingSpi.h"

using namespace orvex_test;

namespace {

constexpr uint32_t kDay = 20240102;

NameRow Name(const std::string& code, const std::string& name, int32_t divisor, uint16_t multiple) {
    return {name, code, code, divisor, multiple, 0};
}

QuoteRow Quote(uint16_t market, const std::string& code, int32_t last) {
    QuoteRow q;
    q.market = market;
    q.code = code;
    q.date = kDay;
    q.packedTime = PackQuoteTime(9, 30, 0, 0);
    q.last = last;
    q.preClose = last - 10;
    q.volume = 100;
    q.turnover = 1e6;
    q.openInterest = 5000;
    q.bid[0] = {last - 1, 3};
    q.ask[0] = {last + 1, 4};
    return q;
}

// Copies of C strings, so that several text fields are compared in one check.
std::vector<std::string> Texts(std::initializer_list<const char*> texts) { return {texts.begin(), texts.end()}; }

// Compares values of a record, given as (got, want): exactly where the
// wanted value is whole (DBL_MAX included), else to within 4 ULPs.
void ExpectValues(const char* what, std::initializer_list<std::pair<double, double>> values) {
    int i = 0;
    for (const auto& [got, want] : values) {
        if (std::floor(want) == want)
            EXPECT_EQ(want, got) << what << ", value " << i;
        else
            EXPECT_DOUBLE_EQ(want, got) << what << ", value " << i;
        ++i;
    }
}

// Serves the login, the market status, the name tables and the snapshot of
// two markets; dynamic information is slipped in between snapshot packets.
class FlowServer {
public:
    explicit FlowServer(FakeQuoteServer& server) {
        server.SetResponder([this](FakeQuoteServer& s, const DcFrame& f) { Answer(s, f); });
    }

    void Answer(FakeQuoteServer& s, const DcFrame& f) {
        if (f.command == 83) {
            uint16_t handle;
            std::memcpy(&handle, f.body.data(), 2);
            std::vector<AccessEntry> granted = {{2001, -1}, {2101, -1}};
            if (grantMore) granted.push_back({2201, -1});
            s.Send(83, LoginAnswer1Body(handle, 0, "", 1, granted));
        } else if (f.command == 2) {
            MarketStatusRow shfe{2001, kDay, 1, 0, kDay, 93000000};
            MarketStatusRow dce{2101, kDay, 2, 0, kDay, 93000000};
            s.Send(2, MarketStatusBody(2, 0, {shfe}));
            s.Send(2, MarketStatusBody(2, 1, {dce}));
        } else if (f.command == 1) {
            s.Send(1, NameTableBody(2001, 2, 0, {Name("cu2405", "copper", 10, 5), Name("al2405", "aluminium", 5, 5)}));
            s.Send(1, NameTableBody(2101, 1, 0, {Name("m2409", "meal", 1, 10)}));
        } else if (f.command == 3) {
            s.Send(3, QuotationBody(2, 0, 2001, 2, 0, {Quote(2001, "cu2405", 700000)}));
            // Arrives while the snapshot loads: held back, replayed after it.
            PushedRow push(2001, "cu2405", kDay, PackQuoteTime(9, 30, 1, 0));
            push.Price(kPushLast, 700050);
            s.Send(101, DynaPushRecord(1, push));
            s.Send(3, QuotationBody(2, 1, 2001, 2, 1, {Quote(2001, "al2405", 95000)}));
            s.Send(3, QuotationBody(1, 0, 2101, 1, 0, {Quote(2101, "m2409", 3100)}));
        }
    }

    // The next login answers grant one more market: a changed list, so the
    // library rebuilds its markets.
    std::atomic<bool> grantMore{false};
};

class DCFlow : public ::testing::Test {
protected:
    void Start(const std::string& config = "", const std::string& fileFront = "") {
        if (!config.empty()) ScopedTempDir::Write("OrvexWiraMdApi.def", config);
        api = new CDCThread("", true);
        api->RegisterSpi(&spi);
        for (std::string front : {server.FrontAddress(), fileFront})
            if (!front.empty()) api->RegisterFront(&front[0]);
        api->Init();
        ASSERT_TRUE(spi.WaitFor("linked"));
        COrvexWiraReqUserLoginField req{};
        std::strcpy(req.BrokerID, "0001");
        std::strcpy(req.UserID, "flow");
        ASSERT_EQ(0, api->ReqUserLogin(&req, 11));
        // The status reports after the snapshot end the load.
        ASSERT_TRUE(spi.WaitFor("status:SHFE:2"));
    }
    // Starts with a file front that serves one SHFE contract file.
    void StartWithContractFile(qxsfsim::FakeFileServer& files, const std::string& content,
                               qxsfsim::Misbehaviour onFileRequest = qxsfsim::Misbehaviour::None,
                               bool splitSends = false) {
        qxsfsim::ServerScript script;
        script.onFileRequest = onFileRequest;
        script.splitSends = splitSends;
        files.SetScript(script);
        files.AddFile({"shfe_base_1.json", content, {11, 22}, false, {}});
        ASSERT_TRUE(files.Start());
        Start("", "ftp://127.0.0.1:" + std::to_string(files.Port()));
    }
    void TearDown() override {
        if (api) api->Release();
        CQXSFThread::ClearFronts();
    }
    void Push(const PushedRow& row) { server.Send(101, DynaPushRecord(2, row)); }
    // A 09:50:00 row of al2405, then one of cu2405 (the second is returned).
    PushedRow PushAlThenCu() {
        PushedRow al(2001, "al2405", kDay, PackQuoteTime(9, 50, 0, 0));
        al.Price(kPushLast, 95100);
        Push(al);
        PushedRow cu(2001, "cu2405", kDay, PackQuoteTime(9, 50, 0, 0));
        cu.Price(kPushLast, 700100);
        Push(cu);
        return cu;
    }
    std::vector<COrvexWiraDepthMarketDataField> DepthsOf(const std::string& id) {
        std::vector<COrvexWiraDepthMarketDataField> out;
        for (const auto& d : spi.Copy(spi.depths))
            if (id == d.InstrumentID) out.push_back(d);
        return out;
    }
    // Instrument answers as "request:instrument" ("-" without a record),
    // with "!" on the last one of a request.
    std::vector<std::string> Answered() {
        std::vector<std::string> out;
        for (const InstrumentAnswer& a : spi.Copy(spi.instruments))
            out.push_back(std::to_string(a.requestId) + ":" + (a.hasRecord ? a.rec.InstrumentID : "-") +
                          (a.isLast ? "!" : ""));
        return out;
    }
    void AskExchange(const char* exchange, int requestId) {
        COrvexWiraQryInstrumentField q{};
        std::strcpy(q.ExchangeID, exchange);
        ASSERT_EQ(0, api->ReqQryInstrument(&q, requestId));
    }

    ScopedTempDir dir;
    FakeQuoteServer server;
    FlowServer script{server};
    RecordingSpi spi;
    CDCThread* api = nullptr;
};

TEST_F(DCFlow, LoginSnapshotHeldBackPushAndStatusReportsInOrder) {
    Start();
    std::vector<std::string> ev = spi.Events();
    std::vector<std::string> expect = {"linked",         "login:0",       "status:DCE:*",   "status:SHFE:*",
                                       "depth:cu2405",   "depth:al2405",  "depth:cu2405",   "status:DCE:4",
                                       "status:SHFE:2"};
    // m2409's snapshot completes its own market later; the first nine events
    // are fixed.
    ASSERT_GE(ev.size(), expect.size());
    EXPECT_EQ(expect, std::vector<std::string>(ev.begin(), ev.begin() + expect.size()));

    std::vector<LoginAnswer> logins = spi.Copy(spi.logins);
    ASSERT_EQ(1u, logins.size());
    // The report after the market status takes its request handle from the
    // first-form answer; after a second-form login none was stored.
    EXPECT_EQ(0, logins[0].requestId);
    // Trading day, SHFE, DCE and CZCE times; then the API's trading day.
    EXPECT_EQ(Texts({logins[0].rsp.TradingDay, logins[0].rsp.SHFETime, logins[0].rsp.DCETime, logins[0].rsp.CZCETime,
                     api->GetTradingDay()}),
              (std::vector<std::string>{"20240102", "09:30:00", "09:30:00", "", "20240102"}));

    std::vector<COrvexWiraDepthMarketDataField> cu = DepthsOf("cu2405");
    ASSERT_EQ(2u, cu.size());
    ExpectValues("snapshot", {{cu[0].LastPrice, 70000.0}, {cu[0].PreClosePrice, 69999.0}, {cu[0].BidPrice1, 69999.9},
                              {cu[0].BidVolume1, 3}, {cu[0].BidPrice2, DBL_MAX}});
    EXPECT_EQ(Texts({cu[0].ExchangeID, cu[0].ActionDay, cu[0].UpdateTime}),
              (std::vector<std::string>{"SHFE", "20240102", "09:30:00"}));
    // The replayed push: full record, new last price and time.
    ExpectValues("replayed push", {{cu[1].LastPrice, 70005.0}, {cu[1].PreClosePrice, 69999.0}});
    EXPECT_STREQ("09:30:01", cu[1].UpdateTime);
    // Without an access file every market was granted; the list of the
    // offered markets is kept for the next login.
    EXPECT_EQ(0, access("qxmktaccess.xml", F_OK));
}

TEST_F(DCFlow, FullPushesAndStaleRows) {
    Start();
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    PushedRow later(2001, "al2405", kDay, PackQuoteTime(9, 30, 30, 0));
    later.Price(kPushLast, 95100).Volume(150).Bid(1, 95050, 9).Bid(8, 1, 1).Ask(1, 95150, 2);
    Push(later);
    PushedRow older(2001, "al2405", kDay, PackQuoteTime(9, 30, 29, 999));
    older.Price(kPushLast, 1);
    Push(older);
    PushedRow unknown(2001, "zz9999", kDay, PackQuoteTime(9, 31, 0, 0));
    unknown.Price(kPushLast, 1);
    Push(unknown);
    PushedRow last(2001, "al2405", kDay, PackQuoteTime(9, 31, 0, 0));
    last.OpenInterest(0);
    Push(last);
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("al2405").size() == 3; }));
    std::vector<COrvexWiraDepthMarketDataField> al = DepthsOf("al2405");
    ExpectValues("later", {{al[1].LastPrice, 19020.0}, {al[1].Volume, 150.0}, {al[1].BidPrice1, 19010.0},
                           {al[1].BidVolume1, 9}, {al[1].AskPrice1, 19030.0}});
    // The stale row was dropped; the next one is applied on top.
    ExpectValues("last", {{al[2].LastPrice, 19020.0}, {al[2].OpenInterest, 0.0}});
    EXPECT_EQ(Texts({al[1].UpdateTime, al[2].UpdateTime}), (std::vector<std::string>{"09:30:30", "09:31:00"}));
}

TEST_F(DCFlow, DeltaPushesCarryOnlyWhatChanged) {
    Start("[CONFIG]\nDeltaQuot=1\n");
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    PushedRow row(2001, "cu2405", kDay, PackQuoteTime(9, 40, 0, 0));
    row.Price(kPushLast, 700050).Price(kPushPreClose, 699990).Volume(100.000001).Turnover(2e6);
    Push(row);
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("cu2405").size() == 3; }));
    // The held-back push was applied as a delta too: it changed the last
    // price, so the same last price now counts as unchanged.
    std::vector<COrvexWiraDepthMarketDataField> cu = DepthsOf("cu2405");
    ExpectValues("held-back push", {{cu[1].LastPrice, 70005.0}, {cu[1].PreClosePrice, DBL_MAX}});
    // The volume is within 1e-5 of the snapshot's 100: unchanged too.
    ExpectValues("delta", {{cu[2].LastPrice, DBL_MAX}, {cu[2].PreClosePrice, DBL_MAX}, {cu[2].Volume, DBL_MAX},
                           {cu[2].Turnover, 2e6}, {cu[2].BidVolume1, 0x7FFFFFFF}, {cu[2].BidPrice1, DBL_MAX}});
    EXPECT_EQ(Texts({cu[2].UpdateTime, cu[2].InstrumentID}), (std::vector<std::string>{"09:40:00", "cu2405"}));
}

TEST_F(DCFlow, SubscriptionsFilterPushesAndReplayCurrentQuotes) {
    Start("[CONFIG]\nSubscribe=1\n");
    // Nothing is subscribed yet: the snapshot delivered nothing.
    EXPECT_TRUE(spi.Copy(spi.depths).empty());
    char a[] = "cu2405.SHFE";
    char b[] = "DCE";
    char* ids[] = {a, b};
    EXPECT_EQ(0, api->SubscribeMarketData(ids, 2));
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.depths).size() == 2; }));
    EXPECT_EQ(1u, DepthsOf("cu2405").size());
    EXPECT_EQ(1u, DepthsOf("m2409").size());

    const PushedRow cu = PushAlThenCu();
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("cu2405").size() == 2; }));
    EXPECT_TRUE(DepthsOf("al2405").empty());

    char* un[] = {b};
    api->UnSubscribeMarketData(un, 1);
    PushedRow m(2101, "m2409", kDay, PackQuoteTime(9, 51, 0, 0));
    m.Price(kPushLast, 3200);
    usleep(50 * 1000);
    Push(m);
    Push(cu);   // same time again: accepted, still subscribed
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("cu2405").size() == 3; }));
    EXPECT_EQ(1u, DepthsOf("m2409").size());
}

TEST_F(DCFlow, SubscriptionsSurviveAReloginThatRebuildsTheMarkets) {
    FakeClock clock;
    Start("[CONFIG]\nSubscribe=1\n");
    char a[] = "cu2405.SHFE";
    char b[] = "DCE";
    char* ids[] = {a, b};
    EXPECT_EQ(0, api->SubscribeMarketData(ids, 2));
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.depths).size() == 2; }));

    // The connection drops; the next login grants a changed market list.
    script.grantMore = true;
    server.CloseClient();
    ASSERT_TRUE(spi.WaitFor("lost:0"));
    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 2));
    COrvexWiraReqUserLoginField req{};
    std::strcpy(req.UserID, "flow");
    ASSERT_EQ(0, api->ReqUserLogin(&req, 12));
    // Each load ends with two rounds of status reports (one per market's
    // last snapshot packet).
    ASSERT_TRUE(spi.WaitFor("login:0", 2));
    ASSERT_TRUE(WaitUntil([&] { return spi.Count("status:SHFE:2") == 4; }));
    EXPECT_EQ(2, server.CountFrames(kCmdMarketStatus));   // the markets were loaded again

    // The snapshot after the rebuild delivers exactly what is subscribed...
    // cu2405: the subscription's replay, then the new snapshot and the push
    // held back during it; m2409 (DCE subscribed whole): replay, snapshot.
    EXPECT_EQ(3u, DepthsOf("cu2405").size());
    EXPECT_EQ(2u, DepthsOf("m2409").size());
    EXPECT_TRUE(DepthsOf("al2405").empty());
    // ...and pushes keep flowing.
    PushAlThenCu();
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("cu2405").size() == 4; }));
    EXPECT_TRUE(DepthsOf("al2405").empty());
    // The worker stops before the test's clock goes away.
    api->Release();
    api = nullptr;
}

// Writes of exactly one receive buffer (four frames of 4096 bytes) with a
// pause after each: every receive fills the buffer and the socket is empty
// right after it. That is no error: the connection stays, and every row of
// the writes and of a later push arrives, in order.
TEST_F(DCFlow, ReceivesThatFillTheBufferThenAQuietSocketKeepTheConnection) {
    Start();
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    const size_t before = DepthsOf("al2405").size();
    int32_t price = 95000;
    std::vector<int32_t> sent;
    uint32_t sequence = 100;
    for (int write = 0; write < 8; ++write) {
        std::string bytes;
        for (int f = 0; f < 4; ++f) {
            std::string body;
            for (int r = 0; r < 20; ++r) {
                PushedRow row(2001, "al2405", kDay, PackQuoteTime(9, 50, 0, 0));
                row.Price(kPushLast, ++price);
                sent.push_back(price);
                body += DynaPushRecord(sequence++, row);
            }
            // A record of a type the library skips pads the body to the
            // largest a frame carries.
            body += DynaRecord(sequence++, 7, std::string(4092 - body.size() - 7, '\0'));
            ASSERT_EQ(4092u, body.size());
            bytes += BuildDcFrame(101, body);
        }
        ASSERT_EQ(16384u, bytes.size());
        ASSERT_TRUE(server.SendRaw(bytes));
        ASSERT_TRUE(WaitUntil([&] { return DepthsOf("al2405").size() == before + sent.size(); }))
            << "write " << write;
        usleep(20000);
    }
    PushedRow last(2001, "al2405", kDay, PackQuoteTime(9, 50, 1, 0));
    last.Price(kPushLast, ++price);
    sent.push_back(price);
    Push(last);
    ASSERT_TRUE(WaitUntil([&] { return DepthsOf("al2405").size() == before + sent.size(); }));

    EXPECT_TRUE(spi.Copy(spi.lost).empty());
    EXPECT_EQ(1, server.Accepted());
    const std::vector<COrvexWiraDepthMarketDataField> al = DepthsOf("al2405");
    for (size_t i = 0; i < sent.size(); ++i)
        ASSERT_EQ(static_cast<double>(sent[i]) / 5.0, al[before + i].LastPrice) << "row " << i;
}

TEST_F(DCFlow, InstrumentQueriesAnswerFromTheModel) {
    Start();
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    AskExchange("SHFE", 21);
    AskExchange("XYZ", 22);
    AskExchange("", 23);
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.instruments).size() == 6; }));
    // SHFE in market-code order; the unknown exchange: one error answer;
    // everything: markets in id order.
    EXPECT_EQ(Answered(), (std::vector<std::string>{"21:al2405", "21:cu2405!", "22:-!", "23:al2405", "23:cu2405",
                                                    "23:m2409!"}));
    std::vector<InstrumentAnswer> answers = spi.Copy(spi.instruments);
    EXPECT_STREQ("aluminium", answers[0].rec.InstrumentName);
    EXPECT_EQ(5, answers[0].rec.VolumeMultiple);
    EXPECT_EQ(1, answers[2].info.ErrorID);
    EXPECT_EQ(22u, std::strlen(answers[2].info.ErrorMsg));   // the GBK message
    EXPECT_STREQ("DCE", answers[5].rec.ExchangeID);
}

TEST_F(DCFlow, QueryWithAFileFrontMergesContractFieldsIntoTheModelsAnswer) {
    qxsfsim::FakeFileServer files;
    ASSERT_NO_FATAL_FAILURE(StartWithContractFile(
        files, "{\"ContractData\":[{\"2\":\"cu2405\",\"4\":20240115,\"5\":0,\"13\":0.5,\"2017\":7,\"2018\":8}]}"));
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    AskExchange("SHFE", 31);
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.instruments).size() == 2; }, 5000));
    EXPECT_EQ(Answered(), (std::vector<std::string>{"31:al2405", "31:cu2405!"}));
    // al2405 has no contract record and comes first: no contract fields.
    const COrvexWiraInstrumentField al = spi.Copy(spi.instruments)[0].rec, cu = spi.Copy(spi.instruments)[1].rec;
    EXPECT_STREQ("", al.Text4);
    EXPECT_EQ(0.0, al.Number13);
    // Name, exchange, Text4, Text5, Text2017 and Text2018 of cu2405.
    EXPECT_EQ(Texts({cu.InstrumentName, cu.ExchangeID, cu.Text4, cu.Text5, cu.Text2017, cu.Text2018}),
              (std::vector<std::string>{"copper", "SHFE", "20240115", "", "7", "8"}));
    EXPECT_EQ(std::make_pair(5, 0.5), std::make_pair(cu.VolumeMultiple, cu.Number13));
}

TEST_F(DCFlow, ConcurrentFileQueriesBothAnswerWithContractFields) {
    qxsfsim::FakeFileServer files;
    // Answers in two pieces a moment apart: downloads take a while, so
    // queries made together overlap.
    ASSERT_NO_FATAL_FAILURE(StartWithContractFile(
        files, "{\"ContractData\":[{\"2\":\"cu2405\",\"4\":20240115,\"13\":0.5}" + std::string(20000, ' ') + "]}",
        qxsfsim::Misbehaviour::None, true));
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    for (int id : {41, 42, 43}) AskExchange("SHFE", id);
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.instruments).size() == 6; }, 15000));
    std::vector<std::string> answered = Answered();
    std::sort(answered.begin(), answered.end());
    EXPECT_EQ(answered, (std::vector<std::string>{"41:al2405", "41:cu2405!", "42:al2405", "42:cu2405!", "43:al2405",
                                                  "43:cu2405!"}));
    for (const InstrumentAnswer& a : spi.Copy(spi.instruments)) {
        if (std::string(a.rec.InstrumentID) != "cu2405") continue;
        EXPECT_EQ(Texts({a.rec.Text4}), (std::vector<std::string>{"20240115"})) << a.requestId;
        EXPECT_EQ(0.5, a.rec.Number13) << a.requestId;
    }
}

TEST_F(DCFlow, ReleaseDuringADownloadIsPromptAndClean) {
    qxsfsim::FakeFileServer files;
    ASSERT_NO_FATAL_FAILURE(StartWithContractFile(files, std::string(10000, ' '), qxsfsim::Misbehaviour::Stall));
    AskExchange("", 32);
    AskExchange("SHFE", 33);
    ASSERT_TRUE(files.WaitFor(
        [](const std::vector<qxsfsim::Package>& got) {
            for (const auto& p : got)
                if (p.head.Command == 3) return true;
            return false;
        },
        5000));
    // The workers take turns on the cache: the second query waits while the
    // first one's download stalls.
    usleep(300 * 1000);
    EXPECT_EQ(1, files.Connections());
    auto t0 = std::chrono::steady_clock::now();
    api->Release();
    api = nullptr;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(ms, 1500);
    EXPECT_TRUE(spi.Copy(spi.instruments).empty());
}

}  // namespace
