// Subscription requests: queueing, the three request forms, the replay of
// current quotes and unsubscription.
#include <sys/socket.h>

#include <functional>
#include <set>

#include "dc/DCThread.h"
#include "dc/HandlerKit.h"
#include "protocol/DcFrames.h"

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
        MakeEngine(With([deliverSnapshot](MdEngineSettings& s) {
            s.deliverSnapshot = deliverSnapshot;
            s.subscribe = true;
        }));
        engine->SetSpi(&hookSpi);
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

    void Subscribe(const std::vector<std::string>& ids) { engine->CheckSubscribeInfo(ids); }
    void Unsubscribe(const std::vector<std::string>& ids) { engine->CheckUnSubscribeInfo(ids); }
    // Last prices of the replayed records, in order (the market id was used
    // as the raw last price).
    std::vector<double> Replayed() {
        std::vector<double> v;
        for (const auto& d : hookSpi.depths) v.push_back(d.LastPrice);
        return v;
    }
    // The subscriptions as text: per exchange (SHFE, DCE, 5000, those the
    // model has) its
    // instruments, with a '*' when it is subscribed whole.
    std::string State() {
        std::string s;
        for (const char* e : {"SHFE", "DCE", "5000"}) {
            const CQxExchange* x = engine->FindExchange(e);
            if (!x) continue;
            s += std::string(e) + (x->WholeExchange ? "*" : "") + "{";
            for (const std::string& id : x->subscribed) s += id + ",";
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
        EXPECT_EQ(engine->FindExchange("CZCE"), nullptr) << "case " << c.name;
        EXPECT_EQ(engine->FindExchange("XYZ"), nullptr) << "case " << c.name;
    }
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

// ---- the API object's queues ----

// An API object with a model fed through its receive path; requests are
// queued by the exported operations and served by one pass of the worker's
// queue service.
class ApiSubscriptionTest : public ::testing::Test {
protected:
    void Make(bool subscriptionMode) {
        api.reset();
        if (m_peer >= 0) close(m_peer);
        ScopedTempDir::Write("OrvexWiraMdApi.def", subscriptionMode ? "[CONFIG]\nSubscribe=1\n" : "");
        api.reset(new CDCThread("", true));
        api->RegisterSpi(&hookSpi);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        api->AttachSocketForTest(fds[0]);
        m_peer = fds[1];
        std::vector<MarketStatusRow> markets;
        for (uint16_t m : {2001, 2101}) markets.push_back({m, 20240102, 1, 0, 20240102, 93000000});
        std::string bytes = BuildDcFrame(kCmdMarketStatus, MarketStatusBody(2, 0, markets));
        bytes += BuildDcFrame(kCmdNameTable, NameTableBody(2001, 1, 0, {{"AB", "ab1234", "AB1234", 1, 1, 0}}));
        bytes += BuildDcFrame(kCmdNameTable, NameTableBody(2101, 1, 0, {{"AB", "ab1234", "AB1234", 1, 1, 0}}));
        bytes += BuildDcFrame(kCmdQuotation, QuotationBody(1, 0, 2001, 1, 0, {Dated("ab1234", 2001, 1)}));
        bytes += BuildDcFrame(kCmdQuotation, QuotationBody(1, 0, 2101, 1, 0, {Dated("ab1234", 2101, 2)}));
        api->OnReceived(bytes.data(), bytes.size());
        ASSERT_TRUE(api->IsConnected());
        hookSpi.depths.clear();
        hookSpi.events.clear();
    }
    void TearDown() override {
        api.reset();
        if (m_peer >= 0) close(m_peer);
    }
    // What the engine holds: SHFE's and DCE's subscriptions.
    std::string State() {
        std::string s;
        for (const char* e : {"SHFE", "DCE"}) {
            const CQxExchange* x = api->EngineForTest().FindExchange(e);
            s += std::string(e) + (x->WholeExchange ? "*" : "") + "{";
            for (const std::string& id : x->subscribed) s += id + ",";
            s += "} ";
        }
        return s;
    }

    ScopedTempDir dir;
    HookSpi hookSpi;
    std::unique_ptr<CDCThread> api;
    int m_peer = -1;
};

TEST_F(ApiSubscriptionTest, OnlyRealRequestsInSubscriptionModeAreQueued) {
    char id[] = "ab1234.SHFE";
    char dce[] = "DCE";
    char* ids[] = {nullptr, id, dce};
    Make(false);
    EXPECT_EQ(api->SubscribeMarketData(ids + 1, 1), 0);
    api->ServeQueues();
    EXPECT_EQ(State(), "SHFE{} DCE{} ");
    EXPECT_TRUE(hookSpi.Events().empty());

    // Empty counts and null entries queue nothing.
    Make(true);
    EXPECT_EQ(api->SubscribeMarketData(ids, 0), 0);
    EXPECT_EQ(api->SubscribeMarketData(ids + 2, -3), 0);
    EXPECT_EQ(api->SubscribeMarketData(nullptr, 2), 0);
    api->ServeQueues();
    EXPECT_EQ(State(), "SHFE{} DCE{} ");
    EXPECT_EQ(api->SubscribeMarketData(ids, 2), 0);
    api->ServeQueues();
    EXPECT_EQ(State(), "SHFE{ab1234,} DCE{} ");
    EXPECT_EQ(hookSpi.Events(), std::vector<std::string>{"depth:ab1234"});
    EXPECT_EQ(api->UnSubscribeMarketData(ids + 1, 1), 0);
    api->ServeQueues();
    EXPECT_EQ(State(), "SHFE{} DCE{} ");
}

TEST_F(ApiSubscriptionTest, CallbackMaySubscribeAgainWithoutDeadlock) {
    Make(true);
    int calls = 0;
    hookSpi.onDepth = [&] {
        if (calls++ > 0) return;
        char id[] = "DCE";
        char* ids[] = {id};
        api->SubscribeMarketData(ids, 1);
        api->UnSubscribeMarketData(ids, 1);
    };
    char id[] = "ab1234.SHFE";
    char* ids[] = {id};
    api->SubscribeMarketData(ids, 1);
    api->ServeQueues();
    // The subscription queued by the callback waits for the next pass (the
    // unsubscription, served after the subscriptions, finds nothing yet).
    EXPECT_EQ(State(), "SHFE{ab1234,} DCE{} ");
    EXPECT_EQ(calls, 1);
    api->ServeQueues();
    EXPECT_EQ(State(), "SHFE{ab1234,} DCE*{} ");
    EXPECT_EQ(calls, 2);   // the replay of DCE
}

// ---- subscriptions over a login that rebuilds the markets ----

TEST_F(SubscriptionTest, RebuildKeepsSubscriptionsAndReattachesThemByExchangeCode) {
    Subscribe({"ab1234.SHFE", "DCE", "ab1234.5000"});
    // A first-form answer with another list: every exchange is made anew;
    // 5000 is no longer listed.
    std::string answer = LoginAnswerBody(1, 0, {2000, 2001, 2101});
    engine->ProcessLoginRsp(answer.data(), static_cast<int>(answer.size()));
    EXPECT_EQ(engine->FindExchange("5000"), nullptr);
    ASSERT_NE(engine->FindExchange("SHFE"), nullptr);
    EXPECT_EQ(engine->FindExchange("SHFE")->subscribed, (std::set<std::string, std::less<>>{"ab1234"}));
    EXPECT_TRUE(engine->FindExchange("DCE")->WholeExchange);

    // The new snapshot delivers exactly what is subscribed.
    std::vector<MarketStatusRow> markets;
    for (uint16_t m : {2000, 2001, 2101}) markets.push_back({m, 20240102, 1, 0, 20240102, 93000000});
    Status(markets);
    Names(2000, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"CD", "cd1", "CD1", 1, 1, 0}});
    Names(2001, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"EF", "ef1", "EF1", 1, 1, 0}});
    Names(2101, {{"AB", "ab1234", "AB1234", 1, 1, 0}, {"GH", "gh1", "GH1", 1, 1, 0}});
    hookSpi.depths.clear();
    Quotes(2000, {Dated("ab1234", 2000, 1), Dated("cd1", 2000, 2)});
    Quotes(2001, {Dated("ef1", 2001, 3)});
    Quotes(2101, {Dated("ab1234", 2101, 4), Dated("gh1", 2101, 5)});
    EXPECT_EQ(Replayed(), (std::vector<double>{1.0, 4.0, 5.0}));

    // The exchange that is not listed keeps its subscription: requests still
    // change it, and it applies when a status answer brings the exchange back.
    Subscribe({"zz1.5000"});
    Unsubscribe({"ab1234.5000"});
    Status({{5000, 20240102, 1, 0, 20240102, 93000000}});
    ASSERT_NE(engine->FindExchange("5000"), nullptr);
    EXPECT_EQ(engine->FindExchange("5000")->subscribed, (std::set<std::string, std::less<>>{"zz1"}));
}

TEST_F(SubscriptionTest, SecondFormRebuildReattachesWhenTheStatusAnswerMakesTheExchanges) {
    Subscribe({"ab1234.SHFE", "DCE"});
    // Second form, a list other than the saved one: the model is emptied
    // and built again from the market status.
    std::string answer = LoginAnswer1Body(1, 0, "", 1, {{2001, -1}, {2101, -1}});
    engine->ProcessLoginRsp1(answer.data(), static_cast<int>(answer.size()));
    EXPECT_EQ(engine->FindExchange("SHFE"), nullptr);
    Status({{2001, 20240102, 1, 0, 20240102, 93000000}, {2101, 20240102, 1, 0, 20240102, 93000000}});
    EXPECT_EQ(State(), "SHFE{ab1234,} DCE*{} ");
}
