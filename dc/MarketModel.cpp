#include "dc/MarketModel.h"

#include <emmintrin.h>

#include <cfloat>
#include <cstddef>

double RawPriceToDouble(int32_t raw, uint32_t divisor) {
    if (raw == 0) return DBL_MAX;
    if (static_cast<uint32_t>(raw) == 0x80000000u) return 0.0;
    return static_cast<double>(raw) / static_cast<double>(divisor);
}

double RawCountToDouble(uint32_t raw) {
    if (raw == 0) return DBL_MAX;
    return static_cast<double>(raw);
}

void InitDepthRecord(COrvexWiraDepthMarketDataField* r) {
    std::memset(r, 0, sizeof(*r));
    double* prices[] = {&r->LastPrice,     &r->PreSettlementPrice, &r->PreClosePrice,   &r->PreOpenInterest,
                        &r->OpenPrice,     &r->HighestPrice,       &r->LowestPrice,     &r->OpenInterest,
                        &r->ClosePrice,    &r->SettlementPrice,    &r->UpperLimitPrice, &r->LowerLimitPrice,
                        &r->PreDelta,      &r->CurrDelta,          &r->BidPrice1,       &r->AskPrice1,
                        &r->BidPrice2,     &r->AskPrice2,          &r->BidPrice3,       &r->AskPrice3,
                        &r->BidPrice4,     &r->AskPrice4,          &r->BidPrice5,       &r->AskPrice5,
                        &r->AveragePrice};
    for (double* p : prices) *p = DBL_MAX;
}

void CopyDepthRecord(COrvexWiraDepthMarketDataField* dst, const COrvexWiraDepthMarketDataField* src) {
    static_assert(sizeof(COrvexWiraDepthMarketDataField) == 25 * 16 + 8, "depth record size");
    char* d = reinterpret_cast<char*>(dst);
    const char* s = reinterpret_cast<const char*>(src);
#pragma GCC unroll 25
    for (int i = 0; i < 25; ++i)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * i)));
    std::memcpy(d + 400, s + 400, 8);
}

void FillInstrumentRecord(COrvexWiraInstrumentField* rec, const CQxMarket& market, const CQxInstrument& inst) {
    // The name may be up to 63 bytes; it is allowed to run over into
    // ExchangeInstID (which the next copy overwrites) but never past the
    // record, so each copy is bounded by the bytes left in the record.
    char* base = reinterpret_cast<char*>(rec);
    auto copyAt = [base](size_t offset, const char* text) {
        size_t room = sizeof(COrvexWiraInstrumentField) - offset;
        size_t n = strnlen(text, room - 1);
        std::memcpy(base + offset, text, n);
        base[offset + n] = '\0';
    };
    copyAt(offsetof(COrvexWiraInstrumentField, InstrumentID),
           market.UseExchangeCode ? inst.exchangeCode : inst.marketCode);
    copyAt(offsetof(COrvexWiraInstrumentField, ExchangeID), market.exchangeCode);
    copyAt(offsetof(COrvexWiraInstrumentField, InstrumentName), inst.name);
    copyAt(offsetof(COrvexWiraInstrumentField, ExchangeInstID), inst.exchangeCode);
    rec->VolumeMultiple = static_cast<int>(inst.attribute1);
}

CQxInstrument::CQxInstrument()
    : priceDivisor(0), pushedDate(0), quoteDate(0), quoteTime(0), attribute1(0), attribute2(0) {
    std::memset(exchangeCode, 0, sizeof(exchangeCode));
    std::memset(marketCode, 0, sizeof(marketCode));
    std::memset(name, 0, sizeof(name));
    std::memset(rawQuote, 0, sizeof(rawQuote));
    InitDepthRecord(&depth);
}

CQxMarket::CQxMarket()
    : marketId(0), tradingDay(0), secondDay(0), timeWord(0), status(0), status2(0), UseExchangeCode(false),
      NameTableComplete(false) {
    std::memset(exchangeCode, 0, sizeof(exchangeCode));
}

CQxMarket::CQxMarket(uint16_t id, const char* exchange) : CQxMarket() {
    marketId = id;
    if (exchange) {
        std::strncpy(exchangeCode, exchange, 31);
        exchangeCode[31] = '\0';
    }
}

