// Quotation snapshots: rows into depth records, delivery, completion with
// the replay of held dynamic information and the status reports.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <tuple>

#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

MarketStatusRow Market(uint16_t id, uint8_t status = 1) { return {id, 20240102, status, 0, 20240102, 93000500}; }

// A row whose fields all differ, with each sentinel case present once.
QuoteRow FullRow() {
    QuoteRow r;
    r.market = 2001;
    r.code = "cu2403";
    r.date = 20240102;
    r.packedTime = PackQuoteTime(9, 30, 15, 250);
    r.preClose = 700010;
    r.preSettlement = 700020;
    r.open = 0;                          // empty
    r.high = INT32_MIN;                  // 0x80000000: no value
    r.low = 699990;
    r.last = 700055;
    r.upperLimit = 770000;
    r.lowerLimit = 630000;
    r.average = -15;
    r.settlement = 0;
    r.close = 700050;
    r.reserved = 0xDEADBEEF;
    r.volume = 1234.0;
    r.openInterest = 0;                  // empty count
    r.preOpenInterest = 45678;
    r.turnover = 8.6e9;
    for (int k = 0; k < 5; ++k) {
        r.ask[k] = {700060 + 10 * k, static_cast<uint32_t>(11 + k)};
        r.bid[k] = {700050 - 10 * k, static_cast<uint32_t>(21 + k)};
    }
    r.ask[1].price = INT32_MIN;
    r.bid[4].price = 0;
    r.gapByte = 0x7E;
    return r;
}

// Copies of C strings, so that several text fields are compared in one check.
std::vector<std::string> Texts(std::initializer_list<const char*> texts) { return {texts.begin(), texts.end()}; }

QuoteRow Dated(const char* code, int32_t last, uint32_t date = 20240102, uint16_t market = 2001) {
    QuoteRow r;
    r.market = market;
    r.code = code;
    r.date = date;
    r.packedTime = PackQuoteTime(9, 31, 0, 0);
    r.last = last;
    return r;
}

}  // namespace

class QuotationTest : public HandlerTest {
protected:
    void SetUp() override { Build(); }
    // A new engine with these settings and the markets of every test.
    void Build(const MdEngineSettings& settings = MdEngineSettings()) {
        MakeEngine(settings);
        Status({Market(2001), Market(2011, 7), Market(2101, 2)});
        Names(2001, {{"Copper 2403", "cu2403", "CU2403", 10, 5, 0}, {"Copper 2405", "cu2405", "CU2405", 100, 5, 0}});
        Names(2011, {{"Copper deep", "cu2403", "CU2403", 10, 5, 0}});
        Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
        spi.events.clear();
        spi.logins.clear();
        spi.statuses.clear();
        host.TakeRequests();
    }
    // A re-login whose market list is unchanged starts loading the
    // quotation again without clearing the model.
    void StartLoading() {
        std::string answer = LoginAnswerBody(1, 0, {});
        engine->ProcessLoginRsp(answer.data(), static_cast<int>(answer.size()));
        ASSERT_TRUE(engine->ModelLoading());
        spi.events.clear();
        spi.logins.clear();
        host.TakeRequests();
    }
    std::vector<std::string> Depths() {
        std::vector<std::string> out;
        for (const std::string& e : spi.Events())
            if (e.rfind("depth:", 0) == 0) out.push_back(e.substr(6));
        return out;
    }
};

