// Dynamic information: status records, the currency test of pushed rows,
// delivery, and the walk over a body's records.
#include <atomic>
#include <cstdlib>
#include <new>

#include "codec/DataPackage.h"
#include "dc/HandlerKit.h"

using namespace orvex_test;

// Every allocation of this test program is counted, so that the steady
// state of the push path can be shown to allocate nothing.
namespace {
std::atomic<long> g_allocations{0};
}

__attribute__((noinline)) void* operator new(std::size_t n) {
    ++g_allocations;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

MarketStatusRow StatusOf(uint16_t id, uint32_t day, uint8_t code, uint32_t secondDay, uint32_t timeWord,
                         uint8_t code2 = 0) {
    MarketStatusRow r;
    r.market = id;
    r.tradingDay = day;
    r.status = code;
    r.status2 = code2;
    r.secondDay = secondDay;
    r.timeWord = timeWord;
    return r;
}

// Longer than any short-string buffer: a temporary string of it would
// allocate.
const char kLongCode[] = "copper2403longcode";

PushedRow At(const char* code, unsigned h, unsigned m, unsigned s, unsigned ms, int32_t last, uint16_t market = 2001,
             uint32_t date = 20240102) {
    PushedRow row(market, code, date, PackQuoteTime(h, m, s, ms));
    row.Price(kPushLast, last);
    return row;
}

}  // namespace

class DynainfoTest : public HandlerTest {
protected:
    void SetUp() override { Build(MdEngineSettings()); }

    // A new engine with these settings and the model of every test.
    void Build(const MdEngineSettings& settings) {
        MakeEngine(settings);
        engine->UseAccess([](CFamilyAccess& a) { a.allAccess = true; });   // main markets follow the preferred ids
        Status({StatusOf(2000, 20240102, 1, 20240102, 93000000), StatusOf(2001, 20240102, 1, 20240102, 93000000),
                StatusOf(2101, 20240102, 1, 20240102, 93000000)});
        Names(2001, {{"Copper", "cu2403", "CU2403", 10, 5, 0},
                     {"Copper 5", "cu2405", "CU2405", 10, 5, 0},
                     {"Long code", kLongCode, "LONGCODE", 10, 5, 0}});
        Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
        spi.events.clear();
        spi.statuses.clear();
        spi.logins.clear();
        host.TakeRequests();
    }
    void BuildWith(void (*change)(MdEngineSettings&)) { Build(With(change)); }

    // Sets the instrument's stored date and time, and the market's clock.
    void Clock(uint32_t instDate, uint32_t instTime, uint32_t marketDay, uint32_t marketTime) {
        CQxInstrument* inst = Inst(2001, "cu2403");
        inst->quoteDate = instDate;
        inst->quoteTime = instTime;
        engine->FindMarket(2001)->secondDay = marketDay;
        engine->FindMarket(2001)->timeWord = marketTime;
    }
};

// ---- status records ----

TEST_F(DynainfoTest, NewTradingDayReplacesTheMarketClockAndReloadsItsNames) {
    Dyna(DynaStatusRecord(1, StatusOf(2101, 20240103, 2, 20240102, 210000000, 4)));
    CQxMarket* m = engine->FindMarket(2101);
    EXPECT_EQ(m->tradingDay, 20240103u);
    EXPECT_EQ(m->secondDay, 20240102u);
    EXPECT_EQ(m->timeWord, 210000000u);
    EXPECT_EQ(m->status, 4);     // the codes are stored crosswise on a new day
    EXPECT_EQ(m->status2, 2);
    EXPECT_FALSE(m->NameTableComplete);
    EXPECT_EQ(host.TakeRequests(), (std::vector<std::pair<int, int>>{{kCmdNameTable, 2101}}));
    ASSERT_EQ(spi.statuses.size(), 1u);
    EXPECT_STREQ(spi.statuses[0].ExchangeID, "DCE");
    EXPECT_STREQ(spi.statuses[0].TradingDay, "20240103");
    EXPECT_STREQ(spi.statuses[0].UpdateTime, "21:00:00");
    EXPECT_EQ(spi.statuses[0].MarketStatus, '4');
}

