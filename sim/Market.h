// The simulated market: four exchanges, each fed by one back-end market,
// and a few hundred futures contracts whose prices follow a random walk.
//
// Everything is held in raw quote-server units: prices as integers to be
// divided by the instrument's price divisor, volume and turnover as
// doubles that only grow during a trading day, open interest as a count.
// The market has a clock (milliseconds since the epoch, read as local
// time) that the owner advances with Step(); each step returns what
// changed, as events that the quote sessions turn into pushes.
//
// A trading day runs through the statuses
//   trading (1) -> closed (6) -> [new trading day] auction (2) -> trading (1)
// when a session length is set; without one the market trades for ever.
// Nothing here touches sockets or files.
#ifndef QXSIM_MARKET_H
#define QXSIM_MARKET_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Catalog.h"

namespace qxsim {

// Market status codes as the quote server sends them.
enum : uint8_t {
    kStatusPreOpen = 0,
    kStatusTrading = 1,
    kStatusAuction = 2,
    kStatusClosed = 6,
};
const char* StatusName(uint8_t code);

struct BookLevel {
    int32_t price = 0;     // raw; 0 = empty level
    uint32_t volume = 0;
};

// What a quote row carries for one instrument.
struct QuoteState {
    uint32_t date = 0;            // calendar day of the quote, YYYYMMDD
    uint32_t time = 0;            // HHMMSSmmm
    int32_t preClose = 0;
    int32_t preSettlement = 0;
    int32_t open = 0;             // 0 until the first trade of the day
    int32_t high = 0;
    int32_t low = 0;
    int32_t last = 0;
    int32_t upperLimit = 0;
    int32_t lowerLimit = 0;
    int32_t average = 0;
    int32_t settlement = 0;       // set when the day closes
    int32_t close = 0;
    double volume = 0;
    double turnover = 0;
    uint32_t openInterest = 0;
    uint32_t preOpenInterest = 0;
    BookLevel bid[5];
    BookLevel ask[5];
};

// Change mask bits of a quote, the same as the pushed row's masks.
enum : uint32_t {
    kChPreClose = 1u << 0,
    kChPreSettlement = 1u << 1,
    kChOpen = 1u << 2,
    kChHigh = 1u << 3,
    kChLow = 1u << 4,
    kChLast = 1u << 5,
    kChUpperLimit = 1u << 6,
    kChLowerLimit = 1u << 7,
    kChAverage = 1u << 8,
    kChSettlement = 1u << 9,
    kChClose = 1u << 10,
    kChVolume = 1u << 12,
    kChOpenInterest = 1u << 13,
    kChPreOpenInterest = 1u << 14,
    kChTurnover = 1u << 15,
    kAllMainFields = 0xF7FFu,         // every field but the reserved word (bit 11)
    kAllLevels = 0x1Fu | (0x1Fu << 10),   // bid 1-5 and ask 1-5
};
// Mask A and mask B of the fields in which two states differ.
void DiffQuotes(const QuoteState& before, const QuoteState& after, uint32_t* maskA, uint32_t* maskB);

struct Instrument {
    std::string code;             // market code, also the exchange's code ("cu2501")
    std::string exchangeCode;     // the exchange's code when it differs from `code` (replays only)
    std::string name;             // GBK display name, as the name table sends it
    std::string nameUtf8;
    Exchange exchange = Exchange::SHFE;
    uint16_t marketId = 0;
    int32_t divisor = 1;          // raw price / divisor = price
    uint16_t multiple = 1;
    int32_t tickRaw = 1;
    double limitRate = 0.07;
    double activity = 1.0;        // relative chance of being picked for a tick
    uint32_t listDate = 0;        // contract dates, for the contract files
    uint32_t expireDate = 0;
    uint32_t deliveryStart = 0;
    uint32_t deliveryEnd = 0;
    int32_t anchor = 0;           // price the walk is pulled towards
    QuoteState quote;
};

struct MarketInfo {
    uint16_t id = 0;
    Exchange exchange = Exchange::SHFE;
    uint32_t tradingDay = 0;      // YYYYMMDD
    uint8_t status = kStatusTrading;
    uint32_t secondDay = 0;       // calendar day of the last status change
    uint32_t timeWord = 0;        // HHMMSSmmm of the last status change
    std::vector<int> instruments; // indexes into Market::Instruments(), by code
};

struct MarketEvent {
    enum Type : uint8_t { kQuote, kStatus };
    Type type = kQuote;
    int index = 0;                // instrument index, or market index for kStatus
    uint32_t maskA = 0;           // changed fields of a quote
    uint32_t maskB = 0;
    bool newTradingDay = false;   // kStatus: the market rolled to a new trading day
};

struct MarketConfig {
    int instruments = 300;
    unsigned seed = 1;
    double rate = 200;            // quote updates per second over the whole market
    int sessionSeconds = 0;       // length of a trading session; 0: no close, no roll
    int closedSeconds = 3;        // pause between close and the next trading day
    int auctionSeconds = 2;       // opening call auction of a new trading day
    bool deepFeed = false;        // serve market ids 2011, 2111, ... instead of 2001, ...
    bool gbkNames = true;         // names in GBK (else UTF-8)
    uint32_t tradingDay = 0;      // first trading day; 0: today (or the next business day)
};

// Local calendar day and HHMMSSmmm of a clock value.
void SplitClock(int64_t epochMs, uint32_t* ymd, uint32_t* hhmmssmmm);

class Market {
public:
    // A market with the catalogue's contracts, in a plausible mid-session
    // state at clock `nowMs`.
    Market(const MarketConfig& config, int64_t nowMs);
    // An empty market, filled by a recording (see MarketRecord.h).
    Market();

