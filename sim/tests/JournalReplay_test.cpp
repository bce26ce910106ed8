// Replaying a tick journal: a small journal written with the journal's own
// writer is loaded into the simulated market, and then served through a
// quote session to the library's market-data engine, whose depth records
// and status reports must be the journal's again.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "JournalReplay.h"
#include "Market.h"
#include "MarketRecord.h"
#include "QuoteSession.h"
#include "dc/MarketModel.h"
#include "dc/MdEngine.h"
#include "journal/JournalWriter.h"
#include "protocol/DcFrames.h"

using namespace qxsim;
using orvex_test::BuildDcFrame;
using orvex_test::CutDcFrames;
using orvex_test::DcFrame;
using Depth = COrvexWiraDepthMarketDataField;
using Status = COrvexWiraMarketStatusField;

namespace {

// 2025-01-02 09:30:00 UTC in nanoseconds; only differences matter.
constexpr int64_t kT0 = 1735810200LL * 1000000000LL;
constexpr int64_t kMs = 1000000;

void Put(char* field, size_t room, const std::string& text) {
    std::memset(field, 0, room);
    std::memcpy(field, text.data(), std::min(room - 1, text.size()));
}

// A depth record as the library fills one: every price empty until set.
Depth MakeDepth(const std::string& exchange, const std::string& code, const std::string& time, int ms) {
    Depth d;
    InitDepthRecord(&d);
    Put(d.TradingDay, sizeof(d.TradingDay), "20250102");
    Put(d.InstrumentID, sizeof(d.InstrumentID), code);
    Put(d.ExchangeID, sizeof(d.ExchangeID), exchange);
    Put(d.ExchangeInstID, sizeof(d.ExchangeInstID), code);
    Put(d.UpdateTime, sizeof(d.UpdateTime), time);
    Put(d.ActionDay, sizeof(d.ActionDay), "20250102");
    d.UpdateMillisec = ms;
    return d;
}

// Sets the prices around a last price, with a book one tick wide: raw
// values divided by the divisor, as the library makes its prices.
void Prices(Depth& d, int32_t last, int32_t tick, int32_t divisor) {
    auto price = [divisor](int32_t raw) { return static_cast<double>(raw) / divisor; };
    d.LastPrice = price(last);
    d.PreClosePrice = price(last - 3 * tick);
    d.PreSettlementPrice = price(last - 2 * tick);
    d.OpenPrice = price(last - tick);
    d.HighestPrice = price(last + 5 * tick);
    d.LowestPrice = price(last - 6 * tick);
    d.UpperLimitPrice = price(last + 100 * tick);
    d.LowerLimitPrice = price(last - 100 * tick);
    d.AveragePrice = price(last - tick);
    d.Volume = 1200;
    d.Turnover = 1200 * price(last) * 10;
    d.OpenInterest = 30000;
    d.PreOpenInterest = 29000;
    double* bid[5] = {&d.BidPrice1, &d.BidPrice2, &d.BidPrice3, &d.BidPrice4, &d.BidPrice5};
    double* ask[5] = {&d.AskPrice1, &d.AskPrice2, &d.AskPrice3, &d.AskPrice4, &d.AskPrice5};
    int* bidVolume[5] = {&d.BidVolume1, &d.BidVolume2, &d.BidVolume3, &d.BidVolume4, &d.BidVolume5};
    int* askVolume[5] = {&d.AskVolume1, &d.AskVolume2, &d.AskVolume3, &d.AskVolume4, &d.AskVolume5};
    for (int k = 0; k < 5; ++k) {
        *bid[k] = price(last - k * tick);
        *ask[k] = price(last + (k + 1) * tick);
        *bidVolume[k] = 10 + k;
        *askVolume[k] = 20 + k;
    }
}

Status MakeStatus(const std::string& exchange, char status, const std::string& time) {
    Status s;
    std::memset(&s, 0, sizeof(s));
    Put(s.ExchangeID, sizeof(s.ExchangeID), exchange);
    Put(s.TradingDay, sizeof(s.TradingDay), "20250102");
    Put(s.SecondDay, sizeof(s.SecondDay), "20250102");
    Put(s.UpdateTime, sizeof(s.UpdateTime), time);
    s.MarketStatus = status;
    return s;
}

// The fields of a depth record, one text each, so that a difference names
// the field. Doubles are printed exactly.
std::map<std::string, std::string> FieldsOf(const Depth& d) {
    std::map<std::string, std::string> f;
    auto text = [&](const char* name, const char* v, size_t n) { f[name] = std::string(v, strnlen(v, n)); };
    auto number = [&](const char* name, double v) {
        char buffer[40];
        std::snprintf(buffer, sizeof(buffer), "%a", v);
        f[name] = buffer;
    };
    text("TradingDay", d.TradingDay, sizeof(d.TradingDay));
    text("InstrumentID", d.InstrumentID, sizeof(d.InstrumentID));
    text("ExchangeID", d.ExchangeID, sizeof(d.ExchangeID));
    text("ExchangeInstID", d.ExchangeInstID, sizeof(d.ExchangeInstID));
    text("UpdateTime", d.UpdateTime, sizeof(d.UpdateTime));
    text("ActionDay", d.ActionDay, sizeof(d.ActionDay));
    f["UpdateMillisec"] = std::to_string(d.UpdateMillisec);
    number("LastPrice", d.LastPrice);
    number("PreSettlementPrice", d.PreSettlementPrice);
    number("PreClosePrice", d.PreClosePrice);
    number("PreOpenInterest", d.PreOpenInterest);
    number("OpenPrice", d.OpenPrice);
    number("HighestPrice", d.HighestPrice);
    number("LowestPrice", d.LowestPrice);
    number("Volume", d.Volume);
    number("Turnover", d.Turnover);
    number("OpenInterest", d.OpenInterest);
    number("ClosePrice", d.ClosePrice);
    number("SettlementPrice", d.SettlementPrice);
    number("UpperLimitPrice", d.UpperLimitPrice);
    number("LowerLimitPrice", d.LowerLimitPrice);
    number("PreDelta", d.PreDelta);
    number("CurrDelta", d.CurrDelta);
    number("AveragePrice", d.AveragePrice);
    const double bid[5] = {d.BidPrice1, d.BidPrice2, d.BidPrice3, d.BidPrice4, d.BidPrice5};
    const double ask[5] = {d.AskPrice1, d.AskPrice2, d.AskPrice3, d.AskPrice4, d.AskPrice5};
    const int bidVolume[5] = {d.BidVolume1, d.BidVolume2, d.BidVolume3, d.BidVolume4, d.BidVolume5};
    const int askVolume[5] = {d.AskVolume1, d.AskVolume2, d.AskVolume3, d.AskVolume4, d.AskVolume5};
    for (int k = 0; k < 5; ++k) {
        const std::string n = std::to_string(k + 1);
        number(("BidPrice" + n).c_str(), bid[k]);
        number(("AskPrice" + n).c_str(), ask[k]);
        f["BidVolume" + n] = std::to_string(bidVolume[k]);
        f["AskVolume" + n] = std::to_string(askVolume[k]);
    }
    return f;
}

std::string StatusText(const Status& s) {
    return std::string(s.ExchangeID) + " " + std::string(s.TradingDay, strnlen(s.TradingDay, 9)) + " " +
           std::string(s.SecondDay, strnlen(s.SecondDay, 9)) + " " + std::string(s.UpdateTime, strnlen(s.UpdateTime, 9)) +
           " " + s.MarketStatus;
}

std::string MakeTempDir() {
    std::string pattern = ::testing::TempDir() + "journal-replay-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const char* dir = mkdtemp(buffer.data());
    return dir ? std::string(dir) : std::string();
}

void RemoveTree(const std::string& dir) {
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") std::remove((dir + "/" + name).c_str());
        }
        closedir(d);
    }
    rmdir(dir.c_str());
}