TEST_F(DynainfoTest, NewTradingDayWithStatusZeroKeepsTheDayAndRequestsNothing) {
    Dyna(DynaStatusRecord(1, StatusOf(2101, 20240103, 0, 20240102, 100000000)));
    CQxMarket* m = engine->FindMarket(2101);
    EXPECT_EQ(m->tradingDay, 20240102u);
    EXPECT_EQ(m->timeWord, 93000000u);
    EXPECT_TRUE(m->NameTableComplete);
    EXPECT_TRUE(host.TakeRequests().empty());
    ASSERT_EQ(spi.statuses.size(), 1u);   // newer than the market, so still reported
    EXPECT_EQ(spi.statuses[0].MarketStatus, '0');
}

TEST_F(DynainfoTest, SameDayRecordsMustBeNewerThanTheMarket) {
    Dyna(DynaStatusRecord(1, StatusOf(2101, 20240102, 3, 20240102, 93000000)));
    Dyna(DynaStatusRecord(2, StatusOf(2101, 20240102, 3, 20240101, 235959000)));
    EXPECT_TRUE(spi.statuses.empty());
    EXPECT_EQ(engine->FindMarket(2101)->status, 1);

    Dyna(DynaStatusRecord(3, StatusOf(2101, 20240102, 3, 20240102, 93000001, 6)));
    CQxMarket* m = engine->FindMarket(2101);
    EXPECT_EQ(m->timeWord, 93000001u);
    EXPECT_EQ(m->status, 3);
    EXPECT_EQ(m->status2, 6);
    ASSERT_EQ(spi.statuses.size(), 1u);
    EXPECT_EQ(spi.statuses[0].MarketStatus, '2');
    EXPECT_EQ(engine->DynainfoSequence(), 3u);
}

TEST_F(DynainfoTest, OnlyTheMainMarketOfAnExchangeIsReported) {
    Dyna(DynaStatusRecord(1, StatusOf(2000, 20240102, 1, 20240102, 100000000)));
    EXPECT_TRUE(spi.statuses.empty());
    EXPECT_EQ(engine->FindMarket(2000)->timeWord, 100000000u);
    Dyna(DynaStatusRecord(2, StatusOf(2001, 20240102, 1, 20240102, 100000000)));
    ASSERT_EQ(spi.statuses.size(), 1u);
    EXPECT_STREQ(spi.statuses[0].ExchangeID, "SHFE");
}

TEST_F(DynainfoTest, TheShfeSlotMarketSetsTheTradingDayText) {
    Dyna(DynaStatusRecord(1, StatusOf(2000, 20240105, 1, 20240104, 210000000)));
    EXPECT_STREQ(engine->TradingDay(), "20240102");
    Dyna(DynaStatusRecord(2, StatusOf(2001, 20240105, 1, 20240104, 210000000)));
    EXPECT_STREQ(engine->TradingDay(), "20240105");
}

// ---- pushed rows: which are current ----

TEST_F(DynainfoTest, RowAheadOfTheMarketOnTheSameDayIsAccepted) {
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 30, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(spi.depths[0].LastPrice, 70030.0);
    CQxInstrument* inst = Inst(2001, "cu2403");
    EXPECT_EQ(inst->quoteDate, 20240102u);
    EXPECT_EQ(inst->quoteTime, 93030000u);
    EXPECT_EQ(inst->pushedDate, 20240102u);
    EXPECT_STREQ(spi.depths[0].ActionDay, "20240102");
}

TEST_F(DynainfoTest, RowBehindTheInstrumentIsFilteredWithALogLine) {
    BuildWith([](MdEngineSettings& s) { s.log = true; });
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 29, 59, 999, 700300)));
    EXPECT_TRUE(spi.depths.empty());
    EXPECT_EQ(Inst(2001, "cu2403")->quoteTime, 93000000u);
    EXPECT_NE(LogText().find("Filter:cu2403,QT:92959999,MD:20240102,MT:93000000,DD:20240102,DT:93000000"),
              std::string::npos);
}

