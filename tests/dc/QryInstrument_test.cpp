// Instrument queries answered from the model, handed to the file service,
// and answered from contract files once their markets are ready.
#include <functional>
#include <tuple>

#include "dc/DCThread.h"
#include "dc/HandlerKit.h"
#include "dc/QxsfAnswer.h"
#include "sf/QXSFThread.h"

using namespace orvex_test;

namespace {

MarketStatusRow Market(uint16_t id, uint32_t day = 20240102) { return {id, day, 1, 0, day, 93000000}; }

// Copies of C strings, so that several text fields are compared in one check.
std::vector<std::string> Texts(std::initializer_list<const char*> texts) { return {texts.begin(), texts.end()}; }

COrvexWiraQryInstrumentField Query(const char* exchange, const char* instrument = "") {
    COrvexWiraQryInstrumentField q{};
    std::strncpy(q.ExchangeID, exchange, sizeof(q.ExchangeID) - 1);
    std::strncpy(q.InstrumentID, instrument, sizeof(q.InstrumentID) - 1);
    return q;
}

const std::string kGbkUnknownExchange =
    "\xba\xcf\xd4\xbc\xb2\xe9\xd1\xaf\xd5\xd2\xb2\xbb\xb5\xbd\xd6\xb8\xb6\xa8\xca\xd0\xb3\xa1";

// Records like RecordingSpi and runs a hook inside each instrument answer.
class HookSpi : public RecordingSpi {
public:
    void OnInstrumentAnswer(COrvexWiraInstrumentField* rec, COrvexWiraRspInfoField* info, int id,
                            bool last) override {
        RecordingSpi::OnInstrumentAnswer(rec, info, id, last);
        if (onAnswer) onAnswer();
    }
    std::function<void()> onAnswer;
};

}  // namespace

// An API object (not started) whose engine is fed directly; queries go
// through the API object's queue and one pass of its queue service.
class QryInstrumentTest : public ::testing::Test {
protected:
    void SetUp() override {
        CQXSFThread::ClearFronts();
        api.reset(new CDCThread("", true));
        engine = &api->EngineForTest();
        api->RegisterSpi(&hookSpi);
        Status({Market(2001), Market(2101), Market(2200, 0)});   // 2200: no trading day yet
        Names(2001, {{"Copper long name", "cu2403", "CU2403", 10, 5, 0}, {"Cu", "cu2405", "CU2405", 10, 6, 0}});
        Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
    }
    void TearDown() override {
        api.reset();
        CQXSFThread::ClearFronts();
    }
    void Status(const std::vector<MarketStatusRow>& rows) { FeedStatus(*engine, rows); }
    void Names(uint16_t market, const std::vector<NameRow>& rows) { FeedNames(*engine, market, rows); }

    int Ask(COrvexWiraQryInstrumentField q, int requestId) { return api->ReqQryInstrument(&q, requestId); }

    std::vector<std::string> Answered() {
        std::vector<std::string> out;
        for (const InstrumentAnswer& a : hookSpi.instruments)
            out.push_back(std::to_string(a.requestId) + ":" + (a.hasRecord ? a.rec.InstrumentID : "-") +
                          (a.isLast ? "!" : ""));
        return out;
    }

    ScopedTempDir dir;
    HookSpi hookSpi;
    std::unique_ptr<CDCThread> api;
    CMdEngine* engine = nullptr;
};

TEST_F(QryInstrumentTest, QueryIsCopiedWhenQueuedAndANullOneRefused) {
    EXPECT_EQ(api->ReqQryInstrument(nullptr, 1), -1);
    COrvexWiraQryInstrumentField q = Query("SHFE", "cu2403");
    EXPECT_EQ(api->ReqQryInstrument(&q, 9), 0);
    std::memset(&q, 0, sizeof(q));   // the queue holds its own copy
    api->ServeQueues();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"9:cu2403", "9:cu2405!"}));
    api->ServeQueues();
    EXPECT_EQ(Answered().size(), 2u);
}