// The library's market-data engine connected to a quote session without a
// socket: requests go into the session, its answers into the engine.
class Wire : public IMdEngineHost {
public:
    explicit Wire(QuoteSession& session) : m_session(session) {}

    int ReqMarketNametable(int market) override { return Queue(1, MarketBody(market, 14)); }
    int ReqMarketStatus(int market) override { return Queue(2, MarketBody(market, 4)); }
    int ReqQuotation(int market) override { return Queue(3, MarketBody(market, 6)); }
    int SubscribeDynainfo(int selector) override {
        std::string body(4, '\0');
        std::memcpy(&body[0], &selector, 4);
        return Queue(100, body);
    }
    bool MayDispatch() override { return true; }
    bool StillConnected() override { return true; }
    void FillLoginIdentity(COrvexWiraRspUserLoginField*) override {}
    int TakeRequestId(unsigned short handle) override { return handle; }
    void LoginAccepted() override { ++accepted; }
    void LoginRefused(int) override {}
    void SaveFamilyAccess(const CFamilyAccess&) override {}
    bool HandOverQuery(const _QryInstrumentInfo&, std::vector<std::string>, COrvexWiraMdSpi*) override { return false; }
    void DumpLog(const char*) override {}

    void Login() {
        std::string body(256, '\0');
        const uint16_t handle = 1;
        std::memcpy(&body[0], &handle, 2);
        std::memcpy(&body[2], "trader", 6);
        Queue(83, body);
    }
    // Moves requests and answers until both sides are quiet.
    void Pump(CMdEngine& engine) {
        for (;;) {
            std::string out = m_session.TakeOutput();
            for (const DcFrame& f : CutDcFrames(out))
                engine.OnFrame(f.command, f.body.data(), static_cast<int>(f.body.size()));
            if (m_requests.empty()) return;
            const std::string frame = BuildDcFrame(m_requests.front().first, m_requests.front().second);
            m_requests.pop_front();
            m_session.OnReceive(frame.data(), frame.size());
        }
    }

