// The market model classes and the price rules.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>

#include "dc/MarketModel.h"

namespace {

TEST(PriceRules, EmptyNoValueAndDivided) {
    EXPECT_EQ(DBL_MAX, RawPriceToDouble(0, 100));
    EXPECT_EQ(0.0, RawPriceToDouble(static_cast<int32_t>(0x80000000u), 100));
    EXPECT_DOUBLE_EQ(35.25, RawPriceToDouble(3525, 100));
    EXPECT_DOUBLE_EQ(-1.5, RawPriceToDouble(-15, 10));
    EXPECT_EQ(DBL_MAX, RawCountToDouble(0));
    EXPECT_EQ(4294967295.0, RawCountToDouble(0xFFFFFFFFu));
}

TEST(Instrument, FreshRecordHoldsSentinels) {
    CQxInstrument inst;
    const COrvexWiraDepthMarketDataField& d = inst.depth;
    EXPECT_EQ(DBL_MAX, d.LastPrice);
    EXPECT_EQ(DBL_MAX, d.PreOpenInterest);
    EXPECT_EQ(DBL_MAX, d.OpenInterest);
    EXPECT_EQ(DBL_MAX, d.PreDelta);
    EXPECT_EQ(DBL_MAX, d.CurrDelta);
    EXPECT_EQ(DBL_MAX, d.AskPrice5);
    EXPECT_EQ(DBL_MAX, d.AveragePrice);
    EXPECT_EQ(0.0, d.Turnover);
    EXPECT_EQ(0.0, d.Volume);
    EXPECT_EQ(0, d.BidVolume1);
    EXPECT_EQ(0, d.AskVolume5);
    EXPECT_EQ(0u, inst.quoteDate);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&d);
    for (int i = 217; i < 220; ++i) EXPECT_EQ(0, raw[i]);
    for (int i = 401; i < 408; ++i) EXPECT_EQ(0, raw[i]);
}

TEST(Exchange, MainMarketSelection) {
    CQxExchange ex;
    EXPECT_EQ(nullptr, ex.GetMainMarket());
    CQxMarket a(2000, "SHFE"), b(2001, "SHFE");
    ex.markets = {&a, &b};
    ex.SetMainMarket(2001);
    EXPECT_EQ(&b, ex.GetMainMarket());
    ex.SetMainMarket(4242);
    EXPECT_EQ(&a, ex.GetMainMarket());
}

TEST(ExtraMarket, ExchangeIdsAndPreferenceOrder) {
    EXPECT_STREQ("SHFE", CExtraMarket::GetExchangeID(2011));
    EXPECT_STREQ("DCE", CExtraMarket::GetExchangeID(2100));
    EXPECT_STREQ("CZCE", CExtraMarket::GetExchangeID(2210));
    EXPECT_STREQ("CFFEX", CExtraMarket::GetExchangeID(2301));
    EXPECT_EQ(nullptr, CExtraMarket::GetExchangeID(2002));
    EXPECT_EQ(nullptr, CExtraMarket::GetExchangeID(5000));

    CExtraMarket x;
    EXPECT_EQ(2001u, x.ids[0]);
    EXPECT_EQ(2301u, x.ids[3]);
    x.ReloadIDSet({});
    EXPECT_EQ(2000u, x.ids[0]);
    EXPECT_EQ(2100u, x.ids[1]);
    EXPECT_EQ(2200u, x.ids[2]);
    EXPECT_EQ(2300u, x.ids[3]);
    x.ReloadIDSet({2000, 2001, 2010, 2011, 2101, 2110, 2210, 2300});
    EXPECT_EQ(2011u, x.ids[0]);
    EXPECT_EQ(2101u, x.ids[1]);
    EXPECT_EQ(2210u, x.ids[2]);
    EXPECT_EQ(2300u, x.ids[3]);
}

TEST(Market, LookUpsAndCopiesStayIndependent) {
    CQxMarket m(2001, "A-very-long-exchange-code-that-is-cut-at-31");
    EXPECT_EQ(31u, std::strlen(m.exchangeCode));
    CQxInstrument inst;
    std::strcpy(inst.marketCode, "cu2405");
    std::strcpy(inst.depth.InstrumentID, "CU2405");
    m.PutInstrument(inst);
    m.RebuildIDMap();
    EXPECT_NE(nullptr, m.FindInstrument("cu2405"));
    EXPECT_EQ(nullptr, m.FindInstrument("cu2406"));
    EXPECT_EQ(nullptr, m.FindInstrument(static_cast<const char*>(nullptr)));
    EXPECT_EQ(m.FindInstrument("cu2405"), m.FindInstrumentByID("CU2405"));

    CQxMarket copy(m);
    EXPECT_EQ(copy.FindInstrument("cu2405"), copy.FindInstrumentByID("CU2405"));
    EXPECT_NE(m.FindInstrument("cu2405"), copy.FindInstrument("cu2405"));
}

TEST(InstrumentRecord, LongNameRunsIntoButNotOverTheExchangeCode) {
    CQxMarket m(2001, "SHFE");
    CQxInstrument inst;
    std::strcpy(inst.exchangeCode, "cu2405");
    std::strcpy(inst.marketCode, "CU2405");
    std::strcpy(inst.name, "ABCDEFGHIJKLMNOPQRSTUVWXY");   // 25 bytes
    inst.attribute1 = 5;
    COrvexWiraInstrumentField rec;
    std::memset(&rec, 0, sizeof(rec));
    FillInstrumentRecord(&rec, m, inst);
    EXPECT_STREQ("CU2405", rec.InstrumentID);
    EXPECT_STREQ("SHFE", rec.ExchangeID);
    EXPECT_EQ(0, std::memcmp(rec.InstrumentName, "ABCDEFGHIJKLMNOPQRSTU", 21));
    EXPECT_STREQ("cu2405", rec.ExchangeInstID);
    EXPECT_EQ(5, rec.VolumeMultiple);
    m.UseExchangeCode = true;
    FillInstrumentRecord(&rec, m, inst);
    EXPECT_STREQ("cu2405", rec.InstrumentID);
}

}  // namespace