// A copied market gets its own by-id map pointing into its own instruments:
// a pointer into the source's map would dangle once the source goes away.
CQxMarket::CQxMarket(const CQxMarket& o)
    : marketId(o.marketId), tradingDay(o.tradingDay), secondDay(o.secondDay), timeWord(o.timeWord),
      status(o.status), status2(o.status2), instruments(o.instruments), UseExchangeCode(o.UseExchangeCode),
      NameTableComplete(o.NameTableComplete) {
    std::memcpy(exchangeCode, o.exchangeCode, sizeof(exchangeCode));
    RebuildIndex();
    if (!o.instrumentsById.empty()) RebuildIDMap();
}

CQxMarket& CQxMarket::operator=(const CQxMarket& o) {
    if (this == &o) return *this;
    marketId = o.marketId;
    std::memcpy(exchangeCode, o.exchangeCode, sizeof(exchangeCode));
    tradingDay = o.tradingDay;
    secondDay = o.secondDay;
    timeWord = o.timeWord;
    status = o.status;
    status2 = o.status2;
    instruments = o.instruments;
    RebuildIndex();
    instrumentsById.clear();
    if (!o.instrumentsById.empty()) RebuildIDMap();
    UseExchangeCode = o.UseExchangeCode;
    NameTableComplete = o.NameTableComplete;
    return *this;
}

void CQxMarket::SplitClock() const {
    const uint32_t t = timeWord;
    ClockParts c;
    c.h = t / 10000000u;
    c.mi = t % 10000000u / 100000u;
    c.s = t % 100000u / 1000u;
    c.ms = t % 1000u;
    c.seconds = c.h * 3600 + c.mi * 60 + c.s;
    c.plausible = c.h < 24 && c.mi < 60 && c.s < 60;
    m_clock = c;
    m_clockWord = t;
}

CQxInstrument* CQxMarket::FindInstrument(const char* code) {
    if (!code) return nullptr;
    return FindInstrument(std::string_view(code));
}

CQxInstrument& CQxMarket::PutInstrument(const CQxInstrument& inst) {
    std::string_view code(inst.marketCode, strnlen(inst.marketCode, sizeof(inst.marketCode)));
    auto it = instruments.find(code);
    if (it != instruments.end()) {
        it->second = inst;
        return it->second;
    }
    auto ins = instruments.emplace(std::string(code), inst);
    m_index.Insert(std::string_view(ins.first->first), &ins.first->second);
    return ins.first->second;
}

void CQxMarket::ClearInstruments() {
    m_index.Clear();
    instrumentsById.clear();
    instruments.clear();
}

void CQxMarket::RebuildIndex() {
    m_index.Clear();
    m_index.Reserve(instruments.size());
    for (auto& kv : instruments) m_index.Insert(std::string_view(kv.first), &kv.second);
}

CQxInstrument* CQxMarket::FindInstrumentByID(std::string_view id) {
    auto it = instrumentsById.find(id);
    return it == instrumentsById.end() ? nullptr : it->second;
}

void CQxMarket::RebuildIDMap() {
    instrumentsById.clear();
    for (auto& kv : instruments) {
        CQxInstrument& inst = kv.second;
        instrumentsById[std::string(inst.depth.InstrumentID)] = &inst;
    }
}

CQxExchange::CQxExchange() : mainMarket(0), WholeExchange(false) {}

void CQxExchange::SetMainMarket(unsigned short marketId) {
    mainMarket = 0;
    for (size_t i = 0; i < markets.size(); ++i) {
        if (markets[i] && markets[i]->marketId == marketId) {
            mainMarket = static_cast<uint16_t>(i);
            return;
        }
    }
}

CQxMarket* CQxExchange::GetMainMarket() {
    if (mainMarket >= markets.size()) return nullptr;
    return markets[mainMarket];
}

CExtraMarket::CExtraMarket() : ids{2001, 2101, 2201, 2301} {}

const char* CExtraMarket::GetExchangeID(int id) {
    static const char* const kCodes[4] = {"SHFE", "DCE", "CZCE", "CFFEX"};
    for (int e = 0; e < 4; ++e) {
        int base = 2000 + 100 * e;
        if (id == base || id == base + 1 || id == base + 10 || id == base + 11) return kCodes[e];
    }
    return nullptr;
}

void CExtraMarket::ReloadIDSet(const std::set<unsigned short>& present) {
    for (int e = 0; e < 4; ++e) {
        unsigned short base = static_cast<unsigned short>(2000 + 100 * e);
        if (present.count(base + 11)) ids[e] = base + 11;
        else if (present.count(base + 1)) ids[e] = base + 1;
        else if (present.count(base + 10)) ids[e] = base + 10;
        else ids[e] = base;
    }
}