TEST_F(DynainfoTest, RowAfterMidnightMovesTheInstrumentToTheNextDay) {
    Clock(20240102, 235900000, 20240103, 1000);
    Dyna(DynaPushRecord(1, At("cu2403", 0, 0, 5, 0, 700300, 2001, 20240103)));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_STREQ(spi.depths[0].ActionDay, "20240103");
    EXPECT_EQ(Inst(2001, "cu2403")->quoteDate, 20240103u);
    EXPECT_EQ(Inst(2001, "cu2403")->quoteTime, 5000u);
}

TEST_F(DynainfoTest, RowAcrossAMonthEndAndAfterAnIdleWeekStepsDayByDay) {
    Clock(20240125, 150000000, 20240201, 90000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 0, 1, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(Inst(2001, "cu2403")->quoteDate, 20240201u);
}

TEST_F(DynainfoTest, RowFarAheadOfTheMarketIsStale) {
    // 17 hours ahead of the market's clock: a row of the previous session.
    Clock(20240102, 10000000, 20240102, 10000000);
    Dyna(DynaPushRecord(1, At("cu2403", 18, 0, 0, 0, 700300)));
    EXPECT_TRUE(spi.depths.empty());
}

TEST_F(DynainfoTest, StaleTestFollowsAMarketClockMovedByAStatusRecord) {
    // 18:30 is 17.5 hours after 01:00 (stale) but 16.5 hours after 02:00
    // (current): the second row must be measured against the moved clock.
    Clock(20240102, 10000000, 20240102, 10000000);
    Dyna(DynaPushRecord(1, At("cu2403", 18, 30, 0, 0, 700300)));
    EXPECT_TRUE(spi.depths.empty());
    Dyna(DynaStatusRecord(2, StatusOf(2001, 20240102, 1, 20240102, 20000000)) +
         DynaPushRecord(3, At("cu2403", 18, 30, 0, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_STREQ(spi.depths[0].UpdateTime, "18:30:00");
}

TEST_F(DynainfoTest, LevelAdmitsPlainOrDeepIdsOfEachExchangeGroup) {
    const int plain[] = {2000, 2001, 2100, 2101, 2200, 2201, 2300, 2301};
    const int deep[] = {2010, 2011, 2110, 2111, 2210, 2211, 2310, 2311};
    const int other[] = {-1, 0, 1999, 2002, 2009, 2012, 2099, 2102, 2399, 2400, 2401, 2410, 2411, 65535};
    for (int level : {0, 1, 2}) {
        MakeEngine(With([level](MdEngineSettings& s) { s.level = level; }));
        for (int id : plain) EXPECT_EQ(level == 0, engine->Level(id)) << id << " at level " << level;
        for (int id : deep) EXPECT_EQ(level != 0, engine->Level(id)) << id << " at level " << level;
        for (int id : other) EXPECT_TRUE(engine->Level(id)) << id << " at level " << level;
    }
}

TEST_F(DynainfoTest, RebuiltMarketListIsLookedUpAfresh) {
    // A row of market 2001 makes it the remembered market; a login answer
    // whose list no longer holds it empties the market map, and the next
    // row for 2001 finds no market.
    BuildWith([](MdEngineSettings& s) { s.log = true; });
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 1u);
    ASSERT_NE(engine->FindMarket(2001), nullptr);
    std::string answer = LoginAnswerBody(1, 0, {2101});
    engine->ProcessLoginRsp(answer.data(), static_cast<int>(answer.size()));
    EXPECT_EQ(engine->FindMarket(2001), nullptr);
    Dyna(DynaPushRecord(2, At("cu2403", 9, 30, 2, 0, 700300)));
    EXPECT_EQ(spi.depths.size(), 1u);
    EXPECT_NE(LogText().find("Can not find Family:cu2403"), std::string::npos);
}

TEST_F(DynainfoTest, CodesOfEveryLengthUpToTheFullFieldFindTheirInstrument) {
    // The row's code field is 21 bytes: codes shorter than it end at a NUL,
    // a 21-character code fills it without one.
    const std::vector<std::string> codes = {"a", "abcdefghijklmno", "abcdefghijklmnop", "abcdefghijklmnopq",
                                            "abcdefghijklmnopqrst", "abcdefghijklmnopqrstu"};
    std::vector<NameRow> rows;
    for (const std::string& c : codes) rows.push_back({"N", c, "X" + c.substr(0, 20), 10, 1, 0});
    Names(2000, rows);
    engine->FindMarket(2000)->secondDay = 20240102;
    engine->FindMarket(2000)->timeWord = 93000000;
    std::string body;
    for (size_t i = 0; i < codes.size(); ++i) {
        const unsigned ms = static_cast<unsigned>(i);
        body += DynaPushRecord(ms, At(codes[i].c_str(), 9, 30, 1, ms, 700300, 2000));
    }
    Dyna(body);
    ASSERT_EQ(spi.depths.size(), codes.size());
    for (size_t i = 0; i < codes.size(); ++i) {
        const CQxInstrument* inst = Inst(2000, codes[i].c_str());
        ASSERT_NE(inst, nullptr) << codes[i];
        EXPECT_EQ(inst->quoteTime, 93001000u + i) << codes[i];
    }
}

TEST_F(DynainfoTest, NeverDatedInstrumentStartsFromTheMarketClock) {
    Clock(0, 0, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 29, 0, 0, 700300)));
    EXPECT_TRUE(spi.depths.empty());
    EXPECT_EQ(Inst(2001, "cu2403")->quoteDate, 20240102u);
    EXPECT_EQ(Inst(2001, "cu2403")->quoteTime, 93000000u);

    Dyna(DynaPushRecord(2, At("cu2403", 9, 30, 1, 0, 700300)));
    EXPECT_EQ(spi.depths.size(), 1u);
}

// ---- pushed rows: delivery ----

TEST_F(DynainfoTest, SubscriptionModeFiltersPushes) {
    BuildWith([](MdEngineSettings& s) { s.subscribe = true; });
    Clock(20240102, 93000000, 20240102, 93000000);
    engine->FindExchange("SHFE")->subscribed.insert("cu2405");
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300)) + DynaPushRecord(2, At("cu2405", 9, 30, 1, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_STREQ(spi.depths[0].InstrumentID, "cu2405");

    engine->FindExchange("SHFE")->WholeExchange = true;
    Dyna(DynaPushRecord(3, At("cu2403", 9, 30, 2, 0, 700300)));
    EXPECT_EQ(spi.depths.size(), 2u);
}

TEST_F(DynainfoTest, DeltaModeDeliversEveryAcceptedRowWithItsChangeMarks) {
    BuildWith([](MdEngineSettings& s) { s.deltaQuot = true; });
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 0)));   // raw quote is all zero: unchanged
    Dyna(DynaPushRecord(2, At("cu2403", 9, 30, 2, 0, 700300)));
    ASSERT_EQ(spi.depths.size(), 2u);
    EXPECT_EQ(spi.depths[0].LastPrice, DBL_MAX);
    EXPECT_EQ(spi.depths[0].BidVolume1, 0x7FFFFFFF);
    EXPECT_EQ(spi.depths[1].LastPrice, 70030.0);
}