TEST_F(QryInstrumentTest, QueryAnswersItsExchangeOrAllMarketsInIdOrderOrOneErrorForAnUnknownExchange) {
    Ask(Query("SHFE", "cu2405"), 7);   // the instrument does not narrow the answer
    Ask(Query(""), 3);
    Ask(Query("XYZ"), 4);
    api->ServeQueues();
    ASSERT_EQ(Answered(), (std::vector<std::string>{"7:cu2403", "7:cu2405!", "3:cu2403", "3:cu2405", "3:a2405!",
                                                    "4:-!"}));
    const InstrumentAnswer& a = hookSpi.instruments[0];
    EXPECT_EQ(Texts({a.rec.ExchangeID, a.rec.ExchangeInstID}), (std::vector<std::string>{"SHFE", "CU2403"}));
    EXPECT_EQ(a.rec.VolumeMultiple, 5);
    EXPECT_EQ(a.info.ErrorID, 0);
    // The record is cleared once per run, so a shorter name stays terminated.
    const COrvexWiraInstrumentField& second = hookSpi.instruments[1].rec;
    EXPECT_STREQ(second.InstrumentName, "Cu");
    EXPECT_EQ(std::string(second.InstrumentName + 3, 3), "per");   // rest of the earlier name
    EXPECT_EQ(second.VolumeMultiple, 6);
    const InstrumentAnswer& error = hookSpi.instruments[5];
    EXPECT_EQ(error.info.ErrorID, 1);
    EXPECT_EQ(std::string(error.info.ErrorMsg), kGbkUnknownExchange);
}

TEST_F(QryInstrumentTest, QueryWaitsForAHalfReceivedNameTable) {
    Status({Market(2000)});   // a second SHFE market, its names still to come
    std::string part = NameTableBody(2000, 3, 0, {{"A", "cu01", "CU01", 1, 1, 0}, {"B", "cu02", "CU02", 1, 1, 0}});
    engine->ProcessNametableRsp(part.data(), static_cast<int>(part.size()));
    Ask(Query("SHFE"), 5);
    Ask(Query("DCE"), 6);
    api->ServeQueues();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"6:a2405!"}));
    api->ServeQueues();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"6:a2405!"}));   // still waiting

    std::string rest = NameTableBody(2000, 3, 2, {{"C", "cu03", "CU03", 1, 1, 0}});
    engine->ProcessNametableRsp(rest.data(), static_cast<int>(rest.size()));
    api->ServeQueues();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"6:a2405!", "5:cu2403", "5:cu2405", "5:cu01", "5:cu02",
                                                    "5:cu03!"}));
    api->ServeQueues();
    EXPECT_EQ(Answered().size(), 6u);
}

TEST_F(QryInstrumentTest, WaitingQueriesGoBackAheadOfQueriesMadeMeanwhile) {
    engine->FindMarket(2001)->NameTableComplete = false;
    int calls = 0;
    hookSpi.onAnswer = [&] {
        if (calls++ == 0) Ask(Query("DCE"), 30);
    };
    Ask(Query("SHFE"), 10);
    Ask(Query("DCE"), 20);
    Ask(Query(""), 11);
    api->ServeQueues();
    EXPECT_EQ(Answered(), std::vector<std::string>{"20:a2405!"});

    engine->FindMarket(2001)->NameTableComplete = true;
    api->ServeQueues();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"20:a2405!", "10:cu2403", "10:cu2405!", "11:cu2403", "11:cu2405",
                                                    "11:a2405!", "30:a2405!"}));
}

TEST_F(QryInstrumentTest, WithoutInstrumentsOrWithoutCallbackObjectQueriesAreDiscarded) {
    Status({Market(5000)});
    Names(5000, {});
    Ask(Query("5000"), 8);
    api->ServeQueues();
    EXPECT_TRUE(hookSpi.instruments.empty());

    api->RegisterSpi(nullptr);
    Ask(Query("SHFE"), 1);
    api->ServeQueues();
    api->RegisterSpi(&hookSpi);
    api->ServeQueues();
    EXPECT_TRUE(hookSpi.instruments.empty());
}

