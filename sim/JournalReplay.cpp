#include "JournalReplay.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "journal/JournalReader.h"

namespace qxsim {

namespace {

using orvex::journal::Entry;
using orvex::journal::JournalReader;
using Depth = COrvexWiraDepthMarketDataField;
using Status = COrvexWiraMarketStatusField;

constexpr int kDivisors = 5;   // 1, 10, 100, 1000, 10000
constexpr int32_t kDivisor[kDivisors] = {1, 10, 100, 1000, 10000};

std::string Text(const char* field, size_t width) { return std::string(field, strnlen(field, width)); }

// A YYYYMMDD (or any decimal) text field; 0 when it holds no number.
uint32_t NumberOf(const char* field, size_t width) {
    uint32_t v = 0;
    for (size_t i = 0; i < width && field[i] >= '0' && field[i] <= '9'; ++i) v = v * 10 + static_cast<uint32_t>(field[i] - '0');
    return v;
}

// HHMMSS000 of an "HH:MM:SS" text; 0 when it is not one.
uint32_t TimeWordOf(const char* text) {
    unsigned h = 0, m = 0, s = 0;
    char tail = 0;
    if (std::sscanf(text, "%2u:%2u:%2u%c", &h, &m, &s, &tail) != 3 || h > 99 || m > 63 || s > 63) return 0;
    return h * 10000000u + m * 100000u + s * 1000u;
}

int ExchangeOf(const char* id, size_t width) {
    const std::string code = Text(id, width);
    for (int e = 0; e < kExchangeCount; ++e)
        if (code == ExchangeCode(static_cast<Exchange>(e))) return e;
    return -1;
}

uint32_t CountOf(double v) {
    if (!(v > 0) || v == DBL_MAX) return 0;
    if (v >= 4294967295.0) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(std::llround(v));
}

// Every price of a depth record.
std::vector<double> PricesOf(const Depth& d) {
    return {d.LastPrice,  d.PreSettlementPrice, d.PreClosePrice,   d.OpenPrice,       d.HighestPrice,
            d.LowestPrice, d.ClosePrice,        d.SettlementPrice, d.UpperLimitPrice, d.LowerLimitPrice,
            d.AveragePrice, d.BidPrice1,        d.BidPrice2,       d.BidPrice3,       d.BidPrice4,
            d.BidPrice5,  d.AskPrice1,          d.AskPrice2,       d.AskPrice3,       d.AskPrice4,
            d.AskPrice5};
}

// Bit k: divisor kDivisor[k] still carries every price seen exactly (exact)
// or at least within the raw range (fits).
struct DivisorMasks {
    unsigned exact = (1u << kDivisors) - 1;
    unsigned fits = (1u << kDivisors) - 1;

    void See(double p) {
        if (p == DBL_MAX || p == 0) return;   // the two marks, raw 0 and 0x80000000
        for (int k = 0; k < kDivisors; ++k) {
            const double x = p * kDivisor[k];
            if (!(std::fabs(x) < 2147483647.0)) {
                exact &= ~(1u << k);
                fits &= ~(1u << k);
                continue;
            }
            const long long raw = std::llround(x);
            if (raw == 0 || static_cast<double>(raw) / kDivisor[k] != p) exact &= ~(1u << k);
        }
    }
    // The divisor to use and whether it is exact.
    int32_t Choose(bool* isExact) const {
        for (int k = 0; k < kDivisors; ++k)
            if (exact & (1u << k)) {
                *isExact = true;
                return kDivisor[k];
            }
        *isExact = false;
        for (int k = kDivisors - 1; k >= 0; --k)
            if (fits & (1u << k)) return kDivisor[k];
        return 1;
    }
};

struct MarketState {
    uint32_t tradingDay = 0;
    uint8_t status = kStatusTrading;
    uint32_t secondDay = 0;
    uint32_t timeWord = 0;
    bool fromStatus = false;   // set by a market status report
    bool fromMark = false;     // set by a login mark only
};

// Instrument key: exchange number and InstrumentID.
std::string KeyOf(int exchange, const Depth& d) {
    return std::string(1, static_cast<char>('0' + exchange)) + Text(d.InstrumentID, sizeof(d.InstrumentID));
}

struct Found {
    int exchange = 0;
    Depth first;
    DivisorMasks masks;
};

class JournalSource : public ReplaySource {
public:
    JournalSource(std::vector<std::string> files, std::unordered_map<std::string, int> index,
                  std::vector<int32_t> divisors, std::vector<int> marketOf, std::vector<MarketState> states,
                  int64_t firstTime, int64_t recordStartMs)
        : m_files(std::move(files)),
          m_index(std::move(index)),
          m_divisors(std::move(divisors)),
          m_seen(m_divisors.size(), false),
          m_marketOf(std::move(marketOf)),
          m_states(std::move(states)),
          m_firstTime(firstTime),
          m_recordStartMs(recordStartMs) {}

