// Market status answers (markets, exchanges, main markets, login
// completion) and name tables (instruments of a market).
#include <set>

#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

MarketStatusRow Row(uint16_t id, uint32_t day = 20240102, uint8_t status = 1, uint32_t secondDay = 20240102,
                    uint32_t timeWord = 93000500) {
    MarketStatusRow r;
    r.market = id;
    r.tradingDay = day;
    r.status = status;
    r.status2 = 9;
    r.secondDay = secondDay;
    r.timeWord = timeWord;
    return r;
}

std::vector<uint16_t> MarketIds(CQxExchange* e) {
    std::vector<uint16_t> ids;
    for (CQxMarket* m : e->markets) ids.push_back(m->marketId);
    return ids;
}

}  // namespace

// ---- market status ----

class MarketStatusTest : public HandlerTest {};

TEST_F(MarketStatusTest, KnownIdsUseTheBuiltInExchangeOthersTheConfiguration) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[EXCHANGE]\n5001=XSGE\n2301=WRONG\n[BRCODE]\nXSGE=1\n");
    MakeApi(true);
    Status({Row(2301), Row(5000), Row(5001)});

    EXPECT_STREQ(api->FindMarket(2301)->exchangeCode, "CFFEX");
    EXPECT_FALSE(api->FindMarket(2301)->UseExchangeCode);
    EXPECT_STREQ(api->FindMarket(5000)->exchangeCode, "5000");
    EXPECT_STREQ(api->FindMarket(5001)->exchangeCode, "XSGE");
    EXPECT_TRUE(api->FindMarket(5001)->UseExchangeCode);
    ASSERT_NE(api->FindExchange("XSGE"), nullptr);
    EXPECT_EQ(MarketIds(api->FindExchange("XSGE")), std::vector<uint16_t>{5001});
    EXPECT_EQ(api->m_offeredMarkets, (std::set<unsigned short>{2301, 5000, 5001}));
}

TEST_F(MarketStatusTest, DomesticExchangesTakeEveryCodeFromTheConfigurationAndChooseNoMainMarket) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[EXCHANGE]\n2000=SHFE\n2001=SHFE\n");
    MakeApi(true);
    api->m_bDomesticExchanges = true;
    api->m_access.allAccess = true;   // the path that would choose main markets
    Status({Row(2000), Row(2001), Row(2301)});

    EXPECT_STREQ(api->FindMarket(2301)->exchangeCode, "2301");
    ASSERT_NE(api->FindExchange("SHFE"), nullptr);
    EXPECT_EQ(MarketIds(api->FindExchange("SHFE")), (std::vector<uint16_t>{2000, 2001}));
    EXPECT_EQ(api->FindExchange("SHFE")->GetMainMarket()->marketId, 2000);
    EXPECT_EQ(api->m_extraMarket.ids[0], 2001u);
}

TEST_F(MarketStatusTest, ChangedAccessListChoosesPreferredMainMarketsAndIsSaved) {
    api->m_access.allAccess = true;
    Status({Row(2000), Row(2001), Row(2011), Row(2100)});

    EXPECT_EQ(api->FindExchange("SHFE")->GetMainMarket()->marketId, 2011);
    EXPECT_EQ(api->FindExchange("DCE")->GetMainMarket()->marketId, 2100);
    EXPECT_EQ(api->m_extraMarket.ids[0], 2011u);
    EXPECT_EQ(api->m_extraMarket.ids[1], 2100u);

    // Each offered id takes two slots: the id, then a zero id with all groups.
    // (The wire records are packed: copy the fields out before comparing.)
    const QxFamilyAccess* list = api->m_access.familyAccess;
    auto family = [&](int i) { return static_cast<int>(list[i].Family); };
    auto groups = [&](int i) { return static_cast<int>(list[i].Groups); };
    const int ids[4] = {2000, 2001, 2011, 2100};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(family(2 * i), ids[i]) << i;
        EXPECT_EQ(groups(2 * i), 0) << i;
        EXPECT_EQ(family(2 * i + 1), 0) << i;
        EXPECT_EQ(groups(2 * i + 1), -1) << i;
    }
    EXPECT_EQ(family(8), 0);
    EXPECT_EQ(groups(8), 0);
    EXPECT_EQ(std::memcmp(api->m_access.familyAccess, api->m_access.savedFamilyAccess,
                          sizeof(api->m_access.familyAccess)), 0);
    EXPECT_EQ(access("qxmktaccess.xml", F_OK), 0);
}