    int accepted = 0;

private:
    static std::string MarketBody(int market, size_t length) {
        std::string body(length, '\0');
        const uint16_t id = static_cast<uint16_t>(market);
        std::memcpy(&body[2], &id, 2);
        return body;
    }
    int Queue(int command, const std::string& body) {
        m_requests.emplace_back(command, body);
        return 1;
    }
    QuoteSession& m_session;
    std::deque<std::pair<int, std::string>> m_requests;
};

class Collector : public COrvexWiraMdSpi {
public:
    void OnDepthMarketData(Depth* d) override { depth.push_back(*d); }
    void OnStatusChange(Status* s) override { status.push_back(*s); }
    std::vector<Depth> depth;
    std::vector<Status> status;
};

struct Written {
    int64_t time;
    Depth depth;
};

class JournalReplayTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = MakeTempDir();
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override { RemoveTree(dir); }

    // Writes the session below into DIR/20250102.mdj.
    void WriteJournal() {
        orvex::journal::JournalWriter::Options options;
        options.dir = dir;
        options.flushMs = 0;
        options.log = [](const std::string&) {};
        orvex::journal::JournalWriter writer(options);
        std::string error;
        ASSERT_TRUE(writer.Start(&error)) << error;
        writer.SetTradingDay("20250102");
        auto status = [&](int64_t time, const Status& s) {
            writer.Add(orvex::journal::kStatus, 0, time, &s, sizeof(s));
            statuses.push_back(s);
        };
        auto depth = [&](int64_t time, const Depth& d) {
            writer.Add(orvex::journal::kDepth, 0, time, &d, sizeof(d));
            depths.push_back({time, d});
        };

        // The login: marks, an instrument answer with a GBK name.
        for (const char* e : {"SHFE", "DCE", "CZCE", "CFFEX", "INE"}) status(kT0 - 50 * kMs, MakeStatus(e, '*', "09:29:59"));
        unsigned char answer[orvex::journal::kInstrumentPayload] = {0};
        answer[4] = orvex::journal::kHasRecord | orvex::journal::kIsLast;
        COrvexWiraInstrumentField inst;
        std::memset(&inst, 0, sizeof(inst));
        Put(inst.InstrumentID, sizeof(inst.InstrumentID), "cu2502");
        Put(inst.ExchangeID, sizeof(inst.ExchangeID), "SHFE");
        Put(inst.InstrumentName, sizeof(inst.InstrumentName), Utf8ToGbk("沪铜2502"));
        inst.VolumeMultiple = 5;
        std::memcpy(answer + orvex::journal::kAnswerHead, &inst, sizeof(inst));
        writer.Add(orvex::journal::kInstrument, 0, kT0 - 40 * kMs, answer, sizeof(answer));

        // The snapshot: whole prices, one decimal, two decimals, empty and
        // "no value" prices, an exchange the simulator does not serve.
        Depth cu = MakeDepth("SHFE", "cu2502", "09:29:58", 500);
        Prices(cu, 74210, 10, 1);
        cu.ClosePrice = cu.SettlementPrice = DBL_MAX;
        depth(kT0, cu);
        Depth iron = MakeDepth("DCE", "i2505", "09:29:59", 0);
        Prices(iron, 8125, 5, 10);
        iron.BidPrice5 = DBL_MAX;
        iron.BidVolume5 = 0;
        depth(kT0 + 1 * kMs, iron);
        Depth sugar = MakeDepth("CZCE", "SR505", "09:29:57", 250);
        Prices(sugar, 5890, 1, 1);
        sugar.AveragePrice = 5887.25;
        sugar.OpenPrice = 0.0;
        depth(kT0 + 2 * kMs, sugar);
        Depth index = MakeDepth("CFFEX", "IF2503", "09:29:59", 800);
        Prices(index, 39124, 2, 10);
        Put(index.ExchangeInstID, sizeof(index.ExchangeInstID), "IF2503.X");
        depth(kT0 + 3 * kMs, index);
        Depth crude = MakeDepth("INE", "sc2503", "09:29:59", 0);
        Prices(crude, 5603, 1, 10);
        depth(kT0 + 4 * kMs, crude);

        // The statuses the library reports after the snapshot.
        for (const char* e : {"SHFE", "DCE", "CZCE", "CFFEX"}) status(kT0 + 10 * kMs, MakeStatus(e, '2', "09:29:59"));

        // The session goes on: trades, a row that changes only the time, a
        // book level that empties, two status changes within one second.
        cu.LastPrice = 74220;
        cu.Volume += 3;
        cu.Turnover += 3 * 74220 * 5;
        Put(cu.UpdateTime, sizeof(cu.UpdateTime), "09:30:00");
        cu.UpdateMillisec = 0;
        depth(kT0 + 500 * kMs, cu);
        iron.AskPrice1 = 813.5;
        iron.AskVolume1 = 7;
        iron.BidPrice4 = DBL_MAX;
        iron.BidVolume4 = 0;
        Put(iron.UpdateTime, sizeof(iron.UpdateTime), "09:30:00");
        iron.UpdateMillisec = 500;
        depth(kT0 + 800 * kMs, iron);
        cu.UpdateMillisec = 500;
        depth(kT0 + 1000 * kMs, cu);
        cu.Volume += 1;
        cu.Turnover += 74220 * 5;
        cu.UpdateMillisec = 505;
        depth(kT0 + 1005 * kMs, cu);
        status(kT0 + 1200 * kMs, MakeStatus("CZCE", '4', "09:30:01"));
        status(kT0 + 1250 * kMs, MakeStatus("CZCE", '2', "09:30:01"));
        sugar.LastPrice = 5891;
        sugar.OpenPrice = 5891;
        sugar.AveragePrice = 5888.5;
        Put(sugar.UpdateTime, sizeof(sugar.UpdateTime), "09:30:02");
        sugar.UpdateMillisec = 0;
        depth(kT0 + 2500 * kMs, sugar);
        status(kT0 + 3000 * kMs, MakeStatus("DCE", '6', "09:30:03"));
        status(kT0 + 3100 * kMs, MakeStatus("INE", '6', "09:30:03"));
        writer.Close();
        ASSERT_EQ(0u, writer.GetStats().dropped);
        path = dir + "/20250102.mdj";
    }

    std::string dir;
    std::string path;
    std::vector<Written> depths;
    std::vector<Status> statuses;
};

}  // namespace

