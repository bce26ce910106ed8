// Market status answers (markets, exchanges, main markets, login
// completion) and name tables (instruments of a market).
#include <set>
#include <tuple>
#include <utility>

#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

MarketStatusRow Row(uint16_t id, uint32_t day = 20240102, uint8_t status = 1, uint32_t secondDay = 20240102,
                    uint32_t timeWord = 93000500) {
    return {id, day, status, 9, secondDay, timeWord};
}

std::vector<uint16_t> MarketIds(CQxExchange* e) {
    std::vector<uint16_t> ids;
    for (CQxMarket* m : e->markets) ids.push_back(m->marketId);
    return ids;
}

// Copies of C strings, so that several text fields are compared in one check.
std::vector<std::string> Texts(std::initializer_list<const char*> texts) { return {texts.begin(), texts.end()}; }

}  // namespace

// ---- market status ----

class MarketStatusTest : public HandlerTest {
protected:
    // The requests asked for since the last call: command and market (0: all).
    std::vector<std::pair<int, int>> Requests() { return host.TakeRequests(); }
    // Grants every market, the way a missing access file does.
    void AllAccess() {
        engine->UseAccess([](CFamilyAccess& a) { a.allAccess = true; });
    }
};

TEST_F(MarketStatusTest, KnownIdsUseTheBuiltInExchangeOthersTheConfiguration) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[EXCHANGE]\n5001=XSGE\n2301=WRONG\n[BRCODE]\nXSGE=1\n");
    MakeEngine();
    Status({Row(2301), Row(5000), Row(5001)});

    EXPECT_EQ(Texts({engine->FindMarket(2301)->exchangeCode, engine->FindMarket(5000)->exchangeCode,
                     engine->FindMarket(5001)->exchangeCode}),
              (std::vector<std::string>{"CFFEX", "5000", "XSGE"}));
    EXPECT_FALSE(engine->FindMarket(2301)->UseExchangeCode);
    EXPECT_TRUE(engine->FindMarket(5001)->UseExchangeCode);
    ASSERT_NE(engine->FindExchange("XSGE"), nullptr);
    EXPECT_EQ(MarketIds(engine->FindExchange("XSGE")), std::vector<uint16_t>{5001});
    EXPECT_EQ(engine->OfferedMarkets(), (std::set<unsigned short>{2301, 5000, 5001}));
}

TEST_F(MarketStatusTest, DomesticExchangesTakeEveryCodeFromTheConfigurationAndChooseNoMainMarket) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[EXCHANGE]\n2000=SHFE\n2001=SHFE\n");
    MakeEngine(With([](MdEngineSettings& s) { s.domesticExchanges = true; }));
    AllAccess();   // the path that would choose main markets
    Status({Row(2000), Row(2001), Row(2301)});

    EXPECT_STREQ(engine->FindMarket(2301)->exchangeCode, "2301");
    ASSERT_NE(engine->FindExchange("SHFE"), nullptr);
    EXPECT_EQ(MarketIds(engine->FindExchange("SHFE")), (std::vector<uint16_t>{2000, 2001}));
    EXPECT_EQ(engine->FindExchange("SHFE")->GetMainMarket()->marketId, 2000);
    EXPECT_EQ(engine->PreferredMarket(0), 2001u);
    EXPECT_EQ(host.saves, 1);
}

TEST_F(MarketStatusTest, ChangedAccessListChoosesPreferredMainMarketsAndIsSaved) {
    AllAccess();
    Status({Row(2000), Row(2001), Row(2011), Row(2100)});

    EXPECT_EQ(engine->FindExchange("SHFE")->GetMainMarket()->marketId, 2011);
    EXPECT_EQ(engine->FindExchange("DCE")->GetMainMarket()->marketId, 2100);
    EXPECT_EQ(engine->PreferredMarket(0), 2011u);
    EXPECT_EQ(engine->PreferredMarket(1), 2100u);

    // Each offered id takes two slots: the id, then a zero id with all groups.
    // (The wire records are packed: copy the fields out before comparing.)
    CFamilyAccess access;
    engine->UseAccess([&](CFamilyAccess& a) { access = a; });
    const QxFamilyAccess* list = access.familyAccess;
    auto entry = [&](int i) { return std::make_pair(int{list[i].Family}, int{list[i].Groups}); };
    const int ids[4] = {2000, 2001, 2011, 2100};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(entry(2 * i), std::make_pair(ids[i], 0)) << i;
        EXPECT_EQ(entry(2 * i + 1), std::make_pair(0, -1)) << i;
    }
    EXPECT_EQ(entry(8), std::make_pair(0, 0));
    EXPECT_EQ(std::memcmp(access.familyAccess, access.savedFamilyAccess, sizeof(access.familyAccess)), 0);
    EXPECT_EQ(host.saves, 1);
}

