// Subscription requests: queueing, the three request forms, the replay of
// current quotes and unsubscription.
#include <functional>

#include "dc/HandlerKit.h"

using namespace orvex_test;

namespace {

QuoteRow Dated(const char* code, uint16_t market, int32_t last) {
    QuoteRow r;
    r.market = market;
    r.code = code;
    r.date = 20240102;
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
        std::vector<MarketStatusRow> markets;
        for (uint16_t m : {2000, 2001, 2101, 5000}) markets.push_back({m, 20240102, 1, 0, 20240102, 93000000});
        Status(markets);
        Names(2000, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"CD", "cd1", "CD1", 1, 1, 0}});
        Names(2001, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"EF", "ef1", "EF1", 1, 1, 0}});
        Names(2101, {{"AB", "ab1234", "AB1234", 1, 1, 0}});
        Names(5000, {{"AB", "ab1234", "AB1234", 1, 1, 0}});
        for (uint16_t m : {2000, 2001, 2101, 5000}) Quotes(m, {Dated("ab1234", m, m)});
        Quotes(2001, {Dated("ef1", 2001, 7)});   // cd1 stays undated
        hookSpi.depths.clear();
        hookSpi.events.clear();
    }

    // Queues the requests and lets the worker serve them.
    void Request(bool subscribe, std::vector<std::string> ids) {
        std::vector<char*> p;
        for (std::string& s : ids) p.push_back(&s[0]);
        const int n = static_cast<int>(p.size());
        EXPECT_EQ(subscribe ? api->SubscribeMarketData(p.data(), n) : api->UnSubscribeMarketData(p.data(), n), 0);
        subscribe ? api->CheckSubscribeInfo() : api->CheckUnSubscribeInfo();
    }
    void Subscribe(std::vector<std::string> ids) { Request(true, std::move(ids)); }
    void Unsubscribe(std::vector<std::string> ids) { Request(false, std::move(ids)); }
    // Last prices of the replayed records, in order (the market id was used
    // as the raw last price).
    std::vector<double> Replayed() {
        std::vector<double> v;
        for (const auto& d : hookSpi.depths) v.push_back(d.LastPrice);
        return v;
    }
    // The subscriptions as text: per exchange (SHFE, DCE, 5000) its
    // instruments, with a '*' when it is subscribed whole.
    std::string State() {
        std::string s;
        for (const char* e : {"SHFE", "DCE", "5000"}) {
            s += std::string(e) + (api->FindExchange(e)->WholeExchange ? "*" : "") + "{";
            for (const std::string& id : api->FindExchange(e)->subscribed) s += id + ",";
            s += "} ";
        }
        return s;
    }

    HookSpi hookSpi;
};

struct RequestCase {
    const char* name;
    std::vector<std::string> ids;
    const char* state;   // as State() gives it
    std::vector<double> replayed;
    bool deliverSnapshot = true;
};

TEST_F(SubscriptionTest, EachRequestFormSubscribesAndReplaysTheCurrentQuotes) {
    const RequestCase cases[] = {
        // Only on that exchange; the first of its markets that lists it is replayed.
        {"instrument.exchange", {"ab1234.SHFE"}, "SHFE{ab1234,} DCE{} 5000{} ", {2000.0}},
        // Every dated quote, market by market, each in code order; cd1 was never dated.
        {"exchange code", {"SHFE"}, "SHFE*{} DCE{} 5000{} ", {2000.0, 2001.0, 7.0}},
        // On those of the four exchanges that exist, not on 5000.
        {"bare code", {"ab1234"}, "SHFE{ab1234,} DCE{ab1234,} 5000{} ", {2000.0, 2101.0}},
        {"leading dot is not a split", {".SHFE"}, "SHFE{.SHFE,} DCE{.SHFE,} 5000{} ", {}},
        // Split at the first dot: exchange "y.SHFE" is unknown; an empty
        // exchange part means the four.
        {"split at the first dot", {"ab1234.5000", "x.y.SHFE", "ab1234."},
         "SHFE{ab1234,} DCE{ab1234,} 5000{ab1234,} ", {5000.0, 2000.0, 2101.0}},
        {"unknown exchange does nothing", {"ab1234.XYZ"}, "SHFE{} DCE{} 5000{} ", {}},
        {"undated or unknown instrument is recorded, not replayed", {"cd1.SHFE", "zz9.SHFE"},
         "SHFE{cd1,zz9,} DCE{} 5000{} ", {}},
        {"no replay without the snapshot flag", {"ab1234.SHFE", "DCE"}, "SHFE{ab1234,} DCE*{} 5000{} ", {}, false},
    };
    for (const RequestCase& c : cases) {
        Build(c.deliverSnapshot);
        Subscribe(c.ids);
        EXPECT_EQ(State(), c.state) << "case " << c.name;
        EXPECT_EQ(Replayed(), c.replayed) << "case " << c.name;
        // No request makes up an exchange.
        EXPECT_EQ(api->FindExchange("CZCE"), nullptr) << "case " << c.name;
        EXPECT_EQ(api->FindExchange("XYZ"), nullptr) << "case " << c.name;
    }
}

TEST_F(SubscriptionTest, OnlyRealRequestsInSubscriptionModeAreQueued) {
    char id[] = "ab1234.SHFE";
    char* ids[] = {nullptr, id};
    api->m_bSubscribe = false;
    EXPECT_EQ(api->SubscribeMarketData(ids + 1, 1), 0);
    EXPECT_EQ(api->UnSubscribeMarketData(ids + 1, 1), 0);
    EXPECT_TRUE(api->m_subQueue.empty());
    EXPECT_TRUE(api->m_unsubQueue.empty());

    // Empty counts and null entries queue nothing.
    api->m_bSubscribe = true;
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
    EXPECT_EQ(State(), "SHFE{ab1234,ef1,} DCE{} 5000{} ");
    EXPECT_EQ(api->m_subQueue, std::vector<std::string>{"DCE"});

    api->CheckSubscribeInfo();
    EXPECT_EQ(State(), "SHFE{ab1234,ef1,} DCE*{} 5000{} ");
    EXPECT_TRUE(api->m_subQueue.empty());
}

TEST_F(SubscriptionTest, UnsubscribingAnExchangeDropsAllOnItAndAnInstrumentItself) {
    Subscribe({"ab1234.SHFE", "SHFE"});
    Unsubscribe({"SHFE"});
    EXPECT_EQ(State(), "SHFE{} DCE{} 5000{} ");

    Subscribe({"ab1234", "ef1.SHFE", "ab1234.5000"});
    Unsubscribe({"ef1.SHFE", "nothing.XYZ"});
    EXPECT_EQ(State(), "SHFE{ab1234,} DCE{ab1234,} 5000{ab1234,} ");
    Unsubscribe({"ab1234"});
    EXPECT_EQ(State(), "SHFE{} DCE{} 5000{ab1234,} ");   // 5000 is not one of the four
    const size_t before = hookSpi.Events().size();
    Unsubscribe({"ab1234.5000"});
    EXPECT_EQ(State(), "SHFE{} DCE{} 5000{} ");
    EXPECT_EQ(hookSpi.Events().size(), before);   // no callback for unsubscription
}

TEST_F(SubscriptionTest, SubscriptionsSteerTheQuoteFilter) {
    Subscribe({"ab1234.DCE"});
    hookSpi.depths.clear();
    Quotes(2101, {Dated("ab1234", 2101, 11)});
    Quotes(2001, {Dated("ab1234", 2001, 12)});
    EXPECT_EQ(Replayed(), std::vector<double>{11.0});
}