TEST_F(DynainfoTest, LevelUnknownMarketsAndInstrumentsAreSkipped) {
    BuildWith([](MdEngineSettings& s) {
        s.log = true;
        s.level = 1;
    });
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300)));
    EXPECT_TRUE(spi.depths.empty());
    BuildWith([](MdEngineSettings& s) { s.log = true; });
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaPushRecord(2, At("zz01", 9, 30, 1, 0, 1, 4242)) + DynaPushRecord(3, At("zz02", 9, 30, 1, 0, 1)) +
         DynaPushRecord(4, At("cu2403", 9, 30, 1, 0, 700300)));
    EXPECT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(engine->DynainfoSequence(), 4u);
    const std::string log = LogText();
    EXPECT_NE(log.find("Can not find Family:zz01"), std::string::npos);
    EXPECT_NE(log.find("Can not find Instrument:zz02"), std::string::npos);
}

// The instruments of a body's rows are looked up ahead of applying them:
// every row must still meet its own instrument, whatever records lie in
// between (status records, templates, unknown types, pushed records too
// short to be rows, rows of unknown markets and instruments, rows of other
// markets), and past the rows looked up ahead.
TEST_F(DynainfoTest, LongMixedBodyDeliversEveryRowToItsOwnInstrumentInOrder) {
    Clock(20240102, 93000000, 20240102, 93000000);
    struct Expected {
        std::string id;
        double last;
    };
    std::vector<Expected> expected;
    std::string body;
    uint32_t sequence = 1;
    const char* codes[] = {"cu2403", "cu2405", "a2405", "zz01", kLongCode};
    for (int i = 0; i < 150; ++i) {
        const int32_t last = 700000 + i;
        const int pick = i % 5;
        const uint16_t market = pick == 2 ? 2101 : 2001;
        body += DynaPushRecord(sequence++, At(codes[pick], 9, 30, 1, 0, last, market));
        if (pick == 0) expected.push_back({"cu2403", last / 10.0});
        if (pick == 1) expected.push_back({"cu2405", last / 10.0});
        if (pick == 2) expected.push_back({"a2405", static_cast<double>(last)});
        if (pick == 4) expected.push_back({kLongCode, last / 10.0});
        if (i % 7 == 0) body += DynaRecord(sequence++, kDynaPush, std::string(20, 'x'));   // too short: skipped
        if (i % 11 == 0) body += DynaPushRecord(sequence++, At("cu2403", 9, 30, 1, 0, 1, 4242));   // no such market
        if (i % 13 == 0) body += DynaRecord(sequence++, 9, "whatever");
        if (i % 17 == 0) body += DynaStatusRecord(sequence++, StatusOf(2101, 20240102, 2, 20240102, 93000000 + i));
    }
    Dyna(body);
    ASSERT_EQ(spi.depths.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) {
        EXPECT_EQ(expected[k].id, spi.depths[k].InstrumentID) << "row " << k;
        EXPECT_EQ(expected[k].last, spi.depths[k].LastPrice) << "row " << k;
    }
    EXPECT_EQ(engine->DynainfoSequence(), sequence - 1);
}