TEST_F(QuotationTest, RowBecomesTheDepthRecordFieldByField) {
    CQxInstrument* inst = Inst(2001, "cu2403");
    inst->pushedDate = 5;
    const QuoteRow row = FullRow();
    Quotes(2001, {row});

    ASSERT_EQ(spi.depths.size(), 1u);
    const COrvexWiraDepthMarketDataField& d = spi.depths[0];
    EXPECT_EQ(Texts({d.TradingDay, d.InstrumentID, d.ExchangeID, d.ExchangeInstID, d.UpdateTime, d.ActionDay}),
              (std::vector<std::string>{"20240102", "cu2403", "SHFE", "CU2403", "09:30:15", "20240102"}));
    EXPECT_EQ(d.UpdateMillisec, 250);
    // LastPrice to CurrDelta in record order, then AveragePrice; exact values.
    EXPECT_EQ((std::vector<double>{d.LastPrice, d.PreSettlementPrice, d.PreClosePrice, d.PreOpenInterest, d.OpenPrice,
                                   d.HighestPrice, d.LowestPrice, d.Volume, d.Turnover, d.OpenInterest, d.ClosePrice,
                                   d.SettlementPrice, d.UpperLimitPrice, d.LowerLimitPrice, d.PreDelta, d.CurrDelta,
                                   d.AveragePrice}),
              (std::vector<double>{70005.5, 70002.0, 70001.0, 45678.0, DBL_MAX, 0.0, 69999.0, 1234.0, 8.6e9, DBL_MAX,
                                   70005.0, DBL_MAX, 77000.0, 63000.0, DBL_MAX, DBL_MAX, -1.5}));
    // Bid levels 1-5, then ask levels 1-5.
    EXPECT_EQ((std::vector<double>{d.BidPrice1, d.BidPrice2, d.BidPrice3, d.BidPrice4, d.BidPrice5, d.AskPrice1,
                                   d.AskPrice2, d.AskPrice3, d.AskPrice4, d.AskPrice5}),
              (std::vector<double>{70005.0, 70004.0, 70003.0, 70002.0, DBL_MAX, 70006.0, 0.0, 70008.0, 70009.0,
                                   70010.0}));
    EXPECT_EQ((std::vector<int>{d.BidVolume1, d.BidVolume2, d.BidVolume3, d.BidVolume4, d.BidVolume5, d.AskVolume1,
                                d.AskVolume2, d.AskVolume3, d.AskVolume4, d.AskVolume5}),
              (std::vector<int>{21, 22, 23, 24, 25, 11, 12, 13, 14, 15}));

    // Alignment bytes stay zero.
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&d);
    std::vector<size_t> pads = {217, 218, 219};
    for (int k = 0; k < 5; ++k)
        for (size_t base : {236 + 32 * k, 252 + 32 * k})
            for (size_t i = 0; i < 4; ++i) pads.push_back(base + i);
    for (size_t i = 401; i < 408; ++i) pads.push_back(i);
    for (size_t p : pads) EXPECT_EQ(bytes[p], 0) << "byte " << p;

    // The instrument keeps the row as sent and its own copy of the record.
    EXPECT_EQ(std::memcmp(inst->rawQuote, EncodeQuoteRow(row).data(), kQuoteRowBytes), 0);
    EXPECT_EQ(std::memcmp(&inst->depth, &d, sizeof(d)), 0);
    EXPECT_EQ(std::make_tuple(inst->quoteDate, inst->quoteTime, inst->pushedDate),
              std::make_tuple(20240102u, 93015250u, 0u));
}

TEST_F(QuotationTest, UndatedRowIsStoredAndReportedOnlyOnceTheInstrumentWasDated) {
    // Never dated: stored, not reported.
    Quotes(2001, {Dated("cu2403", 700100, 0)});
    EXPECT_TRUE(spi.depths.empty());
    EXPECT_EQ(Inst(2001, "cu2403")->depth.LastPrice, 70010.0);
    EXPECT_EQ(Inst(2001, "cu2403")->quoteDate, 0u);

    // Dated once: a later undated row keeps the earlier date and is reported.
    Quotes(2001, {Dated("cu2403", 700100, 20240102)});
    QuoteRow later = Dated("cu2403", 700200, 0);
    later.packedTime = PackQuoteTime(10, 0, 0, 0);
    Quotes(2001, {later});
    ASSERT_EQ(spi.depths.size(), 2u);
    EXPECT_EQ(spi.depths[1].LastPrice, 70020.0);
    EXPECT_EQ(Texts({spi.depths[1].ActionDay, spi.depths[1].UpdateTime}),
              (std::vector<std::string>{"20240102", "10:00:00"}));
    EXPECT_EQ(Inst(2001, "cu2403")->quoteTime, 93100000u);
}

TEST_F(QuotationTest, RowsAreStoredButNotDeliveredWithoutACallbackObjectOrTheSnapshotFlag) {
    engine->SetSpi(nullptr);
    Quotes(2001, {Dated("cu2403", 700100)});
    EXPECT_TRUE(spi.Events().empty());   // completion makes no call either
    EXPECT_EQ(Inst(2001, "cu2403")->depth.LastPrice, 70010.0);

    Build(With([](MdEngineSettings& s) { s.deliverSnapshot = false; }));
    Quotes(2001, {Dated("cu2403", 700100)});
    EXPECT_TRUE(spi.depths.empty());
    EXPECT_EQ(Inst(2001, "cu2403")->depth.LastPrice, 70010.0);
}

