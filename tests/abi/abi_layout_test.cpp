// Pins the binary interface an application is compiled against: record sizes
// and offsets, and the virtual slot of every operation and callback.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "OrvexWiraMdApi.h"

#define AT(T, f, off) static_assert(offsetof(T, f) == (off), #T "::" #f)

using Depth = COrvexWiraDepthMarketDataField;
static_assert(sizeof(Depth) == 408, "depth record");
AT(Depth, TradingDay, 0); AT(Depth, InstrumentID, 9); AT(Depth, ExchangeID, 40); AT(Depth, ExchangeInstID, 49);
AT(Depth, LastPrice, 80); AT(Depth, PreSettlementPrice, 88); AT(Depth, PreClosePrice, 96);
AT(Depth, PreOpenInterest, 104); AT(Depth, OpenPrice, 112); AT(Depth, HighestPrice, 120);
AT(Depth, LowestPrice, 128); AT(Depth, Volume, 136); AT(Depth, Turnover, 144); AT(Depth, OpenInterest, 152);
AT(Depth, ClosePrice, 160); AT(Depth, SettlementPrice, 168); AT(Depth, UpperLimitPrice, 176);
AT(Depth, LowerLimitPrice, 184); AT(Depth, PreDelta, 192); AT(Depth, CurrDelta, 200); AT(Depth, UpdateTime, 208);
AT(Depth, UpdateMillisec, 220);
AT(Depth, BidPrice1, 224); AT(Depth, BidVolume1, 232); AT(Depth, AskPrice1, 240); AT(Depth, AskVolume1, 248);
AT(Depth, BidPrice2, 256); AT(Depth, BidVolume2, 264); AT(Depth, AskPrice2, 272); AT(Depth, AskVolume2, 280);
AT(Depth, BidPrice3, 288); AT(Depth, BidVolume3, 296); AT(Depth, AskPrice3, 304); AT(Depth, AskVolume3, 312);
AT(Depth, BidPrice4, 320); AT(Depth, BidVolume4, 328); AT(Depth, AskPrice4, 336); AT(Depth, AskVolume4, 344);
AT(Depth, BidPrice5, 352); AT(Depth, BidVolume5, 360); AT(Depth, AskPrice5, 368); AT(Depth, AskVolume5, 376);
AT(Depth, AveragePrice, 384); AT(Depth, ActionDay, 392);
static_assert(sizeof(Depth::Volume) == 8 && sizeof(Depth::BidVolume1) == 4, "depth widths");

using Inst = COrvexWiraInstrumentField;
static_assert(sizeof(Inst) == 232, "instrument record");
AT(Inst, InstrumentID, 0); AT(Inst, ExchangeID, 31); AT(Inst, InstrumentName, 40); AT(Inst, ExchangeInstID, 61);
AT(Inst, VolumeMultiple, 148); AT(Inst, Number13, 152); AT(Inst, Text4, 169); AT(Inst, Text5, 178);
AT(Inst, Text2017, 187); AT(Inst, Text2018, 196);

using Login = COrvexWiraRspUserLoginField;
static_assert(sizeof(Login) == 148, "login answer");
AT(Login, TradingDay, 0); AT(Login, LoginTime, 9); AT(Login, BrokerID, 18); AT(Login, UserID, 29);
AT(Login, SystemName, 45); AT(Login, FrontID, 88); AT(Login, LinkID, 92); AT(Login, MaxOrderRef, 96);
AT(Login, SHFETime, 109); AT(Login, DCETime, 118); AT(Login, CZCETime, 127); AT(Login, FFEXTime, 136);

using Req = COrvexWiraReqUserLoginField;
static_assert(sizeof(Req) == 188, "login request");
AT(Req, TradingDay, 0); AT(Req, BrokerID, 9); AT(Req, UserID, 20); AT(Req, Password, 36);

static_assert(sizeof(COrvexWiraRspInfoField) == 88, "info record");
AT(COrvexWiraRspInfoField, ErrorID, 0); AT(COrvexWiraRspInfoField, ErrorMsg, 4);
static_assert(sizeof(COrvexWiraRspInfoField::ErrorMsg) == 81, "message width");

using Qry = COrvexWiraQryInstrumentField;
static_assert(sizeof(Qry) == 102, "query record");
AT(Qry, InstrumentID, 0); AT(Qry, ExchangeID, 31); AT(Qry, ExchangeInstID, 40); AT(Qry, ProductID, 71);

using Status = COrvexWiraMarketStatusField;
AT(Status, ExchangeID, 0); AT(Status, TradingDay, 9); AT(Status, SecondDay, 18); AT(Status, UpdateTime, 27);
AT(Status, MarketStatus, 36);