TEST_F(DynainfoTest, WithoutCallbackObjectTheModelIsStillKeptCurrent) {
    Clock(20240102, 93000000, 20240102, 93000000);
    engine->SetSpi(nullptr);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300)) +
         DynaStatusRecord(2, StatusOf(2001, 20240102, 2, 20240102, 100000000)));
    EXPECT_EQ(Inst(2001, "cu2403")->depth.LastPrice, 70030.0);
    EXPECT_EQ(engine->FindMarket(2001)->status, 2);
    EXPECT_TRUE(spi.Events().empty());
}

TEST_F(DynainfoTest, SteadyStatePushesAndStatusRecordsAllocateNothing) {
    struct CountingSpi : COrvexWiraMdSpi {
        void OnDepthMarketData(COrvexWiraDepthMarketDataField*) override { ++depths; }
        void OnStatusChange(COrvexWiraMarketStatusField*) override { ++statuses; }
        int depths = 0;
        int statuses = 0;
    } counting;
    std::vector<std::string> bodies;
    for (unsigned i = 0; i <= 200; ++i) {
        PushedRow row = At(kLongCode, 10, i / 60, i % 60, 0, 700000 + static_cast<int32_t>(i));
        row.Volume(i).Bid(1, 700000, i).Ask(1, 700010, i);
        bodies.push_back(DynaPushRecord(i, row) +
                         DynaStatusRecord(i, StatusOf(2001, 20240102, 1, 20240102, 100000000 + i)));
    }
    for (bool delta : {false, true}) {
        Build(With([delta](MdEngineSettings& s) {
            s.subscribe = true;
            s.deltaQuot = delta;
        }));
        engine->SetSpi(&counting);
        engine->CheckSubscribeInfo({std::string(kLongCode) + ".SHFE"});
        Inst(2001, kLongCode)->quoteDate = 20240102;
        Inst(2001, kLongCode)->quoteTime = 93000000;
        Dyna(bodies[0]);   // warm-up
        const long before = g_allocations.load();
        for (size_t i = 1; i < bodies.size(); ++i)
            engine->ProcessDynainfo(bodies[i].data(), static_cast<unsigned>(bodies[i].size()));
        EXPECT_EQ(g_allocations.load() - before, 0) << (delta ? "delta" : "full");
    }
    EXPECT_EQ(counting.depths, 402);
    EXPECT_EQ(counting.statuses, 402);
    engine->SetSpi(&spi);
}