    bool Next(ReplayChange* c) override {
        for (;;) {
            if (!m_open) {
                if (m_nextFile >= m_files.size()) return false;
                m_open = m_reader.Open(m_files[m_nextFile++], nullptr);
                continue;
            }
            Entry e;
            if (!m_reader.Next(&e)) {
                m_reader.Close();
                m_open = false;
                continue;
            }
            if (e.kind == orvex::journal::kDepth && e.size == sizeof(Depth)) {
                Depth d;
                std::memcpy(&d, e.payload, sizeof(d));
                const int exchange = ExchangeOf(d.ExchangeID, sizeof(d.ExchangeID));
                if (exchange < 0) continue;
                auto it = m_index.find(KeyOf(exchange, d));
                if (it == m_index.end()) continue;
                const int index = it->second;
                if (!m_seen[index]) {   // the state the replay starts from
                    m_seen[index] = true;
                    continue;
                }
                *c = ReplayChange();
                c->type = ReplayChange::kQuote;
                c->ms = MsOf(e.time);
                c->index = index;
                c->quote = QuoteOfDepth(d, m_divisors[index]);
                c->alwaysPush = true;
                return true;
            }
            if (e.kind == orvex::journal::kStatus && e.size == sizeof(Status)) {
                Status s;
                std::memcpy(&s, e.payload, sizeof(s));
                const int exchange = ExchangeOf(s.ExchangeID, sizeof(s.ExchangeID));
                const int code = StatusCodeOf(s.MarketStatus);
                if (exchange < 0 || code < 0 || m_marketOf[exchange] < 0) continue;
                const int market = m_marketOf[exchange];
                MarketState& last = m_states[market];
                const uint32_t day = NumberOf(s.TradingDay, sizeof(s.TradingDay));
                const uint32_t second = NumberOf(s.SecondDay, sizeof(s.SecondDay));
                uint32_t time = TimeWordOf(s.UpdateTime);
                const bool sameClock = second == last.secondDay && time / 1000 == last.timeWord / 1000;
                // The library repeats the current status (after a snapshot,
                // at a new login): nothing changed.
                if (day == last.tradingDay && code == last.status && sameClock) continue;
                // The report shows whole seconds, and the library ignores a
                // status that is not later than the market's clock: a second
                // change within one second is stamped a millisecond later.
                if (day == last.tradingDay && sameClock && last.timeWord % 1000 < 999) time = last.timeWord + 1;
                last.tradingDay = day;
                last.status = static_cast<uint8_t>(code);
                last.secondDay = second;
                last.timeWord = time;
                *c = ReplayChange();
                c->type = ReplayChange::kStatus;
                c->ms = MsOf(e.time);
                c->index = market;
                c->tradingDay = day;
                c->status = static_cast<uint8_t>(code);
                c->secondDay = second;
                c->timeWord = time;
                return true;
            }
        }
    }

private:
    int64_t MsOf(int64_t ns) const { return m_recordStartMs + (ns - m_firstTime) / 1000000; }

