// The whole quote-server flow through the worker thread against the fake
// server: login, market status, name tables, a snapshot split over packets
// with dynamic information held back meanwhile, pushes in full and delta
// mode, subscriptions and instrument queries.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cfloat>
#include <chrono>
#include <cstring>
#include <string>
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
    NameRow n;
    n.name = name;
    n.marketCode = code;
    n.exchangeCode = code;
    n.divisor = divisor;
    n.attribute1 = multiple;
    return n;
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
            s.Send(83, LoginAnswer1Body(handle, 0, "", 1, {{2001, -1}, {2101, -1}}));
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
};

class DCFlow : public ::testing::Test {
protected:
    void Start(const std::string& config = "", const std::string& fileFront = "") {
        if (!config.empty()) ScopedTempDir::Write("OrvexWiraMdApi.def", config);
        api = new CDCThread("", true);
        api->RegisterSpi(&spi);
        std::string front = server.FrontAddress();
        api->RegisterFront(&front[0]);
        if (!fileFront.empty()) {
            std::string f = fileFront;
            api->RegisterFront(&f[0]);
        }
        api->Init();
        ASSERT_TRUE(spi.WaitFor("linked"));
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        std::strcpy(req.BrokerID, "0001");
        std::strcpy(req.UserID, "flow");
        ASSERT_EQ(0, api->ReqUserLogin(&req, 11));
        // The status reports after the snapshot end the load.
        ASSERT_TRUE(spi.WaitFor("status:SHFE:2"));
    }
    void TearDown() override {
        if (api) api->Release();
        CQXSFThread::ClearFronts();
    }
    void Push(const PushedRow& row) { server.Send(101, DynaPushRecord(2, row)); }
    std::vector<COrvexWiraDepthMarketDataField> DepthsOf(const std::string& id) {
        std::vector<COrvexWiraDepthMarketDataField> out;
        for (const auto& d : spi.Copy(spi.depths))
            if (id == d.InstrumentID) out.push_back(d);
        return out;
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
    EXPECT_STREQ("20240102", logins[0].rsp.TradingDay);
    EXPECT_STREQ("09:30:00", logins[0].rsp.SHFETime);
    EXPECT_STREQ("09:30:00", logins[0].rsp.DCETime);
    EXPECT_STREQ("", logins[0].rsp.CZCETime);
    EXPECT_STREQ("20240102", api->GetTradingDay());

    std::vector<COrvexWiraDepthMarketDataField> cu = DepthsOf("cu2405");
    ASSERT_EQ(2u, cu.size());
    EXPECT_DOUBLE_EQ(70000.0, cu[0].LastPrice);
    EXPECT_DOUBLE_EQ(69999.0, cu[0].PreClosePrice);
    EXPECT_DOUBLE_EQ(69999.9, cu[0].BidPrice1);
    EXPECT_EQ(3, cu[0].BidVolume1);
    EXPECT_EQ(DBL_MAX, cu[0].BidPrice2);
    EXPECT_STREQ("SHFE", cu[0].ExchangeID);
    EXPECT_STREQ("20240102", cu[0].ActionDay);
    EXPECT_STREQ("09:30:00", cu[0].UpdateTime);
    // The replayed push: full record, new last price and time.
    EXPECT_DOUBLE_EQ(70005.0, cu[1].LastPrice);
    EXPECT_DOUBLE_EQ(69999.0, cu[1].PreClosePrice);
    EXPECT_STREQ("09:30:01", cu[1].UpdateTime);
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
    EXPECT_DOUBLE_EQ(19020.0, al[1].LastPrice);
    EXPECT_DOUBLE_EQ(150.0, al[1].Volume);
    EXPECT_DOUBLE_EQ(19010.0, al[1].BidPrice1);
    EXPECT_EQ(9, al[1].BidVolume1);
    EXPECT_DOUBLE_EQ(19030.0, al[1].AskPrice1);
    EXPECT_STREQ("09:30:30", al[1].UpdateTime);
    // The stale row was dropped; the next one is applied on top.
    EXPECT_DOUBLE_EQ(19020.0, al[2].LastPrice);
    EXPECT_EQ(0.0, al[2].OpenInterest);
    EXPECT_STREQ("09:31:00", al[2].UpdateTime);
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
    EXPECT_DOUBLE_EQ(70005.0, DepthsOf("cu2405")[1].LastPrice);
    EXPECT_EQ(DBL_MAX, DepthsOf("cu2405")[1].PreClosePrice);
    COrvexWiraDepthMarketDataField d = DepthsOf("cu2405")[2];
    EXPECT_EQ(DBL_MAX, d.LastPrice);
    EXPECT_EQ(DBL_MAX, d.PreClosePrice);
    EXPECT_EQ(DBL_MAX, d.Volume);   // within 1e-5 of the snapshot's 100
    EXPECT_DOUBLE_EQ(2e6, d.Turnover);
    EXPECT_EQ(0x7FFFFFFF, d.BidVolume1);
    EXPECT_EQ(DBL_MAX, d.BidPrice1);
    EXPECT_STREQ("09:40:00", d.UpdateTime);
    EXPECT_STREQ("cu2405", d.InstrumentID);
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

    PushedRow al(2001, "al2405", kDay, PackQuoteTime(9, 50, 0, 0));
    al.Price(kPushLast, 95100);
    Push(al);
    PushedRow cu(2001, "cu2405", kDay, PackQuoteTime(9, 50, 0, 0));
    cu.Price(kPushLast, 700100);
    Push(cu);
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

TEST_F(DCFlow, InstrumentQueriesAnswerFromTheModel) {
    Start();
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    COrvexWiraQryInstrumentField q;
    std::memset(&q, 0, sizeof(q));
    std::strcpy(q.ExchangeID, "SHFE");
    EXPECT_EQ(0, api->ReqQryInstrument(&q, 21));
    std::strcpy(q.ExchangeID, "XYZ");
    EXPECT_EQ(0, api->ReqQryInstrument(&q, 22));
    q.ExchangeID[0] = '\0';
    EXPECT_EQ(0, api->ReqQryInstrument(&q, 23));
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.instruments).size() == 6; }));
    std::vector<InstrumentAnswer> answers = spi.Copy(spi.instruments);
    // SHFE in market-code order, is-last on the last one.
    EXPECT_STREQ("al2405", answers[0].rec.InstrumentID);
    EXPECT_STREQ("aluminium", answers[0].rec.InstrumentName);
    EXPECT_EQ(5, answers[0].rec.VolumeMultiple);
    EXPECT_FALSE(answers[0].isLast);
    EXPECT_STREQ("cu2405", answers[1].rec.InstrumentID);
    EXPECT_TRUE(answers[1].isLast);
    EXPECT_EQ(21, answers[1].requestId);
    // The unknown exchange: one error answer with the GBK message.
    EXPECT_FALSE(answers[2].hasRecord);
    EXPECT_EQ(1, answers[2].info.ErrorID);
    EXPECT_EQ(22u, std::strlen(answers[2].info.ErrorMsg));
    EXPECT_TRUE(answers[2].isLast);
    // Everything: markets in id order.
    EXPECT_STREQ("al2405", answers[3].rec.InstrumentID);
    EXPECT_STREQ("cu2405", answers[4].rec.InstrumentID);
    EXPECT_STREQ("m2409", answers[5].rec.InstrumentID);
    EXPECT_STREQ("DCE", answers[5].rec.ExchangeID);
    EXPECT_TRUE(answers[5].isLast);
    EXPECT_EQ(23, answers[5].requestId);
}