// Neither interface class may carry data or a virtual destructor: the first
// virtual slot is at the very start of the table.
static_assert(sizeof(COrvexWiraMdApi) == sizeof(void*), "API class holds only its table pointer");
static_assert(sizeof(COrvexWiraMdSpi) == sizeof(void*), "callback class holds only its table pointer");
static_assert(!std::has_virtual_destructor<COrvexWiraMdApi>::value, "no virtual destructor");
static_assert(!std::has_virtual_destructor<COrvexWiraMdSpi>::value, "no virtual destructor");

namespace {

// Under the Itanium C++ ABI a pointer to a virtual member function holds
// 1 + the byte offset of its slot in the virtual table.
template <class F>
long SlotOf(F f) {
    long raw;
    static_assert(sizeof(F) >= sizeof(long), "member pointer");
    std::memcpy(&raw, &f, sizeof(raw));
    return (raw - 1) / static_cast<long>(sizeof(void*));
}

TEST(AbiSlots, ApiOperationsSitInTheirSlots) {
    EXPECT_EQ(0, SlotOf(&COrvexWiraMdApi::Release));
    EXPECT_EQ(1, SlotOf(&COrvexWiraMdApi::Init));
    EXPECT_EQ(2, SlotOf(&COrvexWiraMdApi::Join));
    EXPECT_EQ(3, SlotOf(&COrvexWiraMdApi::GetTradingDay));
    EXPECT_EQ(4, SlotOf(&COrvexWiraMdApi::RegisterFront));
    EXPECT_EQ(5, SlotOf(&COrvexWiraMdApi::RegisterNameServer));
    EXPECT_EQ(6, SlotOf(&COrvexWiraMdApi::RegisterFensUserInfo));
    EXPECT_EQ(7, SlotOf(&COrvexWiraMdApi::RegisterSpi));
    EXPECT_EQ(8, SlotOf(&COrvexWiraMdApi::SubscribeMarketData));
    EXPECT_EQ(9, SlotOf(&COrvexWiraMdApi::UnSubscribeMarketData));
    EXPECT_EQ(10, SlotOf(&COrvexWiraMdApi::ReqUserLogin));
    EXPECT_EQ(11, SlotOf(&COrvexWiraMdApi::ReqUserLogout));
    EXPECT_EQ(12, SlotOf(&COrvexWiraMdApi::ReqQryInstrument));
}

TEST(AbiSlots, CallbacksSitInTheirSlots) {
    EXPECT_EQ(0, SlotOf(&COrvexWiraMdSpi::OnFrontLinked));
    EXPECT_EQ(1, SlotOf(&COrvexWiraMdSpi::OnFrontLost));
    EXPECT_EQ(2, SlotOf(&COrvexWiraMdSpi::OnHeartBeatWarning));
    EXPECT_EQ(3, SlotOf(&COrvexWiraMdSpi::OnLoginAnswer));
    EXPECT_EQ(4, SlotOf(&COrvexWiraMdSpi::OnLogoutAnswer));
    EXPECT_EQ(5, SlotOf(&COrvexWiraMdSpi::OnErrorAnswer));
    EXPECT_EQ(6, SlotOf(&COrvexWiraMdSpi::OnSubscribeAnswer));
    EXPECT_EQ(7, SlotOf(&COrvexWiraMdSpi::OnUnSubscribeAnswer));
    EXPECT_EQ(8, SlotOf(&COrvexWiraMdSpi::OnInstrumentAnswer));
    EXPECT_EQ(9, SlotOf(&COrvexWiraMdSpi::OnDepthMarketData));
    EXPECT_EQ(10, SlotOf(&COrvexWiraMdSpi::OnStatusChange));
    EXPECT_EQ(11, SlotOf(&COrvexWiraMdSpi::OnExtraRecord));
    EXPECT_EQ(12, SlotOf(&COrvexWiraMdSpi::OnTemplateData));
}

// Calls through the library's own object reach the operations the slots
// name: a misplaced slot would return something else or crash.
TEST(AbiLibrary, FactoryObjectAnswersThroughItsSlots) {
    COrvexWiraMdApi* viaC = CreateWiraMdApi(nullptr, false, false, false);
    COrvexWiraMdApi* viaMember = COrvexWiraMdApi::CreateWiraMdApi("", false, false, true);
    ASSERT_NE(nullptr, viaC);
    ASSERT_NE(nullptr, viaMember);
    EXPECT_STREQ("", viaC->GetTradingDay());
    EXPECT_EQ(0, viaC->Join());
    EXPECT_EQ(0, viaC->ReqUserLogout(nullptr, 7));
    EXPECT_EQ(-1, viaC->ReqQryInstrument(nullptr, 7));
    EXPECT_EQ(-1, viaC->ReqUserLogin(nullptr, 7));
    char* none[] = {nullptr};
    EXPECT_EQ(0, viaC->SubscribeMarketData(none, 0));
    EXPECT_EQ(0, viaC->UnSubscribeMarketData(none, 0));
    viaC->Release();
    viaMember->Release();
}

}  // namespace
