// The simulated market: contract listing, a consistent state at every step,
// counters that only grow during a day, and the close / roll / auction cycle.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <tuple>

#include "Catalog.h"
#include "Market.h"
#include "SimClock.h"
#include "MarketRecord.h"

using namespace qxsim;

namespace {

std::set<std::string> Codes(const std::vector<Contract>& contracts) {
    std::set<std::string> out;
    for (const Contract& c : contracts) out.insert(c.code);
    return out;
}

void ExpectConsistent(const Instrument& inst) {
    const QuoteState& q = inst.quote;
    SCOPED_TRACE(inst.code);
    EXPECT_GT(q.last, 0);
    EXPECT_LE(q.lowerLimit, q.last);
    EXPECT_LE(q.last, q.upperLimit);
    if (q.high != 0) {
        EXPECT_LE(q.low, q.last);
        EXPECT_LE(q.last, q.high);
    }
    EXPECT_EQ(0, q.last % inst.tickRaw);
    for (int k = 0; k < 5; ++k) {
        if (q.bid[k].price != 0) {
            EXPECT_GE(q.bid[k].price, q.lowerLimit);
            EXPECT_GT(q.bid[k].volume, 0u);
        }
        if (q.ask[k].price != 0) {
            EXPECT_LE(q.ask[k].price, q.upperLimit);
            EXPECT_GT(q.ask[k].volume, 0u);
        }
        if (k > 0 && q.bid[k].price != 0) {
            EXPECT_LT(q.bid[k].price, q.bid[k - 1].price);
        }
        if (k > 0 && q.ask[k].price != 0) {
            EXPECT_GT(q.ask[k].price, q.ask[k - 1].price);
        }
    }
    if (q.bid[0].price != 0 && q.ask[0].price != 0) {
        EXPECT_LT(q.bid[0].price, q.ask[0].price);
    }
}

}  // namespace

TEST(Catalog, ListsContractsWithTheExchangesOwnCodes) {
    const std::set<std::string> codes = Codes(ListContracts(20241203, 2000));
    for (const char* code : {"cu2412", "cu2501", "rb2505", "m2509", "SR501", "IF2412", "IF2501", "IF2503", "IF2506",
                             "T2503", "au2506", "i2505", "MA505"})
        EXPECT_TRUE(codes.count(code)) << code;
    // Expired or not yet listed months are absent.
    EXPECT_FALSE(codes.count("IF2411"));
    EXPECT_FALSE(codes.count("m2502"));   // soybean meal has no February contract
    EXPECT_FALSE(codes.count("SR2501"));  // CZCE writes the year with one digit
}

TEST(Catalog, TakesTheNearestMonthsOfEveryProductFirst) {
    const std::vector<Contract> some = ListContracts(20241203, 120);
    ASSERT_EQ(120u, some.size());
    std::set<std::string> products;
    for (const Contract& c : some) {
        products.insert(c.product->code);
        EXPECT_LE(c.rank, 2) << c.code;
    }
    EXPECT_EQ(Products().size(), products.size());
}

TEST(Catalog, BusinessDays) {
    EXPECT_EQ(20241209u, NextBusinessDay(20241206));   // Friday -> Monday
    EXPECT_EQ(20241204u, NextBusinessDay(20241203));
    EXPECT_EQ(20250101u, NextBusinessDay(20241231));
    EXPECT_EQ(20241209u, BusinessDayOnOrAfter(20241207));
    EXPECT_EQ(2, Weekday(20241203));
}

TEST(Market, StartsWithFourMarketsOfThePlainOrTheDeepFeedAndConsistentQuotes) {
    for (bool deep : {false, true}) {
        SCOPED_TRACE(deep ? "deep feed" : "plain feed");
        MarketConfig config;
        config.instruments = 250;
        config.deepFeed = deep;
        Market market(config, Morning());
        std::vector<int> ids;
        for (const MarketInfo& m : market.Markets()) ids.push_back(m.id);
        EXPECT_EQ((deep ? std::vector<int>{2011, 2111, 2211, 2311} : std::vector<int>{2001, 2101, 2201, 2301}), ids);
        ASSERT_EQ(4u, ids.size());
        EXPECT_EQ(20241203u, market.Markets()[0].tradingDay);
        EXPECT_EQ(250u, market.Instruments().size());
        size_t listed = 0;
        for (const MarketInfo& m : market.Markets()) listed += m.instruments.size();
        EXPECT_EQ(250u, listed);
        for (const Instrument& inst : market.Instruments()) {
            ExpectConsistent(inst);
            EXPECT_EQ(20241203u, inst.quote.date);
            EXPECT_GT(inst.quote.volume, 0);
            EXPECT_GT(inst.quote.turnover, 0);
            EXPECT_FALSE(inst.name.empty());
        }
        const int cu = market.FindInstrument("cu2501"), t = market.FindInstrument("T2503");
        ASSERT_GE(cu, 0);
        ASSERT_GE(t, 0);
        EXPECT_EQ(5, market.Instruments()[cu].multiple);
        EXPECT_EQ(market.Markets()[0].id, market.Instruments()[cu].marketId);
        EXPECT_EQ(1000, market.Instruments()[t].divisor);
    }
}

