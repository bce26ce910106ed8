#include "Market.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <unordered_map>

namespace qxsim {

namespace {

int32_t Pow10(int n) {
    int32_t v = 1;
    while (n-- > 0) v *= 10;
    return v;
}

}  // namespace

const char* StatusName(uint8_t code) {
    switch (code) {
        case kStatusPreOpen: return "pre-open";
        case kStatusTrading: return "trading";
        case kStatusAuction: return "auction";
        case kStatusClosed: return "closed";
        default: return "unknown";
    }
}

void DiffQuotes(const QuoteState& a, const QuoteState& b, uint32_t* maskA, uint32_t* maskB) {
    uint32_t m = 0;
    if (a.preClose != b.preClose) m |= kChPreClose;
    if (a.preSettlement != b.preSettlement) m |= kChPreSettlement;
    if (a.open != b.open) m |= kChOpen;
    if (a.high != b.high) m |= kChHigh;
    if (a.low != b.low) m |= kChLow;
    if (a.last != b.last) m |= kChLast;
    if (a.upperLimit != b.upperLimit) m |= kChUpperLimit;
    if (a.lowerLimit != b.lowerLimit) m |= kChLowerLimit;
    if (a.average != b.average) m |= kChAverage;
    if (a.settlement != b.settlement) m |= kChSettlement;
    if (a.close != b.close) m |= kChClose;
    if (a.volume != b.volume) m |= kChVolume;
    if (a.openInterest != b.openInterest) m |= kChOpenInterest;
    if (a.preOpenInterest != b.preOpenInterest) m |= kChPreOpenInterest;
    if (a.turnover != b.turnover) m |= kChTurnover;
    uint32_t l = 0;
    for (int k = 0; k < 5; ++k) {
        if (a.bid[k].price != b.bid[k].price || a.bid[k].volume != b.bid[k].volume) l |= 1u << k;
        if (a.ask[k].price != b.ask[k].price || a.ask[k].volume != b.ask[k].volume) l |= 1u << (10 + k);
    }
    *maskA = m;
    *maskB = l;
}

void SplitClock(int64_t epochMs, uint32_t* ymd, uint32_t* hhmmssmmm) {
    time_t seconds = static_cast<time_t>(epochMs / 1000);
    struct tm t;
    localtime_r(&seconds, &t);
    if (ymd) *ymd = static_cast<uint32_t>((t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday);
    if (hhmmssmmm)
        *hhmmssmmm = static_cast<uint32_t>(t.tm_hour * 10000000 + t.tm_min * 100000 + t.tm_sec * 1000 +
                                           static_cast<int>(epochMs % 1000));
}

Market::Market() : m_rng(1) {}

Market::Market(const MarketConfig& config, int64_t nowMs) : m_config(config), m_rng(config.seed), m_clock(nowMs) {
    uint32_t today = 0, now = 0;
    SplitClock(nowMs, &today, &now);
    uint32_t tradingDay = config.tradingDay;
    if (tradingDay == 0) {
        // The night session belongs to the next trading day.
        tradingDay = now >= 210000000u ? NextBusinessDay(today) : BusinessDayOnOrAfter(today);
    }

    for (int e = 0; e < kExchangeCount; ++e) AddMarket(MarketIdOf(static_cast<Exchange>(e), config.deepFeed),
                                                       static_cast<Exchange>(e));
    for (MarketInfo& m : m_markets) {
        m.tradingDay = tradingDay;
        m.status = kStatusTrading;
        m.secondDay = today;
        m.timeWord = now;
    }

    for (const Contract& c : ListContracts(tradingDay, config.instruments)) {
        const Product& p = *c.product;
        Instrument inst;
        inst.code = c.code;
        inst.nameUtf8 = c.name;
        inst.name = config.gbkNames ? Utf8ToGbk(c.name) : c.name;
        inst.exchange = p.exchange;
        inst.marketId = MarketIdOf(p.exchange, config.deepFeed);
        inst.divisor = Pow10(p.decimals);
        inst.multiple = static_cast<uint16_t>(p.multiple > 65535 ? 65535 : p.multiple);
        inst.tickRaw = p.tickRaw;
        inst.limitRate = p.limitRate;
        inst.activity = p.activity * std::pow(0.55, c.rank);
        inst.listDate = c.listDate;
        inst.expireDate = c.expireDate;
        inst.deliveryStart = c.deliveryStart;
        inst.deliveryEnd = c.deliveryEnd;
        // Later months trade at a small premium or discount.
        std::uniform_real_distribution<double> basis(-0.004, 0.006);
        double price = p.price * std::pow(1.0 + basis(m_rng), c.rank);
        inst.anchor = RoundToTick(price * inst.divisor, inst.tickRaw);
        int index = AddInstrument(inst);
        InitialState(m_instruments[index], c.rank);
    }
    m_phaseStart = nowMs;
}

int Market::AddMarket(uint16_t id, Exchange exchange) {
    MarketInfo m;
    m.id = id;
    m.exchange = exchange;
    m_markets.push_back(m);
    return static_cast<int>(m_markets.size()) - 1;
}

int Market::AddInstrument(const Instrument& instrument) {
    m_instruments.push_back(instrument);
    const int index = static_cast<int>(m_instruments.size()) - 1;
    for (MarketInfo& m : m_markets) {
        if (m.id != instrument.marketId) continue;
        m.instruments.push_back(index);
        std::sort(m.instruments.begin(), m.instruments.end(),
                  [this](int a, int b) { return m_instruments[a].code < m_instruments[b].code; });
    }
    const double before = m_cumulative.empty() ? 0.0 : m_cumulative.back();
    m_cumulative.push_back(before + instrument.activity);
    return index;
}

const MarketInfo* Market::FindMarket(uint16_t id) const {
    for (const MarketInfo& m : m_markets)
        if (m.id == id) return &m;
    return nullptr;
}

int Market::FindInstrument(const std::string& code) const {
    for (size_t i = 0; i < m_instruments.size(); ++i)
        if (m_instruments[i].code == code) return static_cast<int>(i);
    return -1;
}

int32_t Market::RoundToTick(double raw, int32_t tick) const {
    if (tick <= 0) tick = 1;
    int32_t v = static_cast<int32_t>(std::llround(raw / tick)) * tick;
    return v < tick ? tick : v;
}

void Market::InitialState(Instrument& inst, int rank) {
    QuoteState& q = inst.quote;
    const int32_t tick = inst.tickRaw;
    std::normal_distribution<double> move(0.0, 0.006);
    std::uniform_real_distribution<double> unit(0.0, 1.0);

    q.preSettlement = RoundToTick(inst.anchor * (1.0 + move(m_rng)), tick);
    q.preClose = RoundToTick(q.preSettlement * (1.0 + move(m_rng) / 3), tick);
    q.upperLimit = RoundToTick(q.preSettlement * (1.0 + inst.limitRate), tick);
    q.lowerLimit = RoundToTick(q.preSettlement * (1.0 - inst.limitRate), tick);
    auto within = [&q](int32_t v) { return std::max(q.lowerLimit, std::min(q.upperLimit, v)); };
    q.open = within(RoundToTick(q.preClose * (1.0 + move(m_rng) / 2), tick));
    q.last = within(RoundToTick(q.open * (1.0 + move(m_rng)), tick));
    q.high = std::max(q.open, q.last) + tick * static_cast<int32_t>(unit(m_rng) * 12);
    q.low = std::min(q.open, q.last) - tick * static_cast<int32_t>(unit(m_rng) * 12);
    q.high = std::min(q.high, q.upperLimit);
    q.low = std::max(q.low, q.lowerLimit);

    // A session that has been running for a while.
    const double scale = inst.activity * (rank == 0 ? 1.0 : 0.6);
    q.volume = std::floor(200 + scale * (20000 + unit(m_rng) * 180000));
    const double mid = (q.high + q.low) / 2.0;
    q.average = RoundToTick(mid, 1);
    q.turnover = q.volume * (static_cast<double>(q.average) / inst.divisor) * inst.multiple;
    q.preOpenInterest = static_cast<uint32_t>(1000 + scale * (50000 + unit(m_rng) * 400000));
    const double oiMove = (unit(m_rng) - 0.45) * 0.05;
    q.openInterest = static_cast<uint32_t>(std::max(0.0, q.preOpenInterest * (1.0 + oiMove)));
    RebuildBook(inst);
    Stamp(inst);
}

void Market::RebuildBook(Instrument& inst) {
    QuoteState& q = inst.quote;
    const int32_t tick = inst.tickRaw;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::exponential_distribution<double> size(1.0);
    const double mean = 3 + 80 * inst.activity;

    // Best bid at or one tick under the last price, best ask one tick (now
    // and then two) above the bid.
    int32_t bid1 = q.last - (unit(m_rng) < 0.5 ? 0 : tick);
    int32_t ask1 = bid1 + (unit(m_rng) < 0.9 ? tick : 2 * tick);
    for (int k = 0; k < 5; ++k) {
        const BookLevel oldBid = q.bid[k], oldAsk = q.ask[k];
        BookLevel b{bid1 - k * tick, 0}, a{ask1 + k * tick, 0};
        // A level at an unchanged price keeps most of its size.
        b.volume = (b.price == oldBid.price && oldBid.volume > 0 && unit(m_rng) < 0.7)
                       ? oldBid.volume
                       : static_cast<uint32_t>(1 + size(m_rng) * mean);
        a.volume = (a.price == oldAsk.price && oldAsk.volume > 0 && unit(m_rng) < 0.7)
                       ? oldAsk.volume
                       : static_cast<uint32_t>(1 + size(m_rng) * mean);
        // Nothing is quoted outside the day's price limits.
        if (b.price < q.lowerLimit || b.price <= 0) b = BookLevel{};
        if (a.price > q.upperLimit) a = BookLevel{};
        q.bid[k] = b;
        q.ask[k] = a;
    }
}

void Market::Stamp(Instrument& inst) { SplitClock(m_clock, &inst.quote.date, &inst.quote.time); }

void Market::Tick(Instrument& inst, bool trade) {
    QuoteState& q = inst.quote;
    const int32_t tick = inst.tickRaw;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    if (trade) {
        // A walk in ticks, pulled gently towards the anchor price.
        const double away = (static_cast<double>(q.last) - inst.anchor) / (inst.anchor * 0.02 + tick);
        std::normal_distribution<double> move(-0.25 * std::max(-1.0, std::min(1.0, away)), 0.9);
        const int ticks = static_cast<int>(std::lround(move(m_rng)));
        int32_t price;
        if (ticks > 0) price = (q.ask[0].price ? q.ask[0].price : q.last) + (ticks - 1) * tick;
        else if (ticks < 0) price = (q.bid[0].price ? q.bid[0].price : q.last) + (ticks + 1) * tick;
        else price = unit(m_rng) < 0.5 && q.bid[0].price ? q.bid[0].price : (q.ask[0].price ? q.ask[0].price : q.last);
        price = std::max(q.lowerLimit, std::min(q.upperLimit, price));

        std::exponential_distribution<double> lotsOf(1.0);
        const uint32_t lots = 1 + static_cast<uint32_t>(lotsOf(m_rng) * (2 + 10 * inst.activity));
        q.last = price;
        if (q.open == 0) q.open = price;
        q.high = q.high == 0 ? price : std::max(q.high, price);
        q.low = q.low == 0 ? price : std::min(q.low, price);
        q.volume += lots;
        q.turnover += lots * (static_cast<double>(price) / inst.divisor) * inst.multiple;
        q.average = static_cast<int32_t>(std::llround(q.turnover / q.volume / inst.multiple * inst.divisor));
        std::uniform_int_distribution<int> oi(-static_cast<int>(lots), static_cast<int>(lots));
        const int64_t interest = static_cast<int64_t>(q.openInterest) + oi(m_rng);
        q.openInterest = static_cast<uint32_t>(interest < 0 ? 0 : interest);
        RebuildBook(inst);
    } else {
        // Orders come and go: a few levels change size.
        std::uniform_int_distribution<int> level(0, 4);
        for (int n = 1 + level(m_rng) / 2; n > 0; --n) {
            BookLevel& l = unit(m_rng) < 0.5 ? q.bid[level(m_rng)] : q.ask[level(m_rng)];
            if (l.price == 0) continue;
            std::uniform_int_distribution<int> change(-static_cast<int>(l.volume / 2), static_cast<int>(l.volume / 2) + 5);
            const int64_t v = static_cast<int64_t>(l.volume) + change(m_rng);
            l.volume = static_cast<uint32_t>(v < 1 ? 1 : v);
        }
    }
    Stamp(inst);
}

int Market::PickInstrument() {
    if (m_cumulative.empty()) return -1;
    std::uniform_real_distribution<double> pick(0.0, m_cumulative.back());
    const double x = pick(m_rng);
    auto it = std::upper_bound(m_cumulative.begin(), m_cumulative.end(), x);
    if (it == m_cumulative.end()) --it;
    return static_cast<int>(it - m_cumulative.begin());
}

void Market::ChangeStatus(uint8_t status, bool newDay, std::vector<MarketEvent>& events) {
    uint32_t day = 0, time = 0;
    SplitClock(m_clock, &day, &time);
    for (size_t i = 0; i < m_markets.size(); ++i) {
        MarketInfo& m = m_markets[i];
        m.status = status;
        m.secondDay = day;
        m.timeWord = time;
        MarketEvent e;
        e.type = MarketEvent::kStatus;
        e.index = static_cast<int>(i);
        e.newTradingDay = newDay;
        events.push_back(e);
    }
}

void Market::CloseDay(std::vector<MarketEvent>& events) {
    for (size_t i = 0; i < m_instruments.size(); ++i) {
        Instrument& inst = m_instruments[i];
        const QuoteState before = inst.quote;
        QuoteState& q = inst.quote;
        q.close = q.last;
        q.settlement = RoundToTick(q.average ? q.average : q.last, inst.tickRaw);
        Stamp(inst);
        MarketEvent e;
        e.index = static_cast<int>(i);
        DiffQuotes(before, q, &e.maskA, &e.maskB);
        if (e.maskA || e.maskB) events.push_back(e);
    }
    ChangeStatus(kStatusClosed, false, events);
}

void Market::StartDay(uint32_t tradingDay) {
    for (MarketInfo& m : m_markets) m.tradingDay = tradingDay;
    for (Instrument& inst : m_instruments) {
        QuoteState& q = inst.quote;
        q.preClose = q.close ? q.close : q.last;
        q.preSettlement = q.settlement ? q.settlement : q.last;
        q.preOpenInterest = q.openInterest;
        q.upperLimit = RoundToTick(q.preSettlement * (1.0 + inst.limitRate), inst.tickRaw);
        q.lowerLimit = RoundToTick(q.preSettlement * (1.0 - inst.limitRate), inst.tickRaw);
        q.open = q.high = q.low = 0;
        q.average = q.settlement = q.close = 0;
        q.volume = 0;
        q.turnover = 0;
        q.last = std::max(q.lowerLimit, std::min(q.upperLimit, q.last));
        RebuildBook(inst);
        Stamp(inst);
    }
    ++m_rolls;
}

std::vector<MarketEvent> Market::Step(int64_t nowMs) {
    std::vector<MarketEvent> events;
    if (nowMs < m_clock) nowMs = m_clock;
    const int64_t elapsed = nowMs - m_clock;
    m_clock = nowMs;
    if (m_markets.empty()) return events;

    if (m_config.sessionSeconds > 0) {
        const int64_t inPhase = nowMs - m_phaseStart;
        const uint8_t status = m_markets[0].status;
        if (status == kStatusTrading && inPhase >= m_config.sessionSeconds * 1000LL) {
            CloseDay(events);
            m_phaseStart = nowMs;
        } else if (status == kStatusClosed && inPhase >= m_config.closedSeconds * 1000LL) {
            StartDay(NextBusinessDay(m_markets[0].tradingDay));
            ChangeStatus(kStatusAuction, true, events);
            // The new day's first quotes: limits and previous prices moved,
            // the day's counters back at zero.
            for (size_t i = 0; i < m_instruments.size(); ++i) {
                MarketEvent e;
                e.index = static_cast<int>(i);
                e.maskA = kAllMainFields;
                e.maskB = kAllLevels;
                events.push_back(e);
            }
            m_phaseStart = nowMs;
        } else if (status == kStatusAuction && inPhase >= m_config.auctionSeconds * 1000LL) {
            ChangeStatus(kStatusTrading, false, events);
            m_phaseStart = nowMs;
        }
    }

    const uint8_t status = m_markets[0].status;
    if (status != kStatusTrading && status != kStatusAuction) return events;
    m_carry += m_config.rate * static_cast<double>(elapsed) / 1000.0;
    int updates = static_cast<int>(m_carry);
    m_carry -= updates;
    updates = std::min(updates, 20000);

    std::unordered_map<int, size_t> merged;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int n = 0; n < updates; ++n) {
        const int index = PickInstrument();
        if (index < 0) break;
        Instrument& inst = m_instruments[index];
        const QuoteState before = inst.quote;
        Tick(inst, status == kStatusTrading && unit(m_rng) < 0.6);
        uint32_t a = 0, b = 0;
        DiffQuotes(before, inst.quote, &a, &b);
        ++m_updates;
        if (a == 0 && b == 0) continue;
        auto it = merged.find(index);
        if (it == merged.end()) {
            MarketEvent e;
            e.index = index;
            e.maskA = a;
            e.maskB = b;
            merged[index] = events.size();
            events.push_back(e);
        } else {
            events[it->second].maskA |= a;
            events[it->second].maskB |= b;
        }
    }
    return events;
}

void Market::SetClock(int64_t epochMs) {
    if (epochMs > m_clock) m_clock = epochMs;
}

MarketEvent Market::SetQuote(int index, const QuoteState& quote) {
    MarketEvent e;
    e.index = index;
    if (index < 0 || index >= static_cast<int>(m_instruments.size())) return e;
    DiffQuotes(m_instruments[index].quote, quote, &e.maskA, &e.maskB);
    m_instruments[index].quote = quote;
    ++m_updates;
    return e;
}

MarketEvent Market::SetStatus(int marketIndex, uint32_t tradingDay, uint8_t status, uint32_t secondDay,
                              uint32_t timeWord) {
    MarketEvent e;
    e.type = MarketEvent::kStatus;
    e.index = marketIndex;
    if (marketIndex < 0 || marketIndex >= static_cast<int>(m_markets.size())) return e;
    MarketInfo& m = m_markets[marketIndex];
    e.newTradingDay = m.tradingDay != 0 && m.tradingDay != tradingDay;
    if (e.newTradingDay && marketIndex == 0) ++m_rolls;
    m.tradingDay = tradingDay;
    m.status = status;
    m.secondDay = secondDay;
    m.timeWord = timeWord;
    return e;
}

}  // namespace qxsim