// ---- the walk ----

TEST_F(DynainfoTest, PackagesWithoutTemplateAndUnknownTypesAreSkippedAndTheWalkGoesOn) {
    Clock(20240102, 93000000, 20240102, 93000000);
    Dyna(DynaTemplateRecord(1, 512, "\x01\x02\x03") + DynaRecord(2, 9, "whatever") + DynaRecord(3, kDynaTemplate, "") +
         DynaPushRecord(4, At("cu2403", 9, 30, 1, 0, 700300)));
    EXPECT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(engine->DynainfoSequence(), 4u);
}

// Template packages with a template table: 310 has an int32, the market id
// (id 11, shown as text) and an int32 price; 311 has one text.
class TemplateDynainfoTest : public DynainfoTest {
protected:
    void SetUp() override {
        ScopedTempDir::Write("templates.xml", R"(<qxpackets>
  <qxpacket id="310"><int32 id="1"/><int16 id="11"/><int32 id="2" price="1"/></qxpacket>
  <qxpacket id="311" mask="0"><string id="3" maxlen="4"/></qxpacket>
</qxpackets>)");
        ASSERT_TRUE(LoadPackageTemplate("templates.xml"));
        DynainfoTest::SetUp();
    }
    void TearDown() override {
        LoadPackageTemplate("");   // an empty table for the tests that follow
        DynainfoTest::TearDown();
    }
    // Body of 310: mask of one byte, then the fields the mask names.
    static std::string Package310(uint8_t mask, const std::string& fields) {
        std::string b("\x36\x01\x01", 3);
        b += static_cast<char>(mask);
        return b + fields;
    }
    template <class T>
    static T Slot(const std::string& bytes, size_t offset) {
        T v;
        std::memcpy(&v, bytes.data() + offset, sizeof v);
        return v;
    }
};

TEST_F(TemplateDynainfoTest, PackagesWithATemplateArriveAsRecordsInTheirPlace) {
    Clock(20240102, 93000000, 20240102, 93000000);
    const std::string fields = std::string("\x07\x00\x00\x00", 4) + std::string("\xD1\x07", 2) +
                               std::string("\x2A\x00\x00\x00", 4);
    Dyna(DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300)) + DynaTemplateRecord(2, 77, Package310(0xE0, fields)) +
         DynaTemplateRecord(3, 0, std::string("\x37\x01" "abcdefg\0", 10)) +
         DynaTemplateRecord(4, 0, std::string("\x99\x09\x01\x02", 4)) +   // no template: skipped
         DynaPushRecord(5, At("cu2403", 9, 30, 2, 0, 700400)));
    EXPECT_EQ(spi.Events(),
              (std::vector<std::string>{"depth:cu2403", "template:310", "template:311", "depth:cu2403"}));
    ASSERT_EQ(spi.templates.size(), 2u);
    const std::string& r = spi.templates[0].bytes;
    ASSERT_EQ(r.size(), 4u + 9u + 8u);
    EXPECT_EQ(Slot<int32_t>(r, 0), 7);
    EXPECT_EQ(std::string(r.c_str() + 4), "SHFE");   // market 2001's exchange
    EXPECT_EQ(Slot<double>(r, 13), 42.0);
    EXPECT_EQ(spi.templates[1].bytes, std::string("abcd\0", 5));
    EXPECT_EQ(engine->DynainfoSequence(), 5u);
}