// ---- hand-over to the file service ----

TEST_F(QryInstrumentTest, WithFileFrontsTheQueryIsHandedToAFileWorker) {
    _FrontInfo front{};
    front.isFtp = true;
    std::strcpy(front.host, "127.0.0.1");
    front.port = 1;   // refused: the worker ends at once
    front.usable = true;
    CQXSFThread::AddFront(front);

    Ask(Query("XYZ"), 1);
    Ask(Query("DCE"), 2);
    // One pass starts the worker (and may already collect it: the refused
    // connection ends it at once).
    api->ServeQueues();
    ASSERT_FALSE(hookSpi.Copy(hookSpi.instruments).empty());
    EXPECT_EQ(hookSpi.Copy(hookSpi.instruments)[0].requestId, 1);   // the unknown exchange, as before

    // The worker has the second query: its connection failure answers it.
    ASSERT_TRUE(WaitUntil([&] { return hookSpi.Copy(hookSpi.instruments).size() == 2; }, 5000));
    const InstrumentAnswer failed = hookSpi.Copy(hookSpi.instruments)[1];
    EXPECT_EQ(std::make_tuple(failed.requestId, failed.hasRecord, failed.info.ErrorID), std::make_tuple(2, false, 4099));
    // Nothing was answered from the model.
    for (const InstrumentAnswer& a : hookSpi.Copy(hookSpi.instruments)) EXPECT_FALSE(a.hasRecord);

    // A failed worker is released without a pending answer.
    ASSERT_TRUE(WaitUntil(
        [&] {
            api->ServeQueues();
            return api->FileWorkersForTest() == 0;
        },
        5000));
    EXPECT_EQ(engine->FileAnswersWaiting(), 0u);
}

// What the engine hands to the file service: the query and the markets by
// exchange code, the queried exchange alone or every market of the model.
class HandOverTest : public HandlerTest {};

TEST_F(HandOverTest, QueryAndMarketNamesGoToTheFileService) {
    host.fileService = true;
    Status({Market(2000), Market(2001), Market(2101)});
    Names(2000, {});
    Names(2001, {{"Cu", "cu2405", "CU2405", 10, 6, 0}});
    Names(2101, {{"Soybean", "a2405", "A2405", 1, 10, 0}});
    _QryInstrumentInfo dce{};
    dce.nRequestID = 2;
    std::strcpy(dce.query.ExchangeID, "DCE");
    _QryInstrumentInfo all{};
    all.nRequestID = 3;
    _QryInstrumentInfo unknown{};
    unknown.nRequestID = 4;
    std::strcpy(unknown.query.ExchangeID, "XYZ");
    EXPECT_TRUE(engine->ServeQueries({dce, all, unknown}).empty());
    ASSERT_EQ(host.handOvers.size(), 2u);
    EXPECT_EQ(host.handOvers[0].query.nRequestID, 2);
    EXPECT_STREQ(host.handOvers[0].query.query.ExchangeID, "DCE");
    EXPECT_EQ(host.handOvers[0].markets, std::vector<std::string>{"DCE"});
    EXPECT_EQ(host.handOvers[1].query.nRequestID, 3);
    EXPECT_EQ(host.handOvers[1].markets, (std::vector<std::string>{"SHFE", "SHFE", "DCE"}));
    // Only the unknown exchange was answered here, with its error.
    ASSERT_EQ(spi.instruments.size(), 1u);
    EXPECT_EQ(std::make_pair(spi.instruments[0].requestId, spi.instruments[0].hasRecord), std::make_pair(4, false));
}

// ---- answers from contract files ----

