// Subscription requests: queueing, the three request forms, the replay of
// current quotes and unsubscription.
#include <functional>

#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

MarketStatusRow Market(uint16_t id) {
    MarketStatusRow r;
    r.market = id;
    r.tradingDay = r.secondDay = 20240102;
    r.timeWord = 93000000;
    r.status = 1;
    return r;
}

QuoteRow Dated(const char* code, uint16_t market, int32_t last, uint32_t date = 20240102) {
    QuoteRow r;
    r.market = market;
    r.code = code;
    r.date = date;
    r.packedTime = PackQuoteTime(9, 30, 0, 0);
    r.last = last;
    return r;
}

// Records like RecordingSpi and runs a hook inside each depth callback.
class HookSpi : public RecordingSpi {
public:
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        RecordingSpi::OnDepthMarketData(d);
        if (onDepth) onDepth();
    }
    std::function<void()> onDepth;
};

}  // namespace

class SubscriptionTest : public HandlerTest {
protected:
    void SetUp() override { Build(true); }

    void Build(bool deliverSnapshot) {
        MakeApi(deliverSnapshot);
        api->RegisterSpi(&hookSpi);
        api->m_bSubscribe = true;
        // SHFE has two markets that both list ab1234; DCE and a 5000
        // exchange (not one of the four) also list it.
        Status({Market(2000), Market(2001), Market(2101), Market(5000)});
        Names(2000, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"CD", "cd1", "CD1", 1, 1, 0}});
        Names(2001, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"EF", "ef1", "EF1", 1, 1, 0}});
        Names(2101, {{"AB", "ab1234", "AB1234", 1, 1, 0}});
        Names(5000, {{"AB", "ab1234", "AB1234", 1, 1, 0}});
        for (uint16_t m : {2000, 2001, 2101, 5000}) Quotes(m, {Dated("ab1234", m, m)});
        Quotes(2001, {Dated("ef1", 2001, 7)});   // cd1 stays undated
        hookSpi.depths.clear();
        hookSpi.events.clear();
    }

    void Subscribe(std::vector<std::string> ids) {
        std::vector<char*> ptrs;
        for (std::string& s : ids) ptrs.push_back(&s[0]);
        EXPECT_EQ(api->SubscribeMarketData(ptrs.data(), static_cast<int>(ptrs.size())), 0);
        api->CheckSubscribeInfo();
    }
    void Unsubscribe(std::vector<std::string> ids) {
        std::vector<char*> ptrs;
        for (std::string& s : ids) ptrs.push_back(&s[0]);
        EXPECT_EQ(api->UnSubscribeMarketData(ptrs.data(), static_cast<int>(ptrs.size())), 0);
        api->CheckUnSubscribeInfo();
    }
    std::set<std::string, std::less<>> Subs(const char* exchange) { return api->FindExchange(exchange)->subscribed; }
    // Last prices of the replayed records, in order (the market id was used
    // as the raw last price).
    std::vector<double> Replayed() {
        std::vector<double> v;
        for (const auto& d : hookSpi.depths) v.push_back(d.LastPrice);
        return v;
    }

    HookSpi hookSpi;
};

TEST_F(SubscriptionTest, InstrumentDotExchangeSubscribesOnThatExchangeAndReplaysTheFirstMarket) {
    Subscribe({"ab1234.SHFE"});
    EXPECT_EQ(Subs("SHFE"), (std::set<std::string, std::less<>>{"ab1234"}));
    EXPECT_TRUE(Subs("DCE").empty());
    EXPECT_FALSE(api->FindExchange("SHFE")->WholeExchange);
    EXPECT_EQ(Replayed(), std::vector<double>{2000.0});
}

TEST_F(SubscriptionTest, ExchangeCodeSubscribesTheWholeExchangeAndReplaysEveryDatedQuote) {
    Subscribe({"SHFE"});
    EXPECT_TRUE(api->FindExchange("SHFE")->WholeExchange);
    EXPECT_TRUE(Subs("SHFE").empty());
    // Market by market, each in code order; cd1 was never dated.
    EXPECT_EQ(Replayed(), (std::vector<double>{2000.0, 2001.0, 7.0}));
}

TEST_F(SubscriptionTest, BareCodeSubscribesOnTheFourExchangesThatExist) {
    Subscribe({"ab1234"});
    EXPECT_EQ(Subs("SHFE").count("ab1234"), 1u);
    EXPECT_EQ(Subs("DCE").count("ab1234"), 1u);
    EXPECT_TRUE(Subs("5000").empty());
    EXPECT_EQ(api->FindExchange("CZCE"), nullptr);
    EXPECT_EQ(Replayed(), (std::vector<double>{2000.0, 2101.0}));
}

TEST_F(SubscriptionTest, LeadingDotIsNotASplit) {
    Subscribe({".SHFE"});
    EXPECT_EQ(Subs("SHFE").count(".SHFE"), 1u);
    EXPECT_EQ(Subs("DCE").count(".SHFE"), 1u);
    EXPECT_FALSE(api->FindExchange("SHFE")->WholeExchange);
    EXPECT_TRUE(Replayed().empty());
}