TEST(JournalConversion, PricesDivisorsAndStatusesInvertTheLibrarysRules) {
    // The smallest divisor that gives every price back exactly.
    EXPECT_EQ(1, ExactDivisor({74210, 74220, DBL_MAX, 0.0}));
    EXPECT_EQ(10, ExactDivisor({812.5, 813, DBL_MAX}));
    EXPECT_EQ(100, ExactDivisor({5887.25, 5890}));
    EXPECT_EQ(10000, ExactDivisor({0.0001, 1.5}));
    EXPECT_EQ(0, ExactDivisor({1.0 / 3}));
    EXPECT_EQ(0, ExactDivisor({0.00001}));   // would be raw 0, the empty mark
    EXPECT_EQ(0, ExactDivisor({3e8, 0.5}));  // 3e8 × 10 is beyond the raw range
    for (double p : {0.1, 0.3, 812.7, 3912.4, -12.5, 99999.99}) {
        const int32_t d = ExactDivisor({p});
        ASSERT_GT(d, 0) << p;
        EXPECT_EQ(p, RawPriceToDouble(RawPriceOf(p, d), static_cast<uint32_t>(d))) << p;
    }
    // The two marks, and what the library makes of them again.
    EXPECT_EQ(0, RawPriceOf(DBL_MAX, 100));
    EXPECT_EQ(INT32_MIN, RawPriceOf(0.0, 100));
    EXPECT_EQ(DBL_MAX, RawPriceToDouble(RawPriceOf(DBL_MAX, 10), 10));
    EXPECT_EQ(0.0, RawPriceToDouble(RawPriceOf(0.0, 10), 10));

    // Each status the library reports comes from one code.
    for (char c : {'0', '2', '4', '6'}) {
        const int code = StatusCodeOf(c);
        ASSERT_GE(code, 0) << c;
        EXPECT_EQ(c, CMdEngine::StatusChar(static_cast<uint8_t>(code)));
    }
    EXPECT_EQ(-1, StatusCodeOf('*'));
    EXPECT_EQ(-1, StatusCodeOf('1'));
}

