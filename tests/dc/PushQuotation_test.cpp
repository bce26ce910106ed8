// Pushed rows applied to an instrument: the full applier and the delta
// applier with its change marks.
#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

// The instrument's last snapshot, divisor 10.
QuoteRow Snapshot() {
    QuoteRow r;
    r.market = 2001;
    r.code = "cu2403";
    r.date = 20240102;
    r.packedTime = PackQuoteTime(9, 30, 0, 0);
    r.preClose = 700010;
    r.open = 700000;
    r.last = 700055;
    r.volume = 1234.0;
    r.openInterest = 500;
    r.preOpenInterest = 400;
    r.turnover = 1e9;
    for (int k = 0; k < 5; ++k) {
        r.bid[k] = {700050 - 10 * k, static_cast<uint32_t>(10 + k)};
        r.ask[k] = {700060 + 10 * k, static_cast<uint32_t>(20 + k)};
    }
    return r;
}

PushedRow Push(unsigned second = 30, unsigned ms = 125) {
    return PushedRow(2001, "cu2403", 20240102, PackQuoteTime(9, 31, second, ms));
}

}  // namespace

class PushQuotationTest : public HandlerTest {
protected:
    void SetUp() override {
        MakeApi(true);
        MarketStatusRow m;
        m.market = 2001;
        m.tradingDay = m.secondDay = 20240102;
        m.timeWord = 93000000;
        Status({m});
        Names(2001, {{"Copper", "cu2403", "CU2403", 10, 5, 0}});
        Quotes(2001, {Snapshot()});
        inst = Inst(2001, "cu2403");
        ASSERT_NE(inst, nullptr);
        inst->quoteDate = 20240103;   // as set by the caller before applying
        std::memcpy(rawBefore, inst->rawQuote, sizeof(rawBefore));
    }

    bool Full(const PushedRow& row, COrvexWiraDepthMarketDataField* out) {
        std::vector<char> bytes = Exact(row.Encode());
        return api->ProcessPushQuotation(bytes.data(), static_cast<int>(bytes.size()), inst, out);
    }
    bool Delta(const PushedRow& row, COrvexWiraDepthMarketDataField* out, bool* changed) {
        std::vector<char> bytes = Exact(row.Encode());
        return api->ProcessPushQuotationDelta(bytes.data(), static_cast<int>(bytes.size()), inst, changed, out);
    }
    template <class T>
    T Raw(size_t offset) {
        T v;
        std::memcpy(&v, inst->rawQuote + offset, sizeof(v));
        return v;
    }

    CQxInstrument* inst = nullptr;
    unsigned char rawBefore[kQuoteRowBytes];
};

// ---- full applier ----

TEST_F(PushQuotationTest, FullPushAppliesEveryPresentFieldAndReportsTheWholeRecord) {
    PushedRow row = Push();
    row.Price(kPushPreClose, 700020)
        .Price(kPushLast, 700300)
        .Price(kPushClose, INT32_MIN)
        .Price(kPushAverage, 0)
        .Reserved(0xFFFFFFFF)
        .Volume(2000.5)
        .OpenInterest(0)
        .PreOpenInterest(7)
        .Turnover(2.5e9)
        .Bid(1, 700100, 31)
        .Bid(8, 1, 1)          // levels beyond 5 are consumed, not applied
        .Bid(5, 700090, 35)
        .Ask(1, 700110, 41)
        .Ask(7, 2, 2)
        .Ask(3, 700130, 43);
    COrvexWiraDepthMarketDataField out;
    ASSERT_TRUE(Full(row, &out));

    EXPECT_EQ(out.PreClosePrice, 70002.0);
    EXPECT_EQ(out.LastPrice, 70030.0);
    EXPECT_EQ(out.ClosePrice, 0.0);
    EXPECT_EQ(out.AveragePrice, DBL_MAX);
    EXPECT_EQ(out.Volume, 2000.5);
    EXPECT_EQ(out.OpenInterest, 0.0);     // a pushed 0 is a count, not empty
    EXPECT_EQ(out.PreOpenInterest, 7.0);
    EXPECT_EQ(out.Turnover, 2.5e9);
    EXPECT_EQ(out.BidPrice1, 70010.0);
    EXPECT_EQ(out.BidVolume1, 31);
    EXPECT_EQ(out.BidPrice5, 70009.0);
    EXPECT_EQ(out.BidVolume5, 35);
    EXPECT_EQ(out.AskPrice1, 70011.0);
    EXPECT_EQ(out.AskVolume1, 41);
    EXPECT_EQ(out.AskPrice3, 70013.0);
    EXPECT_EQ(out.AskVolume3, 43);
    // Fields the row did not carry keep the snapshot's values.
    EXPECT_EQ(out.OpenPrice, 70000.0);
    EXPECT_EQ(out.BidPrice2, 70004.0);
    EXPECT_EQ(out.AskPrice2, 70007.0);
    EXPECT_EQ(out.AskVolume2, 21);
    EXPECT_STREQ(out.UpdateTime, "09:31:30");
    EXPECT_EQ(out.UpdateMillisec, 125);
    EXPECT_STREQ(out.ActionDay, "20240103");
    EXPECT_STREQ(out.InstrumentID, "cu2403");

    EXPECT_EQ(std::memcmp(&out, &inst->depth, sizeof(out)), 0);
    EXPECT_EQ(std::memcmp(rawBefore, inst->rawQuote, sizeof(rawBefore)), 0);
}