TEST_F(SubscriptionTest, SplitIsAtTheFirstDot) {
    Subscribe({"ab1234.5000", "x.y.SHFE", "ab1234."});
    EXPECT_EQ(Subs("5000").count("ab1234"), 1u);
    EXPECT_EQ(Subs("SHFE").count("x"), 0u);       // exchange "y.SHFE" is unknown
    EXPECT_EQ(Subs("DCE").count("ab1234"), 1u);   // empty exchange part: the four
    EXPECT_EQ(Replayed(), (std::vector<double>{5000.0, 2000.0, 2101.0}));
}

TEST_F(SubscriptionTest, UnknownExchangeDoesNothing) {
    Subscribe({"ab1234.XYZ"});
    EXPECT_EQ(api->FindExchange("XYZ"), nullptr);
    EXPECT_TRUE(Subs("SHFE").empty());
    EXPECT_TRUE(Replayed().empty());
}

TEST_F(SubscriptionTest, UndatedOrUnknownInstrumentIsRecordedButNotReplayed) {
    Subscribe({"cd1.SHFE", "zz9.SHFE"});
    EXPECT_EQ(Subs("SHFE"), (std::set<std::string, std::less<>>{"cd1", "zz9"}));
    EXPECT_TRUE(Replayed().empty());
}

TEST_F(SubscriptionTest, NothingIsReplayedWithoutTheSnapshotFlag) {
    Build(false);
    Subscribe({"ab1234.SHFE", "DCE"});
    EXPECT_EQ(Subs("SHFE").count("ab1234"), 1u);
    EXPECT_TRUE(api->FindExchange("DCE")->WholeExchange);
    EXPECT_TRUE(Replayed().empty());
}

TEST_F(SubscriptionTest, WithoutSubscriptionModeNothingIsQueued) {
    api->m_bSubscribe = false;
    char id[] = "ab1234.SHFE";
    char* ids[] = {id};
    EXPECT_EQ(api->SubscribeMarketData(ids, 1), 0);
    EXPECT_EQ(api->UnSubscribeMarketData(ids, 1), 0);
    EXPECT_TRUE(api->m_subQueue.empty());
    EXPECT_TRUE(api->m_unsubQueue.empty());
}

TEST_F(SubscriptionTest, EmptyCountsAndNullEntriesQueueNothing) {
    char id[] = "ab1234.SHFE";
    char* ids[] = {nullptr, id};
    EXPECT_EQ(api->SubscribeMarketData(ids, 0), 0);
    EXPECT_EQ(api->SubscribeMarketData(ids, -3), 0);
    EXPECT_EQ(api->SubscribeMarketData(nullptr, 2), 0);
    EXPECT_TRUE(api->m_subQueue.empty());
    EXPECT_EQ(api->SubscribeMarketData(ids, 2), 0);
    EXPECT_EQ(api->m_subQueue, std::vector<std::string>{"ab1234.SHFE"});
}

TEST_F(SubscriptionTest, CallbackMaySubscribeAgainWithoutDeadlock) {
    int calls = 0;
    hookSpi.onDepth = [&] {
        if (calls++ > 0) return;
        char id[] = "DCE";
        char* ids[] = {id};
        api->SubscribeMarketData(ids, 1);
        api->UnSubscribeMarketData(ids, 1);
    };
    Subscribe({"ab1234.SHFE", "ef1.SHFE"});
    EXPECT_EQ(Subs("SHFE").size(), 2u);
    EXPECT_FALSE(api->FindExchange("DCE")->WholeExchange);
    EXPECT_EQ(api->m_subQueue, std::vector<std::string>{"DCE"});

    api->CheckSubscribeInfo();
    EXPECT_TRUE(api->FindExchange("DCE")->WholeExchange);
    EXPECT_TRUE(api->m_subQueue.empty());
}

TEST_F(SubscriptionTest, UnsubscribingAnExchangeDropsEverySubscriptionOnIt) {
    Subscribe({"ab1234.SHFE", "SHFE"});
    Unsubscribe({"SHFE"});
    EXPECT_FALSE(api->FindExchange("SHFE")->WholeExchange);
    EXPECT_TRUE(Subs("SHFE").empty());
}

TEST_F(SubscriptionTest, UnsubscribingAnInstrument) {
    Subscribe({"ab1234", "ef1.SHFE", "ab1234.5000"});
    Unsubscribe({"ef1.SHFE", "nothing.XYZ"});
    EXPECT_EQ(Subs("SHFE"), (std::set<std::string, std::less<>>{"ab1234"}));
    Unsubscribe({"ab1234"});
    EXPECT_TRUE(Subs("SHFE").empty());
    EXPECT_TRUE(Subs("DCE").empty());
    EXPECT_EQ(Subs("5000").count("ab1234"), 1u);   // not one of the four
    const size_t before = hookSpi.Events().size();
    Unsubscribe({"ab1234.5000"});
    EXPECT_TRUE(Subs("5000").empty());
    EXPECT_EQ(hookSpi.Events().size(), before);   // no callback for unsubscription
}

TEST_F(SubscriptionTest, SubscriptionsSteerTheQuoteFilter) {
    Subscribe({"ab1234.DCE"});
    hookSpi.depths.clear();
    Quotes(2101, {Dated("ab1234", 2101, 11)});
    Quotes(2001, {Dated("ab1234", 2001, 12)});
    EXPECT_EQ(Replayed(), std::vector<double>{11.0});
}