TEST_F(JournalReplayTest, BuildsTheMarketFromTheJournal) {
    WriteJournal();
    ASSERT_TRUE(LooksLikeJournal(path));
    ASSERT_TRUE(LooksLikeJournal(dir));
    Market market;
    MarketReplay replay;
    std::string error;
    ASSERT_TRUE(replay.Open(path, &market, 0, &error)) << error;

    // A market per exchange served, with the statuses reported after the snapshot.
    ASSERT_EQ(4u, market.Markets().size());
    for (int e = 0; e < kExchangeCount; ++e) {
        const MarketInfo& m = market.Markets()[e];
        EXPECT_EQ(MarketIdOf(static_cast<Exchange>(e), false), m.id);
        EXPECT_EQ(20250102u, m.tradingDay);
        EXPECT_EQ(kStatusTrading, m.status);
        EXPECT_EQ(20250102u, m.secondDay);
        EXPECT_EQ(92959000u, m.timeWord);
        EXPECT_EQ(1u, m.instruments.size());
    }
    EXPECT_NE(std::string::npos, replay.Summary().find("4 instruments")) << replay.Summary();
    EXPECT_NE(std::string::npos, replay.Summary().find("INE")) << replay.Summary();

    const int cu = market.FindInstrument("cu2502"), iron = market.FindInstrument("i2505");
    const int sugar = market.FindInstrument("SR505"), index = market.FindInstrument("IF2503");
    ASSERT_TRUE(cu >= 0 && iron >= 0 && sugar >= 0 && index >= 0);
    EXPECT_EQ(-1, market.FindInstrument("sc2503"));
    const auto& all = market.Instruments();
    EXPECT_EQ((std::vector<int32_t>{1, 10, 100, 10}),
              (std::vector<int32_t>{all[cu].divisor, all[iron].divisor, all[sugar].divisor, all[index].divisor}));
    // The name and multiple of the instrument answer; the code otherwise.
    EXPECT_EQ(Utf8ToGbk("沪铜2502"), all[cu].name);
    EXPECT_EQ("沪铜2502", all[cu].nameUtf8);
    EXPECT_EQ(5, all[cu].multiple);
    EXPECT_EQ("i2505", all[iron].name);
    EXPECT_EQ("IF2503.X", all[index].exchangeCode);

    // The first records, in raw units.
    const QuoteState& c = all[cu].quote;
    EXPECT_EQ((std::vector<int64_t>{20250102, 92958500, 74210, 74200, 0, 0, 1200, 30000, 29000}),
              (std::vector<int64_t>{c.date, c.time, c.last, c.open, c.close, c.settlement,
                                    static_cast<int64_t>(c.volume), c.openInterest, c.preOpenInterest}));
    const QuoteState& i = all[iron].quote;
    EXPECT_EQ((std::vector<int64_t>{8125, 8130, 8110, 0, 0, 10}),
              (std::vector<int64_t>{i.last, i.ask[0].price, i.bid[3].price, i.bid[4].price, i.bid[4].volume,
                                    i.bid[0].volume}));
    const QuoteState& s = all[sugar].quote;
    EXPECT_EQ((std::vector<int64_t>{589000, 588725, INT32_MIN}), (std::vector<int64_t>{s.last, s.average, s.open}));
    EXPECT_EQ(39124, all[index].quote.last);
}