TEST_F(MarketStatusTest, UnchangedAccessListKeepsTheFirstMarketAsMain) {
    Status({Row(2000), Row(2001)});
    EXPECT_EQ(api->FindExchange("SHFE")->GetMainMarket()->marketId, 2000);
    EXPECT_NE(access("qxmktaccess.xml", F_OK), 0);
}

TEST_F(MarketStatusTest, SplitAnswerCompletesTheLoginAfterItsLastPacket) {
    AttachPeer();
    api->m_nLoginCode = 0;
    std::strcpy(api->m_szLoginMsg, "welcome");
    api->m_nLoginHandle = api->AssignReqHandle(77);

    std::string first = MarketStatusBody(3, 0, {Row(2001, 20240102, 1, 20240102, 93000500), Row(2101, 20240103, 2)});
    api->ProcessMkStatusRsp(first.data(), static_cast<int>(first.size()));
    EXPECT_TRUE(spi.Events().empty());
    EXPECT_TRUE(SentFrames().empty());

    std::string second = MarketStatusBody(3, 2, {Row(5000, 20240104, 0, 20240101, 150000000)});
    api->ProcessMkStatusRsp(second.data(), static_cast<int>(second.size()));

    std::vector<std::string> events = spi.Events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0], "login:0");
    // Exchanges in key order, each with the '*' of a completed login.
    EXPECT_EQ(events[1], "status:5000:*");
    EXPECT_EQ(events[2], "status:DCE:*");
    EXPECT_EQ(events[3], "status:SHFE:*");

    ASSERT_EQ(spi.logins.size(), 1u);
    EXPECT_EQ(spi.logins[0].requestId, 77);
    EXPECT_TRUE(spi.logins[0].isLast);
    EXPECT_EQ(spi.logins[0].info.ErrorID, 0);
    EXPECT_STREQ(spi.logins[0].info.ErrorMsg, "welcome");
    EXPECT_STREQ(spi.logins[0].rsp.SystemName, "QXDC");

    const COrvexWiraMarketStatusField& shfe = spi.statuses[2];
    EXPECT_STREQ(shfe.TradingDay, "20240102");
    EXPECT_STREQ(shfe.SecondDay, "20240102");
    EXPECT_STREQ(shfe.UpdateTime, "09:30:00");
    EXPECT_STREQ(spi.statuses[0].UpdateTime, "15:00:00");
    EXPECT_STREQ(spi.statuses[0].SecondDay, "20240101");

    std::vector<DcFrame> frames = SentFrames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].command, kCmdNameTable);
    EXPECT_EQ(BodyU16(frames[0].body, 2), 0);
    EXPECT_EQ(frames[1].command, kCmdQuotation);
    EXPECT_EQ(BodyU16(frames[1].body, 2), 0);
}

TEST_F(MarketStatusTest, WithoutCallbackOnlyTheRequestsFollow) {
    api->RegisterSpi(nullptr);
    AttachPeer();
    Status({Row(2001)});
    std::vector<DcFrame> frames = SentFrames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].command, kCmdNameTable);
    EXPECT_EQ(frames[1].command, kCmdQuotation);
    EXPECT_TRUE(spi.Events().empty());
}

TEST_F(MarketStatusTest, TradingDayTextComesFromThePreferredShfeMarket) {
    Status({Row(2000, 20240101), Row(2001, 20240102), Row(2101, 20240103)});
    EXPECT_STREQ(api->GetTradingDay(), "20240102");
}

TEST_F(MarketStatusTest, RepeatedRowRefreshesTheMarketWithoutAddingItAgain) {
    Status({Row(2001, 20240102, 1, 20240102, 90000000)});
    Status({Row(2001, 20240105, 3, 20240104, 211530250)});
    CQxMarket* m = api->FindMarket(2001);
    EXPECT_EQ(m->tradingDay, 20240105u);
    EXPECT_EQ(m->status, 3);
    EXPECT_EQ(m->status2, 9);
    EXPECT_EQ(m->secondDay, 20240104u);
    EXPECT_EQ(m->timeWord, 211530250u);
    EXPECT_EQ(api->FindExchange("SHFE")->markets.size(), 1u);
    EXPECT_EQ(spi.Count("login:0"), 2);
}