    std::vector<std::string> m_files;
    std::unordered_map<std::string, int> m_index;
    std::vector<int32_t> m_divisors;
    std::vector<bool> m_seen;
    std::vector<int> m_marketOf;   // market index by exchange, -1: none
    std::vector<MarketState> m_states;
    int64_t m_firstTime;
    int64_t m_recordStartMs;
    size_t m_nextFile = 0;
    bool m_open = false;
    JournalReader m_reader;
};

}  // namespace

int32_t RawPriceOf(double price, int32_t divisor) {
    if (price == DBL_MAX || std::isnan(price)) return 0;
    if (price == 0) return static_cast<int32_t>(0x80000000u);
    const double x = price * divisor;
    if (x >= 2147483647.0) return 2147483647;
    if (x <= -2147483647.0) return -2147483647;
    return static_cast<int32_t>(std::llround(x));
}

int32_t ExactDivisor(const std::vector<double>& prices) {
    DivisorMasks masks;
    for (double p : prices) masks.See(p);
    bool exact = false;
    const int32_t d = masks.Choose(&exact);
    return exact ? d : 0;
}

int StatusCodeOf(char reported) {
    switch (reported) {
        case '0': return kStatusPreOpen;
        case '2': return kStatusTrading;
        case '4': return kStatusAuction;
        case '6': return kStatusClosed;
        default: return -1;
    }
}

QuoteState QuoteOfDepth(const Depth& d, int32_t divisor) {
    QuoteState q;
    q.date = NumberOf(d.ActionDay, sizeof(d.ActionDay));
    const int ms = d.UpdateMillisec < 0 ? 0 : std::min(d.UpdateMillisec, 999);
    q.time = TimeWordOf(d.UpdateTime) + static_cast<uint32_t>(ms);
    auto raw = [divisor](double p) { return RawPriceOf(p, divisor); };
    q.preClose = raw(d.PreClosePrice);
    q.preSettlement = raw(d.PreSettlementPrice);
    q.open = raw(d.OpenPrice);
    q.high = raw(d.HighestPrice);
    q.low = raw(d.LowestPrice);
    q.last = raw(d.LastPrice);
    q.upperLimit = raw(d.UpperLimitPrice);
    q.lowerLimit = raw(d.LowerLimitPrice);
    q.average = raw(d.AveragePrice);
    q.settlement = raw(d.SettlementPrice);
    q.close = raw(d.ClosePrice);
    q.volume = d.Volume;
    q.turnover = d.Turnover;
    q.openInterest = CountOf(d.OpenInterest);
    q.preOpenInterest = CountOf(d.PreOpenInterest);
    const double bidPrice[5] = {d.BidPrice1, d.BidPrice2, d.BidPrice3, d.BidPrice4, d.BidPrice5};
    const double askPrice[5] = {d.AskPrice1, d.AskPrice2, d.AskPrice3, d.AskPrice4, d.AskPrice5};
    const int bidVolume[5] = {d.BidVolume1, d.BidVolume2, d.BidVolume3, d.BidVolume4, d.BidVolume5};
    const int askVolume[5] = {d.AskVolume1, d.AskVolume2, d.AskVolume3, d.AskVolume4, d.AskVolume5};
    for (int k = 0; k < 5; ++k) {
        q.bid[k] = BookLevel{raw(bidPrice[k]), static_cast<uint32_t>(bidVolume[k])};
        q.ask[k] = BookLevel{raw(askPrice[k]), static_cast<uint32_t>(askVolume[k])};
    }
    return q;
}

std::string JournalReplayInfo::Summary() const {
    std::string text = "journal of " + std::to_string(files.size()) + (files.size() == 1 ? " file: " : " files: ") +
                       std::to_string(instruments) + " instruments, " + std::to_string(depthRecords) +
                       " depth records, " + std::to_string(statusReports) + " status reports";
    if (depthRecords > 0) {
        const int64_t seconds = (lastTime - firstTime) / 1000000000;
        char span[48];
        std::snprintf(span, sizeof(span), " over %lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                      static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
        text += span;
    }
    if (inexactInstruments > 0)
        text += "; " + std::to_string(inexactInstruments) + " instruments with prices no divisor up to 10000 carries exactly";
    if (!skipped.empty()) {
        uint64_t total = 0;
        std::string list;
        for (const auto& kv : skipped) {
            total += kv.second;
            list += (list.empty() ? "" : ", ") + (kv.first.empty() ? std::string("(none)") : kv.first) + " " +
                    std::to_string(kv.second);
        }
        text += "; skipped " + std::to_string(total) + " records of other exchanges (" + list + ")";
    }
    return text;
}

bool LooksLikeJournal(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    if (S_ISDIR(st.st_mode)) return true;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    char magic[sizeof(orvex::journal::kMagic)] = {0};
    const bool whole = std::fread(magic, 1, sizeof(magic), f) == sizeof(magic);
    std::fclose(f);
    return whole && std::memcmp(magic, orvex::journal::kMagic, sizeof(magic)) == 0;
}

std::unique_ptr<ReplaySource> OpenJournalReplay(const std::string& path, Market* market, int64_t* recordStartMs,
                                                JournalReplayInfo* info, std::string* error) {
    *info = JournalReplayInfo();
    auto fail = [error](const std::string& why) {
        if (error) *error = why;
        return std::unique_ptr<ReplaySource>();
    };
    std::string why;
    info->files = orvex::journal::JournalFiles(path, &why);
    if (info->files.empty()) return fail(why.empty() ? path + ": no journal files" : why);

    // The first pass: instruments, their first records and divisors, the
    // markets' first states, the names of the instrument answers.
    std::vector<Found> found;
    std::unordered_map<std::string, int> foundIndex;
    std::map<std::string, std::pair<std::string, int>> answers;   // key -> name, volume multiple
    MarketState states[kExchangeCount];
    bool seen[kExchangeCount] = {false, false, false, false};
    uint32_t headerDay = 0;
    bool any = false;
    for (const std::string& file : info->files) {
        JournalReader reader;
        if (!reader.Open(file, &why)) return fail(why);
        if (headerDay == 0) headerDay = NumberOf(reader.Header().tradingDay, sizeof(reader.Header().tradingDay));
        Entry e;
        while (reader.Next(&e)) {
            if (e.kind == orvex::journal::kDepth && e.size == sizeof(Depth)) {
                Depth d;
                std::memcpy(&d, e.payload, sizeof(d));
                const int exchange = ExchangeOf(d.ExchangeID, sizeof(d.ExchangeID));
                if (exchange < 0) {
                    ++info->skipped[Text(d.ExchangeID, sizeof(d.ExchangeID))];
                    continue;
                }
                if (!any) info->firstTime = e.time;
                any = true;
                info->lastTime = e.time;
                ++info->depthRecords;
                seen[exchange] = true;
                auto ins = foundIndex.emplace(KeyOf(exchange, d), static_cast<int>(found.size()));
                if (ins.second) {
                    found.push_back(Found());
                    found.back().exchange = exchange;
                    found.back().first = d;
                }
                DivisorMasks& masks = found[ins.first->second].masks;
                for (double p : PricesOf(d)) masks.See(p);
            } else if (e.kind == orvex::journal::kStatus && e.size == sizeof(Status)) {
                Status s;
                std::memcpy(&s, e.payload, sizeof(s));
                const int exchange = ExchangeOf(s.ExchangeID, sizeof(s.ExchangeID));
                if (exchange < 0) {
                    ++info->skipped[Text(s.ExchangeID, sizeof(s.ExchangeID))];
                    continue;
                }
                const int code = StatusCodeOf(s.MarketStatus);
                if (code >= 0) ++info->statusReports;
                // An exchange whose status is reported has a market, with
                // instruments or without.
                seen[exchange] = true;
                MarketState& m = states[exchange];
                if (m.fromStatus || (code < 0 && (s.MarketStatus != '*' || m.fromMark))) continue;
                m.tradingDay = NumberOf(s.TradingDay, sizeof(s.TradingDay));
                m.secondDay = NumberOf(s.SecondDay, sizeof(s.SecondDay));
                m.timeWord = TimeWordOf(s.UpdateTime);
                if (code >= 0) {
                    m.status = static_cast<uint8_t>(code);
                    m.fromStatus = true;
                } else {
                    m.fromMark = true;
                }
            } else if (e.kind == orvex::journal::kInstrument && e.size == orvex::journal::kInstrumentPayload &&
                       (e.payload[4] & orvex::journal::kHasRecord)) {
                COrvexWiraInstrumentField r;
                std::memcpy(&r, e.payload + orvex::journal::kAnswerHead, sizeof(r));
                const int exchange = ExchangeOf(r.ExchangeID, sizeof(r.ExchangeID));
                if (exchange < 0) continue;
                const std::string key =
                    std::string(1, static_cast<char>('0' + exchange)) + Text(r.InstrumentID, sizeof(r.InstrumentID));
                answers[key] = {Text(r.InstrumentName, sizeof(r.InstrumentName)), r.VolumeMultiple};
            }
        }
    }
    if (found.empty()) return fail(path + ": no depth records of SHFE, DCE, CZCE or CFFEX to replay");

    // The markets, in the exchanges' order.
    std::vector<int> marketOf(kExchangeCount, -1);
    std::vector<MarketState> marketStates;
    for (int e = 0; e < kExchangeCount; ++e) {
        if (!seen[e]) continue;
        MarketState& m = states[e];
        if (!m.fromStatus && !m.fromMark) {
            // No report at all: the day of the header (else of the records)
            // and the clock of the earliest first record.
            for (const Found& f : found) {
                if (f.exchange != e) continue;
                const QuoteState q = QuoteOfDepth(f.first, 1);
                if (m.secondDay == 0 || q.date < m.secondDay || (q.date == m.secondDay && q.time < m.timeWord)) {
                    m.secondDay = q.date;
                    m.timeWord = q.time;
                }
                if (m.tradingDay == 0) m.tradingDay = NumberOf(f.first.TradingDay, sizeof(f.first.TradingDay));
            }
            if (headerDay != 0) m.tradingDay = headerDay;
        }
        marketOf[e] = market->AddMarket(MarketIdOf(static_cast<Exchange>(e), false), static_cast<Exchange>(e));
        market->SetStatus(marketOf[e], m.tradingDay, m.status, m.secondDay, m.timeWord);
        marketStates.push_back(m);
    }

    // The instruments, by exchange and code.
    std::vector<int> order(found.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<int>(i);
    std::sort(order.begin(), order.end(), [&found](int a, int b) {
        if (found[a].exchange != found[b].exchange) return found[a].exchange < found[b].exchange;
        return std::strcmp(found[a].first.InstrumentID, found[b].first.InstrumentID) < 0;
    });
    std::unordered_map<std::string, int> index;
    std::vector<int32_t> divisors;
    for (int i : order) {
        const Found& f = found[i];
        const Depth& d = f.first;
        const std::string key = KeyOf(f.exchange, d);
        Instrument inst;
        inst.code = Text(d.InstrumentID, sizeof(d.InstrumentID));
        const std::string exchangeCode = Text(d.ExchangeInstID, sizeof(d.ExchangeInstID));
        if (!exchangeCode.empty() && exchangeCode != inst.code) inst.exchangeCode = exchangeCode;
        inst.exchange = static_cast<Exchange>(f.exchange);
        inst.marketId = MarketIdOf(inst.exchange, false);
        bool exact = false;
        inst.divisor = f.masks.Choose(&exact);
        if (!exact) ++info->inexactInstruments;
        inst.name = inst.code;
        auto answer = answers.find(key);
        if (answer != answers.end()) {
            if (!answer->second.first.empty()) inst.name = answer->second.first;
            if (answer->second.second > 0)
                inst.multiple = static_cast<uint16_t>(std::min(answer->second.second, 65535));
        }
        inst.nameUtf8 = GbkToUtf8(inst.name);
        inst.quote = QuoteOfDepth(d, inst.divisor);
        const int at = market->AddInstrument(inst);
        index[key] = at;
        divisors.push_back(inst.divisor);
    }
    info->instruments = found.size();

    *recordStartMs = info->firstTime / 1000000;
    market->SetClock(*recordStartMs);
    return std::make_unique<JournalSource>(info->files, std::move(index), std::move(divisors), std::move(marketOf),
                                           std::move(marketStates), info->firstTime, *recordStartMs);
}

}  // namespace qxsim