TEST_F(QuotationTest, SubscriptionModeDeliversSubscribedInstrumentsAndWholeExchanges) {
    Build(With([](MdEngineSettings& s) { s.subscribe = true; }));
    engine->CheckSubscribeInfo({"cu2405.SHFE"});
    Quotes(2001, {Dated("cu2403", 700100), Dated("cu2405", 7000000)});
    Quotes(2101, {Dated("a2405", 4000, 20240102, 2101)});
    EXPECT_EQ(Depths(), std::vector<std::string>{"cu2405"});

    // Subscribing the exchange replays its dated quote, then the snapshot
    // delivers it.
    engine->CheckSubscribeInfo({"DCE"});
    Quotes(2101, {Dated("a2405", 4000, 20240102, 2101)});
    EXPECT_EQ(Depths(), (std::vector<std::string>{"cu2405", "a2405", "a2405"}));

    Build();
    Quotes(2001, {Dated("cu2403", 700100)});
    EXPECT_EQ(Depths().back(), "cu2403");
}

TEST_F(QuotationTest, OnlyKnownInstrumentsOfMarketsOfTheChosenLevelAreRead) {
    Quotes(2011, {Dated("cu2403", 700200, 20240102, 2011)});   // the deep feed: not at level 0
    Quotes(2001, {Dated("zz9999", 1), Dated("cu2403", 700100)});
    Quotes(4242, {Dated("cu2403", 700900, 20240102, 4242)});
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(spi.depths[0].LastPrice, 70010.0);
    EXPECT_EQ(engine->FindMarket(2011)->FindInstrument("cu2403")->quoteDate, 0u);

    Build(With([](MdEngineSettings& s) { s.level = 1; }));
    Quotes(2001, {Dated("cu2403", 700500)});
    Quotes(2011, {Dated("cu2403", 700300, 20240102, 2011)});
    ASSERT_EQ(spi.depths.size(), 2u);
    EXPECT_EQ(spi.depths[1].LastPrice, 70030.0);
}

TEST_F(QuotationTest, CompletesOnlyWithTheLastPacketAndItsLastRow) {
    Build(With([](MdEngineSettings& s) { s.log = true; }));
    StartLoading();
    std::string p0 = QuotationBody(2, 0, 2001, 2, 0, {Dated("cu2403", 700100)});
    engine->ProcessQuotationRsp(p0.data(), static_cast<int>(p0.size()));
    EXPECT_TRUE(engine->ModelLoading());
    EXPECT_TRUE(spi.statuses.empty());

    std::string p1 = QuotationBody(2, 1, 2001, 2, 1, {Dated("cu2405", 7000000)});
    engine->ProcessQuotationRsp(p1.data(), static_cast<int>(p1.size()));
    EXPECT_FALSE(engine->ModelLoading());
    EXPECT_NE(LogText().find("Quotation Completed"), std::string::npos);

    // Every exchange's main market, in key order, with its status.
    ASSERT_EQ(spi.statuses.size(), 2u);
    EXPECT_EQ(Texts({spi.statuses[0].ExchangeID, spi.statuses[1].ExchangeID, spi.statuses[1].TradingDay,
                     spi.statuses[1].UpdateTime}),
              (std::vector<std::string>{"DCE", "SHFE", "20240102", "09:30:00"}));
    EXPECT_EQ(std::string({spi.statuses[0].MarketStatus, spi.statuses[1].MarketStatus}), "42");
}

TEST_F(QuotationTest, EmptyOrNotAdmittedMarketStillCompletesAndMainStatusSevenIsReportedAsSix) {
    Quotes(2011, {});
    EXPECT_EQ(spi.statuses.size(), 2u);
    Quotes(4242, {});
    EXPECT_EQ(spi.statuses.size(), 4u);

    Status({Market(2001, 7)});
    spi.statuses.clear();
    Quotes(2001, {});
    ASSERT_EQ(spi.statuses.size(), 2u);
    EXPECT_EQ(spi.statuses[1].MarketStatus, '6');
}