    // Advances the clock to nowMs: status changes that are due, then about
    // rate × elapsed quote updates. Several updates of one instrument in
    // one step are merged into one event.
    std::vector<MarketEvent> Step(int64_t nowMs);

    int64_t Clock() const { return m_clock; }
    const std::vector<Instrument>& Instruments() const { return m_instruments; }
    const std::vector<MarketInfo>& Markets() const { return m_markets; }
    const MarketInfo* FindMarket(uint16_t id) const;
    int FindInstrument(const std::string& code) const;
    uint64_t Updates() const { return m_updates; }
    int Rolls() const { return m_rolls; }

    // Direct changes, used by the replay: they return the event that tells
    // the sessions. SetClock never moves the clock backwards.
    void SetClock(int64_t epochMs);
    MarketEvent SetQuote(int index, const QuoteState& quote);
    MarketEvent SetStatus(int marketIndex, uint32_t tradingDay, uint8_t status, uint32_t secondDay,
                          uint32_t timeWord);
    int AddMarket(uint16_t id, Exchange exchange);
    int AddInstrument(const Instrument& instrument);

private:
    void InitialState(Instrument& inst, int rank);
    void Tick(Instrument& inst, bool trade);
    void RebuildBook(Instrument& inst);
    void Stamp(Instrument& inst);
    void ChangeStatus(uint8_t status, bool newDay, std::vector<MarketEvent>& events);
    void CloseDay(std::vector<MarketEvent>& events);
    void StartDay(uint32_t tradingDay);
    int PickInstrument();
    int32_t RoundToTick(double raw, int32_t tick) const;

    MarketConfig m_config;
    std::mt19937 m_rng;
    int64_t m_clock = 0;
    int64_t m_phaseStart = 0;
    double m_carry = 0;
    std::vector<Instrument> m_instruments;
    std::vector<MarketInfo> m_markets;
    std::vector<double> m_cumulative;   // activity, for picking
    uint64_t m_updates = 0;
    int m_rolls = 0;
};

}  // namespace qxsim

#endif