TEST_F(JournalReplayTest, ChangesComeDueAtTheirRecordedOffsets) {
    WriteJournal();
    Market market;
    MarketReplay replay;
    std::string error;
    const int64_t start = 5000000;
    ASSERT_TRUE(replay.Open(dir, &market, start, &error)) << error;
    const int cu = market.FindInstrument("cu2502");
    const int czce = 2;

    EXPECT_TRUE(replay.Step(market, start + 499).empty());
    std::vector<MarketEvent> events = replay.Step(market, start + 500);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(cu, events[0].index);
    EXPECT_EQ(74220, market.Instruments()[cu].quote.last);
    EXPECT_EQ(1u, replay.Step(market, start + 999).size());   // i2505 at 800 ms
    // Both later changes of cu2502 are due: they come in two batches, so
    // that the sessions push the state of each. The first changes only the
    // time and still goes out as a row.
    events = replay.Step(market, start + 1005);
    ASSERT_EQ(1u, events.size());
    EXPECT_NE(0u, events[0].maskA | events[0].maskB);
    EXPECT_EQ(93000500u, market.Instruments()[cu].quote.time);
    ASSERT_TRUE(replay.Due(start + 1005));
    events = replay.Step(market, start + 1005);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(93000505u, market.Instruments()[cu].quote.time);
    EXPECT_FALSE(replay.Due(start + 1005));
    // Two statuses in one reported second: the second is a millisecond later.
    events = replay.Step(market, start + 1250);
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(MarketEvent::kStatus, events[1].type);
    EXPECT_EQ(czce, events[1].index);
    EXPECT_EQ(kStatusTrading, market.Markets()[czce].status);
    EXPECT_EQ(93001001u, market.Markets()[czce].timeWord);
    EXPECT_FALSE(replay.Finished());
    EXPECT_EQ(2u, replay.Step(market, start + 3100).size());   // SR505, DCE closed; INE skipped
    EXPECT_EQ(kStatusClosed, market.Markets()[1].status);
    EXPECT_TRUE(replay.Finished());
    EXPECT_EQ(8u, replay.Applied());
}