TEST_F(PushQuotationTest, EmptyMasksReportTheCurrentRecordWithANewTime) {
    COrvexWiraDepthMarketDataField before = inst->depth;
    COrvexWiraDepthMarketDataField out;
    ASSERT_TRUE(Full(Push(45, 999), &out));
    EXPECT_STREQ(out.UpdateTime, "09:31:45");
    EXPECT_EQ(out.UpdateMillisec, 999);
    std::memcpy(before.UpdateTime, out.UpdateTime, sizeof(before.UpdateTime));
    before.UpdateMillisec = out.UpdateMillisec;
    std::memcpy(before.ActionDay, out.ActionDay, sizeof(before.ActionDay));
    EXPECT_EQ(std::memcmp(&before, &out, sizeof(out)), 0);
}

TEST_F(PushQuotationTest, NullArgumentsChangeNothing) {
    COrvexWiraDepthMarketDataField before = inst->depth;
    COrvexWiraDepthMarketDataField out;
    std::string bytes = Push().Price(kPushLast, 1).Encode();
    const int n = static_cast<int>(bytes.size());
    EXPECT_FALSE(api->ProcessPushQuotation(nullptr, n, inst, &out));
    EXPECT_FALSE(api->ProcessPushQuotation(bytes.data(), n, nullptr, &out));
    EXPECT_FALSE(api->ProcessPushQuotation(bytes.data(), n, inst, nullptr));
    bool changed = true;
    EXPECT_FALSE(api->ProcessPushQuotationDelta(nullptr, n, inst, &changed, &out));
    EXPECT_FALSE(api->ProcessPushQuotationDelta(bytes.data(), n, nullptr, &changed, &out));
    EXPECT_FALSE(api->ProcessPushQuotationDelta(bytes.data(), n, inst, &changed, nullptr));
    EXPECT_TRUE(changed);
    EXPECT_EQ(std::memcmp(&before, &inst->depth, sizeof(before)), 0);
    EXPECT_TRUE(api->ProcessPushQuotationDelta(bytes.data(), n, inst, nullptr, &out));
}

TEST_F(PushQuotationTest, FieldsClaimedBeyondTheRowAreNotRead) {
    PushedRow row = Push();
    row.Price(kPushPreClose, 700020).ClaimA(1u << kPushTurnover).ClaimB(1u);
    COrvexWiraDepthMarketDataField out;
    ASSERT_TRUE(Full(row, &out));
    EXPECT_EQ(out.PreClosePrice, 70002.0);
    EXPECT_EQ(out.Turnover, 1e9);
    EXPECT_EQ(out.BidPrice1, 70005.0);

    bool changed = false;
    ASSERT_TRUE(Delta(row, &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.Turnover, DBL_MAX);

    std::vector<char> shortRow = Exact(Push().Encode().substr(0, 38));
    EXPECT_FALSE(api->ProcessPushQuotation(shortRow.data(), 38, inst, &out));
}

// ---- delta applier ----

TEST_F(PushQuotationTest, UnchangedFieldsAreMarkedAndChangedIsClear) {
    const std::string oldActionDay = inst->depth.ActionDay;
    COrvexWiraDepthMarketDataField out;
    bool changed = true;
    ASSERT_TRUE(Delta(Push().Price(kPushLast, 700055), &out, &changed));
    EXPECT_FALSE(changed);

    EXPECT_STREQ(out.TradingDay, "20240102");
    EXPECT_STREQ(out.InstrumentID, "cu2403");
    EXPECT_STREQ(out.ExchangeID, "SHFE");
    EXPECT_STREQ(out.ExchangeInstID, "CU2403");
    EXPECT_STREQ(out.UpdateTime, "09:31:30");
    EXPECT_EQ(out.UpdateMillisec, 125);
    EXPECT_EQ(std::string(out.ActionDay), oldActionDay);          // as before the push
    EXPECT_STREQ(inst->depth.ActionDay, "20240103");

    const double doubles[] = {out.LastPrice,       out.PreSettlementPrice, out.PreClosePrice, out.PreOpenInterest,
                              out.OpenPrice,       out.HighestPrice,       out.LowestPrice,   out.Volume,
                              out.Turnover,        out.OpenInterest,       out.ClosePrice,    out.SettlementPrice,
                              out.UpperLimitPrice, out.LowerLimitPrice,    out.PreDelta,      out.CurrDelta,
                              out.BidPrice1,       out.AskPrice1,          out.BidPrice2,     out.AskPrice2,
                              out.BidPrice3,       out.AskPrice3,          out.BidPrice4,     out.AskPrice4,
                              out.BidPrice5,       out.AskPrice5,          out.AveragePrice};
    for (double v : doubles) EXPECT_EQ(v, DBL_MAX);
    const int volumes[] = {out.BidVolume1, out.AskVolume1, out.BidVolume2, out.AskVolume2, out.BidVolume3,
                           out.AskVolume3, out.BidVolume4, out.AskVolume4, out.BidVolume5, out.AskVolume5};
    for (int v : volumes) EXPECT_EQ(v, 0x7FFFFFFF);

    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&out);
    for (size_t p : {217u, 218u, 219u, 236u, 239u, 401u, 407u}) EXPECT_EQ(bytes[p], 0) << "byte " << p;
}