TEST_F(MarketStatusTest, PacketClaimingMoreRowsThanItHoldsStopsAtItsEnd) {
    std::vector<char> body = Exact(MarketStatusBody(3, 0, {Row(2001), Row(2101)}, 3));
    api->ProcessMkStatusRsp(body.data(), static_cast<int>(body.size()));
    EXPECT_NE(api->FindMarket(2001), nullptr);
    EXPECT_NE(api->FindMarket(2101), nullptr);
    EXPECT_EQ(spi.Count("login:0"), 0);

    std::vector<char> head = Exact(MarketStatusBody(1, 0, {}, 1).substr(0, 7));
    api->ProcessMkStatusRsp(head.data(), static_cast<int>(head.size()));
    EXPECT_EQ(api->m_markets.size(), 2u);
}

TEST(MarketStatusRecord, StatusCodesMapToTheirCharacters) {
    EXPECT_EQ(CDCThread::StatusChar(0), '0');
    EXPECT_EQ(CDCThread::StatusChar(1), '2');
    EXPECT_EQ(CDCThread::StatusChar(3), '2');
    EXPECT_EQ(CDCThread::StatusChar(4), '2');
    EXPECT_EQ(CDCThread::StatusChar(2), '4');
    EXPECT_EQ(CDCThread::StatusChar(5), '6');
    EXPECT_EQ(CDCThread::StatusChar(7), '6');
    EXPECT_EQ(CDCThread::StatusChar(255), '6');
}

TEST(MarketStatusRecord, OverlongValuesStayInsideTheirFields) {
    COrvexWiraMarketStatusField rec;
    std::memset(&rec, 0x55, sizeof(rec));
    CDCThread::FillStatusRecord(&rec, "AVERYLONGEXCHANGECODE", 4000000000u, 7, 4294967295u, '2');
    EXPECT_STREQ(rec.ExchangeID, "AVERYLON");
    EXPECT_EQ(rec.TradingDay[8], '\0');
    EXPECT_STREQ(rec.SecondDay, "7");
    EXPECT_EQ(rec.UpdateTime[8], '\0');
    EXPECT_EQ(rec.MarketStatus, '2');
}

TEST_F(MarketStatusTest, LevelAdmitsPlainOrDeepFeedsByTheSetting) {
    for (int id : {2000, 2001, 2100, 2101, 2200, 2201, 2300, 2301}) {
        api->m_nLevel = 0;
        EXPECT_TRUE(api->Level(id)) << id;
        api->m_nLevel = 2;
        EXPECT_FALSE(api->Level(id)) << id;
    }
    for (int id : {2010, 2011, 2110, 2111, 2210, 2211, 2310, 2311}) {
        api->m_nLevel = 0;
        EXPECT_FALSE(api->Level(id)) << id;
        api->m_nLevel = 1;
        EXPECT_TRUE(api->Level(id)) << id;
    }
    for (int id : {0, 2002, 2012, 2400, 5000, 65535}) {
        api->m_nLevel = 0;
        EXPECT_TRUE(api->Level(id)) << id;
        api->m_nLevel = 1;
        EXPECT_TRUE(api->Level(id)) << id;
    }
}

// ---- name tables ----

class NameTableTest : public HandlerTest {
protected:
    void SetUp() override {
        ScopedTempDir::Write("OrvexWiraMdApi.def", "[BRCODE]\nDCE=1\n");
        MakeApi(true);
        Status({Row(2001, 20240102), Row(2101, 20240103)});
    }
};

TEST_F(NameTableTest, RowsBecomeInstrumentsWithTheirDepthRecordPrepared) {
    Names(2001, {{"Copper 2403", "cu2403", "CU2403X", 10, 5, 7}});
    CQxInstrument* inst = Inst(2001, "cu2403");
    ASSERT_NE(inst, nullptr);
    EXPECT_STREQ(inst->exchangeCode, "CU2403X");
    EXPECT_STREQ(inst->name, "Copper 2403");
    EXPECT_EQ(inst->priceDivisor, 10u);
    EXPECT_EQ(inst->attribute1, 5);
    EXPECT_EQ(inst->attribute2, 7);
    EXPECT_EQ(inst->quoteDate, 0u);
    EXPECT_EQ(inst->quoteTime, 0u);
    EXPECT_STREQ(inst->depth.TradingDay, "20240102");
    EXPECT_STREQ(inst->depth.InstrumentID, "cu2403");
    EXPECT_STREQ(inst->depth.ExchangeID, "SHFE");
    EXPECT_STREQ(inst->depth.ExchangeInstID, "CU2403X");
    EXPECT_EQ(inst->depth.LastPrice, DBL_MAX);
    EXPECT_EQ(inst->depth.Turnover, 0.0);
    EXPECT_TRUE(api->FindMarket(2001)->NameTableComplete);
    EXPECT_EQ(api->FindMarket(2001)->FindInstrumentByID("cu2403"), inst);

    // DCE markets report the exchange's own code (BRCODE).
    Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
    CQxInstrument* soy = Inst(2101, "a2405");
    ASSERT_NE(soy, nullptr);
    EXPECT_STREQ(soy->depth.InstrumentID, "A2405");
    EXPECT_STREQ(soy->depth.TradingDay, "20240103");
    EXPECT_EQ(api->FindMarket(2101)->FindInstrumentByID("A2405"), soy);
    EXPECT_EQ(api->FindMarket(2101)->FindInstrumentByID("a2405"), nullptr);
}