TEST_F(TemplateDynainfoTest, AbsentFieldsShortBodiesAndUnknownMarketsKeepTheirMarks) {
    // Only the first field; then a body cut inside the second.
    Dyna(DynaTemplateRecord(1, 0, Package310(0x80, std::string("\x05\x00\x00\x00", 4))) +
         DynaTemplateRecord(2, 0, Package310(0xE0, std::string("\x05\x00\x00\x00\x39", 5))) +
         DynaTemplateRecord(3, 0, Package310(0x40, std::string("\x39\x30", 2))));
    ASSERT_EQ(spi.templates.size(), 3u);
    for (int i = 0; i < 2; ++i) {
        const std::string& r = spi.templates[i].bytes;
        EXPECT_EQ(Slot<int32_t>(r, 0), 5) << i;
        EXPECT_EQ(r[4], '\0') << i;
        EXPECT_EQ(Slot<double>(r, 13), DBL_MAX) << i;
    }
    // A market the model does not know is named by its number.
    EXPECT_EQ(std::string(spi.templates[2].bytes.c_str() + 4), "12345");
    EXPECT_EQ(Slot<int32_t>(spi.templates[2].bytes, 0), 0x7FFFFFFF);
}

TEST_F(TemplateDynainfoTest, WithoutCallbackObjectNothingIsBuilt) {
    engine->SetSpi(nullptr);
    Dyna(DynaTemplateRecord(1, 0, Package310(0x80, std::string("\x05\x00\x00\x00", 4))));
    EXPECT_EQ(engine->DynainfoSequence(), 1u);
    EXPECT_TRUE(spi.templates.empty());
}

TEST_F(DynainfoTest, RecordRunningPastTheBodyEndsTheWalk) {
    Clock(20240102, 93000000, 20240102, 93000000);
    std::string good = DynaPushRecord(1, At("cu2403", 9, 30, 1, 0, 700300));
    std::string push = At("cu2405", 9, 30, 1, 0, 700300).Encode();
    std::string bad = DynaRecord(2, kDynaPush, push, static_cast<int>(push.size()) + 1);
    std::vector<char> body = Exact(good + bad);
    engine->ProcessDynainfo(body.data(), static_cast<unsigned>(body.size()));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_STREQ(spi.depths[0].InstrumentID, "cu2403");
    EXPECT_EQ(engine->DynainfoSequence(), 1u);

    // A record head cut short, and records too short for what they are.
    std::vector<char> cut = Exact(good + std::string("\x05\x00\x00", 3));
    engine->ProcessDynainfo(cut.data(), static_cast<unsigned>(cut.size()));
    std::vector<char> tiny = Exact(DynaRecord(7, kDynaStatus, std::string(15, '\0')) +
                                   DynaRecord(8, kDynaPush, push.substr(0, 38)));
    engine->ProcessDynainfo(tiny.data(), static_cast<unsigned>(tiny.size()));
    EXPECT_EQ(spi.depths.size(), 2u);
    EXPECT_EQ(engine->DynainfoSequence(), 8u);
}

TEST_F(DynainfoTest, PushedRowClaimingMoreFieldsThanItsPayloadIsReadOnlyToItsEnd) {
    Clock(20240102, 93000000, 20240102, 93000000);
    PushedRow row = At("cu2403", 9, 30, 1, 0, 700300);
    row.ClaimA(1u << kPushTurnover).ClaimB(0xFFFFF);
    std::vector<char> body = Exact(DynaPushRecord(1, row));
    engine->ProcessDynainfo(body.data(), static_cast<unsigned>(body.size()));
    ASSERT_EQ(spi.depths.size(), 1u);
    EXPECT_EQ(spi.depths[0].LastPrice, 70030.0);
    EXPECT_EQ(spi.depths[0].Turnover, 0.0);
}