TEST_F(PushQuotationTest, ChangedPriceIsReportedAndBecomesTheComparisonBase) {
    COrvexWiraDepthMarketDataField out;
    bool changed = false;
    ASSERT_TRUE(Delta(Push().Price(kPushLast, 700300).Price(kPushOpen, 700000), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.LastPrice, 70030.0);
    EXPECT_EQ(out.OpenPrice, DBL_MAX);
    EXPECT_EQ(inst->depth.LastPrice, 70030.0);
    EXPECT_EQ(Raw<int32_t>(51), 700300);

    ASSERT_TRUE(Delta(Push().Price(kPushLast, 700300), &out, &changed));
    EXPECT_FALSE(changed);
}

TEST_F(PushQuotationTest, VolumeAndTurnoverChangeBeyondATolerance) {
    COrvexWiraDepthMarketDataField out;
    bool changed = true;
    ASSERT_TRUE(Delta(Push().Volume(1234.000001), &out, &changed));
    EXPECT_FALSE(changed);
    EXPECT_EQ(out.Volume, DBL_MAX);
    EXPECT_EQ(inst->depth.Volume, 1234.000001);   // the record always takes the value
    EXPECT_EQ(Raw<double>(79), 1234.0);

    ASSERT_TRUE(Delta(Push().Volume(1235.0).Turnover(1e9 + 0.5), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.Volume, 1235.0);
    EXPECT_EQ(out.Turnover, 1e9 + 0.5);
    EXPECT_EQ(Raw<double>(79), 1235.0);
    EXPECT_EQ(Raw<double>(95), 1e9 + 0.5);
}

TEST_F(PushQuotationTest, ChangedPreviousOpenInterestReportsTheOpenInterest) {
    COrvexWiraDepthMarketDataField out;
    bool changed = false;
    ASSERT_TRUE(Delta(Push().PreOpenInterest(450), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.PreOpenInterest, DBL_MAX);
    EXPECT_EQ(out.OpenInterest, 500.0);
    EXPECT_EQ(inst->depth.PreOpenInterest, 450.0);
    EXPECT_EQ(Raw<uint32_t>(91), 450u);

    ASSERT_TRUE(Delta(Push().OpenInterest(0), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.OpenInterest, 0.0);
}

TEST_F(PushQuotationTest, LevelPriceAndVolumeAreComparedSeparately) {
    COrvexWiraDepthMarketDataField out;
    bool changed = false;
    ASSERT_TRUE(Delta(Push().Bid(2, 700040, 99).Ask(4, 700999, 23).Bid(9, 5, 5), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.BidPrice2, DBL_MAX);
    EXPECT_EQ(out.BidVolume2, 99);
    EXPECT_EQ(out.AskPrice4, 70099.9);
    EXPECT_EQ(out.AskVolume4, 0x7FFFFFFF);
    EXPECT_EQ(Raw<uint32_t>(183 + 8 + 4), 99u);
    EXPECT_EQ(Raw<int32_t>(103 + 24), 700999);
    EXPECT_EQ(inst->depth.BidVolume2, 99);
}

TEST_F(PushQuotationTest, DeltaComparesWithTheLastSnapshotOrDeltaNotWithFullPushes) {
    COrvexWiraDepthMarketDataField out;
    ASSERT_TRUE(Full(Push().Price(kPushLast, 700300), &out));
    bool changed = false;
    ASSERT_TRUE(Delta(Push().Price(kPushLast, 700300), &out, &changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(out.LastPrice, 70030.0);
}