TEST_F(MarketStatusTest, UnchangedAccessListKeepsTheFirstMarketAsMainTheTradingDayIsThePreferredOnes) {
    Status({Row(2000, 20240101), Row(2001, 20240102), Row(2101, 20240103)});
    EXPECT_EQ(engine->FindExchange("SHFE")->GetMainMarket()->marketId, 2000);
    EXPECT_EQ(host.saves, 0);
    // The trading day text comes from the preferred SHFE market.
    EXPECT_STREQ(engine->TradingDay(), "20240102");
}

TEST_F(MarketStatusTest, SplitAnswerCompletesTheLoginAfterItsLastPacket) {
    // The login answer lists the markets: the model is rebuilt and the
    // status asked for; its code and message are repeated at completion.
    host.requestIds[5] = 77;
    std::string answer = LoginAnswerBody(5, 0, {2001, 2101, 5000}, "welcome");
    engine->ProcessLoginRsp(answer.data(), static_cast<int>(answer.size()));
    EXPECT_EQ(Requests(), (std::vector<std::pair<int, int>>{{kCmdSubscribeDynainfo, -1}, {kCmdMarketStatus, 0}}));

    std::string first = MarketStatusBody(3, 0, {Row(2001, 20240102, 1, 20240102, 93000500), Row(2101, 20240103, 2)});
    engine->ProcessMkStatusRsp(first.data(), static_cast<int>(first.size()));
    EXPECT_TRUE(spi.Events().empty());
    EXPECT_TRUE(Requests().empty());

    std::string second = MarketStatusBody(3, 2, {Row(5000, 20240104, 0, 20240101, 150000000)});
    engine->ProcessMkStatusRsp(second.data(), static_cast<int>(second.size()));
    // Exchanges in key order, each with the '*' of a completed login.
    ASSERT_EQ(spi.Events(), (std::vector<std::string>{"login:0", "status:5000:*", "status:DCE:*", "status:SHFE:*"}));
    const LoginAnswer& login = spi.logins[0];
    EXPECT_EQ(std::make_tuple(login.requestId, login.isLast, login.info.ErrorID), std::make_tuple(77, true, 0));
    EXPECT_EQ(Texts({login.info.ErrorMsg, login.rsp.SystemName}), (std::vector<std::string>{"welcome", "QXDC"}));
    // SHFE's trading day, second day and time, then 5000's time and second day.
    const COrvexWiraMarketStatusField& shfe = spi.statuses[2];
    EXPECT_EQ(Texts({shfe.TradingDay, shfe.SecondDay, shfe.UpdateTime, spi.statuses[0].UpdateTime,
                     spi.statuses[0].SecondDay}),
              (std::vector<std::string>{"20240102", "20240102", "09:30:00", "15:00:00", "20240101"}));
    EXPECT_EQ(Requests(), (std::vector<std::pair<int, int>>{{kCmdNameTable, 0}, {kCmdQuotation, 0}}));
}

TEST_F(MarketStatusTest, WithoutCallbackOnlyTheRequestsFollow) {
    engine->SetSpi(nullptr);
    Status({Row(2001)});
    EXPECT_EQ(Requests(), (std::vector<std::pair<int, int>>{{kCmdNameTable, 0}, {kCmdQuotation, 0}}));
    EXPECT_TRUE(spi.Events().empty());
}

TEST_F(MarketStatusTest, RepeatedRowRefreshesTheMarketWithoutAddingItAgain) {
    Status({Row(2001, 20240102, 1, 20240102, 90000000)});
    Status({Row(2001, 20240105, 3, 20240104, 211530250)});
    CQxMarket* m = engine->FindMarket(2001);
    EXPECT_EQ(std::make_tuple(m->tradingDay, int{m->status}, int{m->status2}, m->secondDay, m->timeWord),
              std::make_tuple(20240105u, 3, 9, 20240104u, 211530250u));
    EXPECT_EQ(engine->FindExchange("SHFE")->markets.size(), 1u);
    EXPECT_EQ(spi.Count("login:0"), 2);
}