TEST_F(QuotationTest, HeldDynamicInformationIsReplayedInOrderBeforeTheStatusReports) {
    Quotes(2001, {FullRow()});
    StartLoading();
    PushedRow first(2001, "cu2403", 20240102, PackQuoteTime(9, 30, 20, 0));
    first.Price(kPushLast, 700300);
    PushedRow second(2001, "cu2403", 20240102, PackQuoteTime(9, 30, 21, 0));
    second.Price(kPushLast, 700400);
    for (const std::string& body : {DynaPushRecord(1, first), DynaPushRecord(2, second)})
        engine->Dispatch(kCmdDynainfo, body.data(), static_cast<int>(body.size()));
    EXPECT_EQ(engine->HeldDynainfoCount(), 2u);
    EXPECT_TRUE(spi.Events().empty());

    std::string last = QuotationBody(1, 0, 2001, 0, 0, {});
    engine->ProcessQuotationRsp(last.data(), static_cast<int>(last.size()));

    EXPECT_EQ(engine->HeldDynainfoCount(), 0u);
    std::vector<std::string> events = spi.Events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0] + " " + events[1] + " " + events[2].substr(0, 7), "depth:cu2403 depth:cu2403 status:");
    ASSERT_EQ(spi.depths.size(), 3u);
    EXPECT_EQ(std::make_pair(spi.depths[1].LastPrice, spi.depths[2].LastPrice), std::make_pair(70030.0, 70040.0));
    EXPECT_EQ(Inst(2001, "cu2403")->quoteTime, 93021000u);
}

TEST_F(QuotationTest, PacketClaimingMoreRowsThanItHoldsStopsAtItsEnd) {
    std::vector<char> body = Exact(QuotationBody(1, 0, 2001, 3, 0, {Dated("cu2403", 700100)}, 3));
    engine->ProcessQuotationRsp(body.data(), static_cast<int>(body.size()));
    EXPECT_EQ(Depths(), std::vector<std::string>{"cu2403"});
    EXPECT_TRUE(spi.statuses.empty());

    std::vector<char> head = Exact(QuotationBody(1, 0, 2001, 0, 0, {}).substr(0, 13));
    engine->ProcessQuotationRsp(head.data(), static_cast<int>(head.size()));
    EXPECT_TRUE(spi.statuses.empty());
}

TEST_F(QuotationTest, TenThousandInstrumentSnapshotLoadsInFullPackets) {
    constexpr int kCount = 10000;
    std::vector<NameRow> names;
    for (int i = 0; i < kCount; ++i) {
        char code[16];
        std::snprintf(code, sizeof(code), "x%05d", i);
        names.push_back({code, code, code, 100, 1, 0});
    }
    const auto start = std::chrono::steady_clock::now();
    Status({Market(5000)});
    spi.statuses.clear();
    constexpr int kNamesPerPacket = 48;    // 22 + 48 * 84 <= 4092
    for (int first = 0; first < kCount; first += kNamesPerPacket) {
        std::vector<NameRow> part(names.begin() + first, names.begin() + std::min(kCount, first + kNamesPerPacket));
        std::string body = NameTableBody(5000, kCount, static_cast<uint16_t>(first), part);
        ASSERT_LE(body.size(), 4092u);
        engine->ProcessNametableRsp(body.data(), static_cast<int>(body.size()));
    }
    constexpr int kRowsPerPacket = 15;     // 14 + 15 * 263 <= 4092
    const int packets = (kCount + kRowsPerPacket - 1) / kRowsPerPacket;
    for (int p = 0; p < packets; ++p) {
        std::vector<QuoteRow> rows;
        for (int i = p * kRowsPerPacket; i < std::min(kCount, (p + 1) * kRowsPerPacket); ++i)
            rows.push_back(Dated(names[static_cast<size_t>(i)].marketCode.c_str(), i + 1, 20240102, 5000));
        std::string body = QuotationBody(static_cast<uint16_t>(packets), static_cast<uint16_t>(p), 5000, kCount,
                                         static_cast<uint16_t>(p * kRowsPerPacket), rows);
        ASSERT_LE(body.size(), 4092u);
        engine->ProcessQuotationRsp(body.data(), static_cast<int>(body.size()));
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(engine->FindMarket(5000)->instrumentsById.size(), static_cast<size_t>(kCount));
    ASSERT_EQ(spi.depths.size(), static_cast<size_t>(kCount));
    EXPECT_EQ(spi.depths[9999].LastPrice, 100.0);
    EXPECT_EQ(spi.statuses.size(), 3u);    // completed once
    EXPECT_LT(seconds, 10.0);
}