class QxsfAnswerTest : public QryInstrumentTest {
protected:
    void Pending(const char* exchange, int requestId, const char* market = nullptr,
                 std::vector<COrvexWiraInstrumentField> records = {}) {
        _QryInstrumentInfo info;
        std::memset(&info, 0, sizeof(info));
        info.nRequestID = requestId;
        std::strncpy(info.query.ExchangeID, exchange, 8);
        CQxsfRsp* rsp = new CQxsfRsp(info);
        if (market)
            for (const auto& r : records) rsp->contracts[market][r.InstrumentID] = r;
        engine->AddFileAnswer(std::unique_ptr<CQxsfRsp>(rsp));
    }
    static COrvexWiraInstrumentField Contract(const char* code, double n13, const char* text4) {
        COrvexWiraInstrumentField r;
        std::memset(&r, 0, sizeof(r));
        std::strcpy(r.InstrumentID, code);
        r.Number13 = n13;
        std::strcpy(r.Text4, text4);
        return r;
    }
};

TEST_F(QxsfAnswerTest, ContractFieldsAreMergedWithTheModel) {
    Pending("SHFE", 12, "SHFE", {Contract("CU2403", 0.5, "20170315")});
    engine->CheckQXSFQryInstrument();
    ASSERT_EQ(Answered(), (std::vector<std::string>{"12:cu2403", "12:cu2405!"}));
    const COrvexWiraInstrumentField& first = hookSpi.instruments[0].rec;
    // The model's code wins; the contract's Text4 is merged in.
    EXPECT_EQ(Texts({first.InstrumentID, first.ExchangeInstID, first.Text4}),
              (std::vector<std::string>{"cu2403", "CU2403", "20170315"}));
    EXPECT_EQ(std::make_pair(first.Number13, first.VolumeMultiple), std::make_pair(0.5, 5));
    // No contract record: the previous instrument's contract fields carry over.
    const COrvexWiraInstrumentField& second = hookSpi.instruments[1].rec;
    EXPECT_EQ(second.Number13, 0.5);
    EXPECT_EQ(Texts({second.Text4, second.ExchangeInstID}), (std::vector<std::string>{"20170315", "CU2405"}));
    EXPECT_EQ(engine->FileAnswersWaiting(), 0u);
}

TEST_F(QxsfAnswerTest, UnknownExchangeIsAnsweredWithItsNameAndTheNextAnswerFollows) {
    Pending("XYZ", 1);
    Pending("DCE", 2);
    Pending("SHFE", 3);
    engine->CheckQXSFQryInstrument();
    ASSERT_EQ(Answered(), (std::vector<std::string>{"1:-!", "2:a2405!"}));
    EXPECT_EQ(std::string(hookSpi.instruments[0].info.ErrorMsg), kGbkUnknownExchange + " XYZ.");
    EXPECT_EQ(hookSpi.instruments[0].info.ErrorID, 1);
    ASSERT_EQ(engine->FileAnswersWaiting(), 1u);   // one answer per call
    engine->CheckQXSFQryInstrument();
    EXPECT_EQ(Answered().back(), "3:cu2405!");
    EXPECT_EQ(engine->FileAnswersWaiting(), 0u);
}

TEST_F(QxsfAnswerTest, AnswerWaitsForItsMarketsWhileLaterOnesAreGiven) {
    engine->FindMarket(2001)->NameTableComplete = false;
    Pending("SHFE", 1);
    Pending("", 2);
    Pending("DCE", 3);
    engine->CheckQXSFQryInstrument();
    EXPECT_EQ(Answered(), std::vector<std::string>{"3:a2405!"});
    ASSERT_EQ(engine->FileAnswersWaiting(), 2u);

    engine->FindMarket(2001)->NameTableComplete = true;
    engine->CheckQXSFQryInstrument();
    engine->CheckQXSFQryInstrument();
    EXPECT_EQ(Answered(), (std::vector<std::string>{"3:a2405!", "1:cu2403", "1:cu2405!", "2:cu2403", "2:cu2405",
                                                    "2:a2405!"}));
}

TEST_F(QxsfAnswerTest, AnswerWithoutInstrumentsIsRemovedSilently) {
    Status({Market(5000)});
    Names(5000, {});
    Pending("5000", 4);
    engine->CheckQXSFQryInstrument();
    EXPECT_TRUE(hookSpi.instruments.empty());
    EXPECT_EQ(engine->FileAnswersWaiting(), 0u);
}
