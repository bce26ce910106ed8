// The in-memory market picture kept by the market-data engine: exchanges, back-end
// markets (16-bit ids) and their instruments with the last known quote.
// Written and read by the DC worker thread only; no locks.
#ifndef ORVEX_DC_MARKET_MODEL_H
#define ORVEX_DC_MARKET_MODEL_H

#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/OrvexWiraMdStruct.h"
#include "dc/InstrumentIndex.h"

// Size of one quote row as the quote server sends it; also the size of an
// instrument's raw quote.
constexpr int kQuoteRowSize = 263;

// Raw price rule: 0 is empty (DBL_MAX), 0x80000000 means "no value" (0.0),
// anything else is divided by the instrument's price divisor.
double RawPriceToDouble(int32_t raw, uint32_t divisor);
// Count rule of the snapshot: 0 is empty (DBL_MAX), otherwise the count.
double RawCountToDouble(uint32_t raw);

// Writes DBL_MAX into every price-like double and zero elsewhere, the state
// of a record that has seen no quote yet (Turnover and volumes start at 0).
void InitDepthRecord(COrvexWiraDepthMarketDataField* rec);

// Copies a whole depth record. The record is 408 bytes: the compiler's
// inlined string move for a struct copy of that size starts slowly, so the
// quote path copies it in 16-byte moves instead.
void CopyDepthRecord(COrvexWiraDepthMarketDataField* dst, const COrvexWiraDepthMarketDataField* src);

// Fills an instrument answer record from the model, in the fixed order of
// four unbounded copies: a name of 21 bytes or more runs into ExchangeInstID
// and is then overwritten by it, exactly as the answers have always looked.
class CQxInstrument;
class CQxMarket;
void FillInstrumentRecord(COrvexWiraInstrumentField* rec, const CQxMarket& market, const CQxInstrument& inst);

// Laid out for the pushed-row path: the divisor, the dates and the depth
// record, which every row reads and writes, come first and together, and
// the instrument starts on a cache line, so a row touches as few lines of
// it as the depth record allows. Names and the raw quote follow.
class alignas(64) CQxInstrument {
public:
    CQxInstrument();

    uint32_t priceDivisor;
    uint32_t pushedDate;
    uint32_t quoteDate;      // YYYYMMDD, 0 = never dated (not reported)
    uint32_t quoteTime;      // HHMMSSmmm
    COrvexWiraDepthMarketDataField depth;
    uint16_t attribute1;     // reported as VolumeMultiple
    uint16_t attribute2;     // stored, never read
    char exchangeCode[32];   // code as the exchange writes it
    char marketCode[32];     // code the quote server uses; map key
    char name[64];
    unsigned char rawQuote[kQuoteRowSize];
};

// Map keyed by std::string that can be searched with a string_view, so that
// look-ups on the hot path allocate nothing.
template <class V>
using StringMap = std::map<std::string, V, std::less<>>;

class CQxMarket {
public:
    CQxMarket();
    CQxMarket(uint16_t id, const char* exchange);
    CQxMarket(const CQxMarket& other);
    CQxMarket& operator=(const CQxMarket& other);

    // Instrument by market code, or null. A hashed index keeps this look-up,
    // made for every pushed row, off the ordered map.
    CQxInstrument* FindInstrument(const char* code);
    CQxInstrument* FindInstrument(std::string_view code) { return m_index.Find(code); }
    // Stores an instrument under its market code, replacing one of that code
    // in place (the map node stays, so pointers to it stay valid).
    CQxInstrument& PutInstrument(const CQxInstrument& inst);
    // Empties both instrument maps.
    void ClearInstruments();
    // Instrument by InstrumentID (exchange or market code), or null.
    CQxInstrument* FindInstrumentByID(std::string_view id);
    // Rebuilds the by-id map from the instruments, in market-code order.
    void RebuildIDMap();

    uint16_t marketId;
    char exchangeCode[32];
    uint32_t tradingDay;
    uint32_t secondDay;
    uint32_t timeWord;       // HHMMSSmmm

    // timeWord split up, for comparing pushed rows with the market's clock;
    // worked out again only after timeWord has changed.
    struct ClockParts {
        unsigned h, mi, s, ms;
        unsigned seconds;    // of the day, h * 3600 + mi * 60 + s
        bool plausible;      // h < 24, mi < 60, s < 60
    };
    const ClockParts& Clock() const {
        if (m_clockWord != timeWord) SplitClock();
        return m_clock;
    }
    uint8_t status;
    uint8_t status2;
    // Change the instruments only through PutInstrument and
    // ClearInstruments, which keep the hashed index in step.
    StringMap<CQxInstrument> instruments;
    StringMap<CQxInstrument*> instrumentsById;
    bool UseExchangeCode;
    bool NameTableComplete;

private:
    void RebuildIndex();
    void SplitClock() const;
    // The timeWord m_clock was split from; the pair always agrees.
    mutable uint32_t m_clockWord = 0;
    mutable ClockParts m_clock{0, 0, 0, 0, 0, true};
    // Indexes the keys of `instruments` (map nodes never move).
    CInstrumentIndex m_index;
};

class CQxExchange {
public:
    CQxExchange();

    // Selects the first market with this id; index 0 when none matches.
    void SetMainMarket(unsigned short marketId);
    // The main market, or null for an exchange with no markets.
    CQxMarket* GetMainMarket();

    std::vector<CQxMarket*> markets;   // owned by the engine's market map
    uint16_t mainMarket;
    std::set<std::string, std::less<>> subscribed;
    bool WholeExchange;
};

// The four preferred market ids, one per exchange: SHFE, DCE, CZCE, CFFEX.
class CExtraMarket {
public:
    CExtraMarket();

    // Exchange code of one of the sixteen known ids, else null.
    static const char* GetExchangeID(int marketId);
    // Per exchange base B: B+11, else B+1, else B+10 if offered, else B.
    void ReloadIDSet(const std::set<unsigned short>& present);

    uint32_t ids[4];
};

#endif