TEST_F(DCFlow, QueryWithAFileFrontMergesContractFieldsIntoTheModelsAnswer) {
    qxsfsim::FakeFileServer files;
    qxsfsim::ServedFile contract;
    contract.name = "shfe_base_1.json";
    contract.content =
        "{\"ContractData\":[{\"2\":\"cu2405\",\"4\":20240115,\"5\":0,\"13\":0.5,\"2017\":7,\"2018\":8}]}";
    contract.time = {11, 22};
    files.AddFile(contract);
    ASSERT_TRUE(files.Start());
    Start("", "ftp://127.0.0.1:" + std::to_string(files.Port()));
    ASSERT_TRUE(spi.WaitFor("depth:m2409"));
    COrvexWiraQryInstrumentField q;
    std::memset(&q, 0, sizeof(q));
    std::strcpy(q.ExchangeID, "SHFE");
    ASSERT_EQ(0, api->ReqQryInstrument(&q, 31));
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.instruments).size() == 2; }, 5000));
    std::vector<InstrumentAnswer> answers = spi.Copy(spi.instruments);
    // al2405 has no contract record and comes first: no contract fields.
    EXPECT_STREQ("al2405", answers[0].rec.InstrumentID);
    EXPECT_STREQ("", answers[0].rec.Text4);
    EXPECT_EQ(0.0, answers[0].rec.Number13);
    EXPECT_FALSE(answers[0].isLast);
    EXPECT_STREQ("cu2405", answers[1].rec.InstrumentID);
    EXPECT_STREQ("copper", answers[1].rec.InstrumentName);
    EXPECT_STREQ("SHFE", answers[1].rec.ExchangeID);
    EXPECT_EQ(5, answers[1].rec.VolumeMultiple);
    EXPECT_STREQ("20240115", answers[1].rec.Text4);
    EXPECT_STREQ("", answers[1].rec.Text5);
    EXPECT_EQ(0.5, answers[1].rec.Number13);
    EXPECT_STREQ("7", answers[1].rec.Text2017);
    EXPECT_STREQ("8", answers[1].rec.Text2018);
    EXPECT_TRUE(answers[1].isLast);
    EXPECT_EQ(31, answers[1].requestId);
}

TEST_F(DCFlow, ReleaseDuringADownloadIsPromptAndClean) {
    qxsfsim::FakeFileServer files;
    qxsfsim::ServerScript script;
    script.onFileRequest = qxsfsim::Misbehaviour::Stall;
    files.SetScript(script);
    qxsfsim::ServedFile contract;
    contract.name = "shfe_base_1.json";
    contract.content = std::string(10000, ' ');
    files.AddFile(contract);
    ASSERT_TRUE(files.Start());
    Start("", "ftp://127.0.0.1:" + std::to_string(files.Port()));
    COrvexWiraQryInstrumentField q;
    std::memset(&q, 0, sizeof(q));
    ASSERT_EQ(0, api->ReqQryInstrument(&q, 32));
    ASSERT_TRUE(files.WaitFor(
        [](const std::vector<qxsfsim::Package>& got) {
            for (const auto& p : got)
                if (p.head.Command == 3) return true;
            return false;
        },
        5000));
    auto t0 = std::chrono::steady_clock::now();
    api->Release();
    api = nullptr;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(ms, 1500);
    EXPECT_TRUE(spi.Copy(spi.instruments).empty());
}

}  // namespace
