// Pushed rows applied to an instrument: the full applier and the delta
// applier with its change marks.
#include <cmath>
#include <random>

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
        HandlerTest::SetUp();
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
        return engine->ProcessPushQuotation(bytes.data(), static_cast<int>(bytes.size()), inst, out);
    }
    bool Delta(const PushedRow& row, COrvexWiraDepthMarketDataField* out, bool* changed) {
        std::vector<char> bytes = Exact(row.Encode());
        return engine->ProcessPushQuotationDelta(bytes.data(), static_cast<int>(bytes.size()), inst, changed, out);
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
    EXPECT_FALSE(engine->ProcessPushQuotation(nullptr, n, inst, &out));
    EXPECT_FALSE(engine->ProcessPushQuotation(bytes.data(), n, nullptr, &out));
    EXPECT_FALSE(engine->ProcessPushQuotation(bytes.data(), n, inst, nullptr));
    bool changed = true;
    EXPECT_FALSE(engine->ProcessPushQuotationDelta(nullptr, n, inst, &changed, &out));
    EXPECT_FALSE(engine->ProcessPushQuotationDelta(bytes.data(), n, nullptr, &changed, &out));
    EXPECT_FALSE(engine->ProcessPushQuotationDelta(bytes.data(), n, inst, &changed, nullptr));
    EXPECT_TRUE(changed);
    EXPECT_EQ(std::memcmp(&before, &inst->depth, sizeof(before)), 0);
    EXPECT_TRUE(engine->ProcessPushQuotationDelta(bytes.data(), n, inst, nullptr, &out));
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
    EXPECT_FALSE(engine->ProcessPushQuotation(shortRow.data(), 38, inst, &out));
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

// ---- random rows against a field-by-field reading of the row ----

namespace {

using Rec = COrvexWiraDepthMarketDataField;

// The expected effect of one row, read one field at a time in mask order:
// the depth record, the delta record (null for a full push), the raw quote
// and whether anything changed. A field that does not fit ends the row.
struct RowOracle {
    Rec depth;
    unsigned char raw[kQuoteRowBytes];
    double divisor;

    static double Price(int32_t v, double divisor) {
        if (v == 0) return DBL_MAX;
        if (v == INT32_MIN) return 0.0;
        return v / divisor;
    }

    bool Apply(const std::string& row, size_t length, Rec* delta) {
        double Rec::*const a[16] = {&Rec::PreClosePrice,   &Rec::PreSettlementPrice, &Rec::OpenPrice,
                                    &Rec::HighestPrice,    &Rec::LowestPrice,        &Rec::LastPrice,
                                    &Rec::UpperLimitPrice, &Rec::LowerLimitPrice,    &Rec::AveragePrice,
                                    &Rec::SettlementPrice, &Rec::ClosePrice,         nullptr,
                                    &Rec::Volume,          &Rec::OpenInterest,       &Rec::PreOpenInterest,
                                    &Rec::Turnover};
        const int rawA[16] = {31, 35, 39, 43, 47, 51, 55, 59, 63, 67, 71, 75, 79, 87, 91, 95};
        double Rec::*const price[10] = {&Rec::BidPrice1, &Rec::BidPrice2, &Rec::BidPrice3, &Rec::BidPrice4,
                                        &Rec::BidPrice5, &Rec::AskPrice1, &Rec::AskPrice2, &Rec::AskPrice3,
                                        &Rec::AskPrice4, &Rec::AskPrice5};
        int Rec::*const volume[10] = {&Rec::BidVolume1, &Rec::BidVolume2, &Rec::BidVolume3, &Rec::BidVolume4,
                                      &Rec::BidVolume5, &Rec::AskVolume1, &Rec::AskVolume2, &Rec::AskVolume3,
                                      &Rec::AskVolume4, &Rec::AskVolume5};
        uint32_t maskA, maskB;
        std::memcpy(&maskA, row.data(), 4);
        std::memcpy(&maskB, row.data() + 4, 4);
        size_t pos = 39;
        bool changed = false;
        for (int bit = 0; bit < 16; ++bit) {
            if (!(maskA >> bit & 1)) continue;
            const size_t width = (bit == 12 || bit == 15) ? 8 : 4;
            if (pos + width > length) return changed;
            const char* p = row.data() + pos;
            pos += width;
            if (bit == 11) continue;
            int32_t i32;
            uint32_t u32;
            double f64 = 0;
            std::memcpy(&i32, p, 4);
            std::memcpy(&u32, p, 4);
            if (width == 8) std::memcpy(&f64, p, 8);
            if (width == 8) depth.*a[bit] = f64;
            else if (bit == 13 || bit == 14) depth.*a[bit] = u32;
            else depth.*a[bit] = Price(i32, divisor);
            if (!delta) continue;
            bool differs;
            if (width == 8) {
                double before;
                std::memcpy(&before, raw + rawA[bit], 8);
                differs = std::fabs(f64 - before) > 1e-5;
            } else {
                differs = std::memcmp(p, raw + rawA[bit], 4) != 0;
            }
            if (!differs) continue;
            if (bit == 14) delta->OpenInterest = depth.OpenInterest;
            else delta->*a[bit] = depth.*a[bit];
            std::memcpy(raw + rawA[bit], p, width);
            changed = true;
        }
        for (int bit = 0; bit < 20; ++bit) {
            if (!(maskB >> bit & 1)) continue;
            if (pos + 8 > length) return changed;
            const char* p = row.data() + pos;
            pos += 8;
            const bool bid = bit < 5, ask = bit >= 10 && bit < 15;
            if (!bid && !ask) continue;
            const int k = bid ? bit : 5 + (bit - 10);
            unsigned char* r = raw + (bid ? 183 + 8 * bit : 103 + 8 * (bit - 10));
            int32_t px, vol;
            std::memcpy(&px, p, 4);
            std::memcpy(&vol, p + 4, 4);
            depth.*price[k] = Price(px, divisor);
            depth.*volume[k] = vol;
            if (!delta) continue;
            if (std::memcmp(p, r, 4) != 0) {
                delta->*price[k] = depth.*price[k];
                std::memcpy(r, p, 4);
                changed = true;
            }
            if (std::memcmp(p + 4, r + 4, 4) != 0) {
                delta->*volume[k] = vol;
                std::memcpy(r + 4, p + 4, 4);
                changed = true;
            }
        }
        return changed;
    }
};

}  // namespace

TEST_F(PushQuotationTest, RandomRowsMatchAFieldByFieldReading) {
    // Values drawn from small pools, so that rows often repeat what the raw
    // quote holds (no change) and often do not; masks and lengths at random,
    // including rows cut inside a field.
    std::mt19937 rng(20241121);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const int32_t prices[] = {0, INT32_MIN, 700050, 700060, 700055, -12345, 1};
    const double doubles[] = {1234.0, 1234.000001, 1234.5, 1e9, 0.0};
    const uint32_t counts[] = {0, 400, 500, 501};

    RowOracle oracle;
    std::memcpy(&oracle.depth, &inst->depth, sizeof(oracle.depth));
    std::memcpy(oracle.raw, inst->rawQuote, sizeof(oracle.raw));
    oracle.divisor = inst->priceDivisor;

    for (int round = 0; round < 4000; ++round) {
        PushedRow row = Push(static_cast<unsigned>(round % 60), static_cast<unsigned>(round % 1000));
        for (int bit = 0; bit < 16; ++bit) {
            if (pick(3) != 0) continue;
            if (bit <= kPushClose) row.Price(static_cast<PushField>(bit), prices[pick(7)]);
            else if (bit == kPushReserved) row.Reserved(static_cast<uint32_t>(rng()));
            else if (bit == kPushVolume) row.Volume(doubles[pick(5)]);
            else if (bit == kPushOpenInterest) row.OpenInterest(counts[pick(4)]);
            else if (bit == kPushPreOpenInterest) row.PreOpenInterest(counts[pick(4)]);
            else row.Turnover(doubles[pick(5)]);
        }
        for (int level = 1; level <= 10; ++level) {
            if (pick(3) == 0) row.Bid(level, prices[pick(7)], counts[pick(4)]);
            if (pick(3) == 0) row.Ask(level, prices[pick(7)], counts[pick(4)]);
        }
        const std::string full = row.Encode();
        size_t length = full.size();
        if (pick(4) == 0) length = 39 + static_cast<size_t>(pick(static_cast<int>(full.size()) - 38));
        std::vector<char> bytes(full.begin(), full.begin() + static_cast<long>(length));
        const bool delta = pick(2) == 0;

        Rec out, expectedOut;
        bool changed = false;
        bool expectedChanged = false;
        if (delta) {
            ASSERT_TRUE(engine->ProcessPushQuotationDelta(bytes.data(), static_cast<int>(length), inst, &changed, &out));
            // The delta record starts zeroed with every change-tracked field
            // marked unchanged; the texts come from the record.
            std::memset(&expectedOut, 0, sizeof(expectedOut));
            for (double* d : {&expectedOut.LastPrice, &expectedOut.PreSettlementPrice, &expectedOut.PreClosePrice,
                              &expectedOut.PreOpenInterest, &expectedOut.OpenPrice, &expectedOut.HighestPrice,
                              &expectedOut.LowestPrice, &expectedOut.Volume, &expectedOut.Turnover,
                              &expectedOut.OpenInterest, &expectedOut.ClosePrice, &expectedOut.SettlementPrice,
                              &expectedOut.UpperLimitPrice, &expectedOut.LowerLimitPrice, &expectedOut.PreDelta,
                              &expectedOut.CurrDelta, &expectedOut.AveragePrice, &expectedOut.BidPrice1,
                              &expectedOut.BidPrice2, &expectedOut.BidPrice3, &expectedOut.BidPrice4,
                              &expectedOut.BidPrice5, &expectedOut.AskPrice1, &expectedOut.AskPrice2,
                              &expectedOut.AskPrice3, &expectedOut.AskPrice4, &expectedOut.AskPrice5})
                *d = DBL_MAX;
            for (int* v : {&expectedOut.BidVolume1, &expectedOut.BidVolume2, &expectedOut.BidVolume3,
                           &expectedOut.BidVolume4, &expectedOut.BidVolume5, &expectedOut.AskVolume1,
                           &expectedOut.AskVolume2, &expectedOut.AskVolume3, &expectedOut.AskVolume4,
                           &expectedOut.AskVolume5})
                *v = 0x7FFFFFFF;
            std::memcpy(oracle.depth.UpdateTime, inst->depth.UpdateTime, sizeof(oracle.depth.UpdateTime));
            oracle.depth.UpdateMillisec = inst->depth.UpdateMillisec;
            std::memcpy(oracle.depth.ActionDay, inst->depth.ActionDay, sizeof(oracle.depth.ActionDay));
            std::memcpy(expectedOut.TradingDay, oracle.depth.TradingDay, sizeof(expectedOut.TradingDay));
            std::memcpy(expectedOut.InstrumentID, oracle.depth.InstrumentID, sizeof(expectedOut.InstrumentID));
            std::memcpy(expectedOut.ExchangeID, oracle.depth.ExchangeID, sizeof(expectedOut.ExchangeID));
            std::memcpy(expectedOut.ExchangeInstID, oracle.depth.ExchangeInstID, sizeof(expectedOut.ExchangeInstID));
            std::memcpy(expectedOut.UpdateTime, oracle.depth.UpdateTime, sizeof(expectedOut.UpdateTime));
            expectedOut.UpdateMillisec = oracle.depth.UpdateMillisec;
            std::memcpy(expectedOut.ActionDay, oracle.depth.ActionDay, sizeof(expectedOut.ActionDay));
            expectedChanged = oracle.Apply(full, length, &expectedOut);
            EXPECT_EQ(expectedChanged, changed) << "round " << round;
        } else {
            ASSERT_TRUE(engine->ProcessPushQuotation(bytes.data(), static_cast<int>(length), inst, &out));
            std::memcpy(oracle.depth.UpdateTime, inst->depth.UpdateTime, sizeof(oracle.depth.UpdateTime));
            oracle.depth.UpdateMillisec = inst->depth.UpdateMillisec;
            std::memcpy(oracle.depth.ActionDay, inst->depth.ActionDay, sizeof(oracle.depth.ActionDay));
            oracle.Apply(full, length, nullptr);
            std::memcpy(&expectedOut, &oracle.depth, sizeof(expectedOut));
        }
        ASSERT_EQ(0, std::memcmp(&oracle.depth, &inst->depth, sizeof(Rec))) << "depth, round " << round;
        ASSERT_EQ(0, std::memcmp(oracle.raw, inst->rawQuote, sizeof(oracle.raw))) << "raw quote, round " << round;
        ASSERT_EQ(0, std::memcmp(&expectedOut, &out, sizeof(Rec))) << "reported record, round " << round;
    }
}