TEST_F(MarketStatusTest, PacketClaimingMoreRowsThanItHoldsStopsAtItsEnd) {
    std::vector<char> body = Exact(MarketStatusBody(3, 0, {Row(2001), Row(2101)}, 3));
    engine->ProcessMkStatusRsp(body.data(), static_cast<int>(body.size()));
    EXPECT_NE(engine->FindMarket(2001), nullptr);
    EXPECT_NE(engine->FindMarket(2101), nullptr);
    EXPECT_EQ(spi.Count("login:0"), 0);

    std::vector<char> head = Exact(MarketStatusBody(1, 0, {}, 1).substr(0, 7));
    engine->ProcessMkStatusRsp(head.data(), static_cast<int>(head.size()));
    EXPECT_EQ(engine->MarketCount(), 2u);
}

TEST(MarketStatusRecord, StatusCodesMapToTheirCharacters) {
    const std::pair<uint8_t, char> codes[] = {{0, '0'}, {1, '2'}, {3, '2'}, {4, '2'},
                                              {2, '4'}, {5, '6'}, {7, '6'}, {255, '6'}};
    for (const auto& [code, c] : codes) EXPECT_EQ(CMdEngine::StatusChar(code), c) << "code " << int{code};
}

TEST(MarketStatusRecord, OverlongValuesStayInsideTheirFields) {
    COrvexWiraMarketStatusField rec;
    std::memset(&rec, 0x55, sizeof(rec));
    CMdEngine::FillStatusRecord(&rec, "AVERYLONGEXCHANGECODE", 4000000000u, 7, 4294967295u, '2');
    EXPECT_STREQ(rec.ExchangeID, "AVERYLON");
    EXPECT_EQ(rec.TradingDay[8], '\0');
    EXPECT_STREQ(rec.SecondDay, "7");
    EXPECT_EQ(rec.UpdateTime[8], '\0');
    EXPECT_EQ(rec.MarketStatus, '2');
}

TEST_F(MarketStatusTest, LevelAdmitsPlainOrDeepFeedsByTheSetting) {
    // Per group of ids: admitted at level 0, and at the group's other level.
    const struct {
        std::vector<int> ids;
        int otherLevel;
        bool atZero, atOther;
    } groups[] = {{{2000, 2001, 2100, 2101, 2200, 2201, 2300, 2301}, 2, true, false},    // plain feeds
                  {{2010, 2011, 2110, 2111, 2210, 2211, 2310, 2311}, 1, false, true},    // deep feeds
                  {{0, 2002, 2012, 2400, 5000, 65535}, 1, true, true}};                  // neither
    for (const auto& g : groups) {
        MakeEngine();
        for (int id : g.ids) EXPECT_EQ(engine->Level(id), g.atZero) << id;
        MakeEngine(With([&](MdEngineSettings& s) { s.level = g.otherLevel; }));
        for (int id : g.ids) EXPECT_EQ(engine->Level(id), g.atOther) << id << " at level " << g.otherLevel;
    }
}

// ---- name tables ----

class NameTableTest : public HandlerTest {
protected:
    void SetUp() override {
        ScopedTempDir::Write("OrvexWiraMdApi.def", "[BRCODE]\nDCE=1\n");
        MakeEngine();
        Status({Row(2001, 20240102), Row(2101, 20240103)});
    }
};

TEST_F(NameTableTest, RowsBecomeInstrumentsWithTheirDepthRecordPrepared) {
    Names(2001, {{"Copper 2403", "cu2403", "CU2403X", 10, 5, 7}});
    CQxInstrument* inst = Inst(2001, "cu2403");
    ASSERT_NE(inst, nullptr);
    EXPECT_EQ(Texts({inst->exchangeCode, inst->name, inst->depth.TradingDay, inst->depth.InstrumentID,
                     inst->depth.ExchangeID, inst->depth.ExchangeInstID}),
              (std::vector<std::string>{"CU2403X", "Copper 2403", "20240102", "cu2403", "SHFE", "CU2403X"}));
    // Divisor, both attributes, quote date and time.
    EXPECT_EQ(std::make_tuple(inst->priceDivisor, inst->attribute1, inst->attribute2, inst->quoteDate, inst->quoteTime),
              std::make_tuple(10u, uint16_t{5}, uint16_t{7}, 0u, 0u));
    EXPECT_EQ(inst->depth.LastPrice, DBL_MAX);
    EXPECT_EQ(inst->depth.Turnover, 0.0);
    EXPECT_TRUE(engine->FindMarket(2001)->NameTableComplete);
    EXPECT_EQ(engine->FindMarket(2001)->FindInstrumentByID("cu2403"), inst);

    // DCE markets report the exchange's own code (BRCODE).
    Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
    CQxInstrument* soy = Inst(2101, "a2405");
    ASSERT_NE(soy, nullptr);
    EXPECT_EQ(Texts({soy->depth.InstrumentID, soy->depth.TradingDay}), (std::vector<std::string>{"A2405", "20240103"}));
    EXPECT_EQ(engine->FindMarket(2101)->FindInstrumentByID("A2405"), soy);
    EXPECT_EQ(engine->FindMarket(2101)->FindInstrumentByID("a2405"), nullptr);
}