TEST_F(JournalReplayTest, TheLibraryReportsTheRecordedRecordsAgain) {
    WriteJournal();
    Market market;
    MarketReplay replay;
    std::string error;
    const int64_t start = 7000000;
    ASSERT_TRUE(replay.Open(path, &market, start, &error)) << error;

    QuoteOptions options;
    options.indexEvery = 0;
    QuoteSession session(market, options);
    Wire wire(session);
    MdEngineSettings settings;
    CMdEngine engine(wire, settings);
    Collector spi;
    engine.SetSpi(&spi);
    wire.Login();
    wire.Pump(engine);
    ASSERT_EQ(1, wire.accepted);
    // Steps of 20 ms, as the server makes them, placed so that the two
    // changes of cu2502 5 ms apart fall into one step: two batches.
    for (int64_t t = start + 7; t <= start + 3500; t += 20) {
        do {
            session.OnMarketEvents(replay.Step(market, t));
            wire.Pump(engine);
        } while (replay.Due(t));
    }
    ASSERT_TRUE(replay.Finished());

    // Every depth record of the served exchanges, in the order of each
    // instrument, field by field.
    std::map<std::string, std::vector<Depth>> want, got;
    for (const Written& w : depths)
        if (std::string(w.depth.ExchangeID) != "INE") want[w.depth.InstrumentID].push_back(w.depth);
    for (const Depth& d : spi.depth) got[d.InstrumentID].push_back(d);
    ASSERT_EQ(want.size(), got.size());
    for (const auto& kv : want) {
        const std::vector<Depth>& replayed = got[kv.first];
        ASSERT_EQ(kv.second.size(), replayed.size()) << kv.first;
        for (size_t n = 0; n < replayed.size(); ++n)
            EXPECT_EQ(FieldsOf(kv.second[n]), FieldsOf(replayed[n])) << kv.first << " record " << n;
    }

    // The market statuses of each exchange, the login marks and INE left out.
    std::map<std::string, std::vector<std::string>> wantStatus, gotStatus;
    for (const Status& s : statuses)
        if (s.MarketStatus != '*' && std::string(s.ExchangeID) != "INE") wantStatus[s.ExchangeID].push_back(StatusText(s));
    for (const Status& s : spi.status)
        if (s.MarketStatus != '*') gotStatus[s.ExchangeID].push_back(StatusText(s));
    EXPECT_EQ(wantStatus, gotStatus);
}

TEST_F(JournalReplayTest, UnreadablePathsAreRefusedWithTheReason) {
    Market market;
    MarketReplay replay;
    std::string error;
    EXPECT_FALSE(replay.Open(dir + "/missing.mdj", &market, 0, &error));
    EXPECT_NE(std::string::npos, error.find(dir + "/missing.mdj")) << error;
    EXPECT_NE(std::string::npos, error.find("No such file")) << error;

    // A directory without journals.
    EXPECT_FALSE(replay.Open(dir, &market, 0, &error));
    EXPECT_NE(std::string::npos, error.find("no journal files")) << error;

    // A journal whose header is damaged.
    const std::string broken = dir + "/20250103.mdj";
    std::string bytes(orvex::journal::kMagic, sizeof(orvex::journal::kMagic));
    bytes.resize(200, '\x7f');
    FILE* f = std::fopen(broken.c_str(), "wb");
    ASSERT_TRUE(f);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    EXPECT_FALSE(replay.Open(broken, &market, 0, &error));
    EXPECT_NE(std::string::npos, error.find("not supported")) << error;
    std::remove(broken.c_str());

    // Neither format.
    const std::string text = dir + "/notes.txt";
    f = std::fopen(text.c_str(), "w");
    ASSERT_TRUE(f);
    std::fputs("hello\n", f);
    std::fclose(f);
    EXPECT_FALSE(replay.Open(text, &market, 0, &error));
    EXPECT_NE(std::string::npos, error.find("neither a market recording nor a tick journal")) << error;
    std::remove(text.c_str());

    // A journal with nothing the simulator serves.
    orvex::journal::JournalWriter::Options options;
    options.dir = dir;
    options.log = [](const std::string&) {};
    orvex::journal::JournalWriter writer(options);
    ASSERT_TRUE(writer.Start(&error)) << error;
    writer.SetTradingDay("20250102");
    Depth crude = MakeDepth("INE", "sc2503", "09:29:59", 0);
    writer.Add(orvex::journal::kDepth, 0, kT0, &crude, sizeof(crude));
    writer.Close();
    EXPECT_FALSE(replay.Open(dir, &market, 0, &error));
    EXPECT_NE(std::string::npos, error.find("no depth records")) << error;
    EXPECT_TRUE(market.Markets().empty());
}