TEST(Market, CountersOnlyGrowAndTheBookStaysConsistent) {
    MarketConfig config;
    config.instruments = 120;
    config.rate = 2000;
    const int64_t start = Morning();
    Market market(config, start);
    std::vector<QuoteState> before;
    for (const Instrument& inst : market.Instruments()) before.push_back(inst.quote);
    size_t events = 0;
    for (int step = 1; step <= 200; ++step) {
        std::vector<MarketEvent> e = market.Step(start + step * 20);
        events += e.size();
        for (const MarketEvent& ev : e) {
            ASSERT_EQ(MarketEvent::kQuote, ev.type);
            EXPECT_TRUE(ev.maskA != 0 || ev.maskB != 0);
        }
    }
    EXPECT_GT(events, 1000u);
    EXPECT_GT(market.Updates(), 7000u);
    for (size_t i = 0; i < market.Instruments().size(); ++i) {
        const Instrument& inst = market.Instruments()[i];
        ExpectConsistent(inst);
        EXPECT_GE(inst.quote.volume, before[i].volume);
        EXPECT_GE(inst.quote.turnover, before[i].turnover);
        EXPECT_EQ(before[i].preSettlement, inst.quote.preSettlement);
        EXPECT_GE(inst.quote.time, before[i].time);
    }
}

TEST(Market, ClosesRollsToTheNextTradingDayAndReopens) {
    MarketConfig config;
    config.instruments = 40;
    config.rate = 500;
    config.sessionSeconds = 2;
    config.tradingDay = 20241206;   // a Friday
    const int64_t start = Morning();
    Market market(config, start);

    std::vector<MarketEvent> e = market.Step(start + 1000);
    EXPECT_EQ(kStatusTrading, market.Markets()[0].status);
    e = market.Step(start + 2000);
    EXPECT_EQ(kStatusClosed, market.Markets()[0].status);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(MarketEvent::kStatus, e.back().type);
    for (const Instrument& inst : market.Instruments()) {
        EXPECT_NE(0, inst.quote.settlement);
        EXPECT_EQ(inst.quote.last, inst.quote.close);
    }
    const std::vector<QuoteState> closing = [&] {
        std::vector<QuoteState> q;
        for (const Instrument& inst : market.Instruments()) q.push_back(inst.quote);
        return q;
    }();
    // No trading while closed.
    e = market.Step(start + 3000);
    EXPECT_TRUE(e.empty());

    e = market.Step(start + 5000);
    EXPECT_EQ(kStatusAuction, market.Markets()[0].status);
    EXPECT_EQ(20241209u, market.Markets()[0].tradingDay);
    EXPECT_EQ(1, market.Rolls());
    bool rolled = false;
    for (const MarketEvent& ev : e) rolled = rolled || (ev.type == MarketEvent::kStatus && ev.newTradingDay);
    EXPECT_TRUE(rolled);
    // Yesterday's settlement, close and open interest; nothing traded yet.
    for (size_t i = 0; i < market.Instruments().size(); ++i) {
        const QuoteState& q = market.Instruments()[i].quote;
        EXPECT_EQ(std::make_tuple(closing[i].settlement, closing[i].close, closing[i].openInterest, 0.0, 0),
                  std::make_tuple(q.preSettlement, q.preClose, q.preOpenInterest, q.volume, q.open)) << i;
    }
    market.Step(start + 7000);
    EXPECT_EQ(kStatusTrading, market.Markets()[0].status);
    market.Step(start + 9000);
    int traded = 0;
    for (const Instrument& inst : market.Instruments()) traded += inst.quote.volume > 0 ? 1 : 0;
    EXPECT_GT(traded, 0);
}

TEST(MarketRecord, ReplayReproducesTheRecordedMarket) {
    char path[] = "/tmp/qxdc-sim-recordXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);

    MarketConfig config;
    config.instruments = 30;
    config.rate = 300;
    config.sessionSeconds = 1;
    const int64_t start = Morning();
    Market market(config, start);
    MarketRecorder recorder;
    std::string error;
    ASSERT_TRUE(recorder.Open(path, market, &error)) << error;
    for (int step = 1; step <= 400; ++step) recorder.Write(market, market.Step(start + step * 20));
    recorder.Close();

    Market copy;
    MarketReplay replay;
    const int64_t later = start + 3600 * 1000;
    ASSERT_TRUE(replay.Open(path, &copy, later, &error)) << error;
    ASSERT_EQ(market.Instruments().size(), copy.Instruments().size());
    size_t events = 0;
    for (int step = 1; step <= 450; ++step) events += replay.Step(copy, later + step * 20).size();
    EXPECT_GT(events, 100u);
    EXPECT_TRUE(replay.Finished());
    EXPECT_EQ(market.Rolls(), copy.Rolls());
    for (size_t i = 0; i < market.Instruments().size(); ++i) {
        // Code, name, last, volume, turnover, first bid volume, time.
        const Instrument& a = market.Instruments()[i];
        const Instrument& b = copy.Instruments()[i];
        EXPECT_EQ(std::tie(a.code, a.name, a.quote.last, a.quote.volume, a.quote.turnover, a.quote.bid[0].volume,
                           a.quote.time),
                  std::tie(b.code, b.name, b.quote.last, b.quote.volume, b.quote.turnover, b.quote.bid[0].volume,
                           b.quote.time)) << i;
    }
    EXPECT_EQ(market.Markets()[0].tradingDay, copy.Markets()[0].tradingDay);
    std::remove(path);
}