TEST_F(NameTableTest, ByIdMapIsBuiltWhenTheLastPacketArrives) {
    std::string p1 = NameTableBody(2001, 3, 0, {{"A", "cu01", "CU01", 1, 0, 0}, {"B", "cu02", "CU02", 1, 0, 0}});
    std::string p2 = NameTableBody(2001, 3, 2, {{"C", "cu03", "CU03", 1, 0, 0}});
    engine->ProcessNametableRsp(p1.data(), static_cast<int>(p1.size()));
    CQxMarket* m = engine->FindMarket(2001);
    EXPECT_EQ(m->instruments.size(), 2u);
    EXPECT_FALSE(m->NameTableComplete);
    EXPECT_EQ(m->FindInstrumentByID("cu01"), nullptr);

    engine->ProcessNametableRsp(p2.data(), static_cast<int>(p2.size()));
    EXPECT_TRUE(m->NameTableComplete);
    EXPECT_EQ(m->instrumentsById.size(), 3u);
    EXPECT_EQ(m->FindInstrumentByID("cu01"), m->FindInstrument("cu01"));

    Names(2101, {{"first", "a01", "A", 1, 1, 0}, {"second", "a02", "A", 1, 2, 0}});
    CQxInstrument* byId = engine->FindMarket(2101)->FindInstrumentByID("A");
    ASSERT_NE(byId, nullptr);
    EXPECT_STREQ(byId->marketCode, "a02");
}

TEST_F(NameTableTest, TableResentFromRowZeroStartsFromEmpty) {
    Names(2001, {{"A", "cu01", "CU01", 1, 0, 0}, {"B", "cu02", "CU02", 1, 0, 0}});
    Inst(2001, "cu02")->quoteDate = 20240102;
    Names(2001, {{"B", "cu02", "CU02", 1, 0, 0}});
    EXPECT_EQ(Inst(2001, "cu01"), nullptr);
    ASSERT_NE(Inst(2001, "cu02"), nullptr);
    EXPECT_EQ(Inst(2001, "cu02")->quoteDate, 0u);
    EXPECT_EQ(engine->FindMarket(2001)->instrumentsById.size(), 1u);
}

TEST_F(NameTableTest, UnknownMarketIsDropped) {
    Names(4242, {{"X", "x01", "X01", 1, 0, 0}});
    EXPECT_EQ(engine->FindMarket(4242), nullptr);
    EXPECT_TRUE(engine->FindMarket(2001)->instruments.empty());
}

TEST_F(NameTableTest, FullWidthTextsAreTerminated) {
    const std::string name(33, 'n'), code(21, 'c'), exch(22, 'e');
    Names(2001, {{name, code, exch, 1, 0, 0}});
    CQxInstrument* inst = Inst(2001, code.c_str());
    ASSERT_NE(inst, nullptr);
    EXPECT_EQ(Texts({inst->name, inst->exchangeCode, inst->depth.InstrumentID, inst->depth.ExchangeInstID}),
              (std::vector<std::string>{name, exch, code, exch}));
}

TEST_F(NameTableTest, PacketClaimingMoreRowsThanItHoldsStopsAtItsEnd) {
    std::vector<char> body = Exact(NameTableBody(2001, 5, 0, {{"A", "cu01", "CU01", 1, 0, 0}}, 5));
    engine->ProcessNametableRsp(body.data(), static_cast<int>(body.size()));
    EXPECT_NE(Inst(2001, "cu01"), nullptr);
    EXPECT_FALSE(engine->FindMarket(2001)->NameTableComplete);
}