TEST_F(NameTableTest, ByIdMapIsBuiltWhenTheLastPacketArrives) {
    std::string p1 = NameTableBody(2001, 3, 0, {{"A", "cu01", "CU01", 1, 0, 0}, {"B", "cu02", "CU02", 1, 0, 0}});
    std::string p2 = NameTableBody(2001, 3, 2, {{"C", "cu03", "CU03", 1, 0, 0}});
    api->ProcessNametableRsp(p1.data(), static_cast<int>(p1.size()));
    CQxMarket* m = api->FindMarket(2001);
    EXPECT_EQ(m->instruments.size(), 2u);
    EXPECT_FALSE(m->NameTableComplete);
    EXPECT_EQ(m->FindInstrumentByID("cu01"), nullptr);

    api->ProcessNametableRsp(p2.data(), static_cast<int>(p2.size()));
    EXPECT_TRUE(m->NameTableComplete);
    EXPECT_EQ(m->instrumentsById.size(), 3u);
    EXPECT_EQ(m->FindInstrumentByID("cu01"), m->FindInstrument("cu01"));
}

TEST_F(NameTableTest, TableResentFromRowZeroStartsFromEmpty) {
    Names(2001, {{"A", "cu01", "CU01", 1, 0, 0}, {"B", "cu02", "CU02", 1, 0, 0}});
    Inst(2001, "cu02")->quoteDate = 20240102;
    Names(2001, {{"B", "cu02", "CU02", 1, 0, 0}});
    EXPECT_EQ(Inst(2001, "cu01"), nullptr);
    ASSERT_NE(Inst(2001, "cu02"), nullptr);
    EXPECT_EQ(Inst(2001, "cu02")->quoteDate, 0u);
    EXPECT_EQ(api->FindMarket(2001)->instrumentsById.size(), 1u);
}

TEST_F(NameTableTest, LaterInstrumentWithTheSameIdWinsTheByIdMap) {
    Names(2101, {{"first", "a01", "A", 1, 1, 0}, {"second", "a02", "A", 1, 2, 0}});
    CQxInstrument* byId = api->FindMarket(2101)->FindInstrumentByID("A");
    ASSERT_NE(byId, nullptr);
    EXPECT_STREQ(byId->marketCode, "a02");
}

TEST_F(NameTableTest, UnknownMarketIsDropped) {
    Names(4242, {{"X", "x01", "X01", 1, 0, 0}});
    EXPECT_EQ(api->FindMarket(4242), nullptr);
    EXPECT_TRUE(api->FindMarket(2001)->instruments.empty());
}

TEST_F(NameTableTest, FullWidthTextsAreTerminated) {
    const std::string name(33, 'n'), code(21, 'c'), exch(22, 'e');
    Names(2001, {{name, code, exch, 1, 0, 0}});
    CQxInstrument* inst = Inst(2001, code.c_str());
    ASSERT_NE(inst, nullptr);
    EXPECT_EQ(std::string(inst->name), name);
    EXPECT_EQ(std::string(inst->exchangeCode), exch);
    EXPECT_EQ(std::string(inst->depth.InstrumentID), code);
    EXPECT_EQ(std::string(inst->depth.ExchangeInstID), exch);
}

TEST_F(NameTableTest, PacketClaimingMoreRowsThanItHoldsStopsAtItsEnd) {
    std::vector<char> body = Exact(NameTableBody(2001, 5, 0, {{"A", "cu01", "CU01", 1, 0, 0}}, 5));
    api->ProcessNametableRsp(body.data(), static_cast<int>(body.size()));
    EXPECT_NE(Inst(2001, "cu01"), nullptr);
    EXPECT_FALSE(api->FindMarket(2001)->NameTableComplete);
}
