// Appliers of pushed quote rows.
//
// A pushed row is mask A (u32), mask B (u32), market id (u16), market code
// (char[21]), date word (u32), packed time (u32), then the fields the masks
// name, packed in bit order. ProcessPushQuotation applies the row to the
// instrument and reports its whole depth record; ProcessPushQuotationDelta
// applies it and reports only the fields whose raw value changed against the
// instrument's raw quote, with DBL_MAX / 0x7FFFFFFF marking the others.
// DC worker thread only; no allocation.
#include <cfloat>
#include <cstddef>
#include <cstring>
#include <utility>

#include "dc/MdEngine.h"
#include "dc/WireText.h"

namespace {

using dcwire::CopyText;
using dcwire::PrintField;
using dcwire::PrintInt;
using dcwire::Rd;

using F = COrvexWiraDepthMarketDataField;

constexpr int kPushTime = 35;
constexpr int kPushFields = 39;

enum class Kind : uint8_t { Price, Skip, Double8, Count };

// Mask A, bit by bit: the depth record field (as a byte offset), where the
// instrument keeps the raw value in its raw quote, and how the wire value is
// read. Offsets rather than member pointers, so that the unrolled walk below
// stores to fixed places.
struct MainField {
    uint16_t depthOffset;
    uint8_t rawOffset;
    Kind kind;
};
constexpr MainField kMaskA[16] = {
    {offsetof(F, PreClosePrice), 31, Kind::Price},   {offsetof(F, PreSettlementPrice), 35, Kind::Price},
    {offsetof(F, OpenPrice), 39, Kind::Price},       {offsetof(F, HighestPrice), 43, Kind::Price},
    {offsetof(F, LowestPrice), 47, Kind::Price},     {offsetof(F, LastPrice), 51, Kind::Price},
    {offsetof(F, UpperLimitPrice), 55, Kind::Price}, {offsetof(F, LowerLimitPrice), 59, Kind::Price},
    {offsetof(F, AveragePrice), 63, Kind::Price},    {offsetof(F, SettlementPrice), 67, Kind::Price},
    {offsetof(F, ClosePrice), 71, Kind::Price},      {0, 75, Kind::Skip},
    {offsetof(F, Volume), 79, Kind::Double8},        {offsetof(F, OpenInterest), 87, Kind::Count},
    {offsetof(F, PreOpenInterest), 91, Kind::Count}, {offsetof(F, Turnover), 95, Kind::Double8},
};
constexpr int kPreOpenInterestBit = 14;

// Mask B: bits 0-4 bid levels 1-5, 5-9 bid levels 6-10 (skipped), 10-14
// ask levels 1-5, 15-19 ask levels 6-10 (skipped). Each level is a raw
// price and a volume, 8 bytes on the wire and in the raw quote.
struct LevelField {
    uint16_t priceOffset;
    uint16_t volumeOffset;
    uint8_t rawOffset;
    bool applied;
};
constexpr int kRawBid = 183;
constexpr int kRawAsk = 103;
constexpr LevelField kMaskB[20] = {
    {offsetof(F, BidPrice1), offsetof(F, BidVolume1), kRawBid, true},
    {offsetof(F, BidPrice2), offsetof(F, BidVolume2), kRawBid + 8, true},
    {offsetof(F, BidPrice3), offsetof(F, BidVolume3), kRawBid + 16, true},
    {offsetof(F, BidPrice4), offsetof(F, BidVolume4), kRawBid + 24, true},
    {offsetof(F, BidPrice5), offsetof(F, BidVolume5), kRawBid + 32, true},
    {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false},
    {offsetof(F, AskPrice1), offsetof(F, AskVolume1), kRawAsk, true},
    {offsetof(F, AskPrice2), offsetof(F, AskVolume2), kRawAsk + 8, true},
    {offsetof(F, AskPrice3), offsetof(F, AskVolume3), kRawAsk + 16, true},
    {offsetof(F, AskPrice4), offsetof(F, AskVolume4), kRawAsk + 24, true},
    {offsetof(F, AskPrice5), offsetof(F, AskVolume5), kRawAsk + 32, true},
    {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false}, {0, 0, 0, false},
};

constexpr double F::*kBidPrice[5] = {&F::BidPrice1, &F::BidPrice2, &F::BidPrice3, &F::BidPrice4, &F::BidPrice5};
constexpr int F::*kBidVolume[5] = {&F::BidVolume1, &F::BidVolume2, &F::BidVolume3, &F::BidVolume4,
                                   &F::BidVolume5};
constexpr double F::*kAskPrice[5] = {&F::AskPrice1, &F::AskPrice2, &F::AskPrice3, &F::AskPrice4, &F::AskPrice5};
constexpr int F::*kAskVolume[5] = {&F::AskVolume1, &F::AskVolume2, &F::AskVolume3, &F::AskVolume4,
                                   &F::AskVolume5};

// The delta record before a row is applied: zero bytes (padding included)
// with every change-tracked field marked unchanged, DBL_MAX for doubles and
// 0x7FFFFFFF for volumes. Built once; each delta record starts as a copy.
const F& BlankDelta() {
    static const F* const blank = [] {
        static F record;   // static storage: zero-initialised, padding too
        double* unchanged[] = {&record.LastPrice,       &record.PreSettlementPrice, &record.PreClosePrice,
                               &record.PreOpenInterest, &record.OpenPrice,          &record.HighestPrice,
                               &record.LowestPrice,     &record.Volume,             &record.Turnover,
                               &record.OpenInterest,    &record.ClosePrice,         &record.SettlementPrice,
                               &record.UpperLimitPrice, &record.LowerLimitPrice,    &record.PreDelta,
                               &record.CurrDelta,       &record.AveragePrice};
        for (double* p : unchanged) *p = DBL_MAX;
        for (int k = 0; k < 5; ++k) {
            record.*kBidPrice[k] = DBL_MAX;
            record.*kAskPrice[k] = DBL_MAX;
            record.*kBidVolume[k] = 0x7FFFFFFF;
            record.*kAskVolume[k] = 0x7FFFFFFF;
        }
        return &record;
    }();
    return *blank;
}

void SetUpdateTime(CQxInstrument* inst, const char* row) {
    const uint32_t packed = Rd<uint32_t>(row + kPushTime);
    char* text = inst->depth.UpdateTime;
    if (!dcwire::FormatShortTime(text, packed)) CMdEngine::FormatPackedTime(text, packed);
    inst->depth.UpdateMillisec = static_cast<int>(packed & 0x3FF);
}

// The raw price rule of RawPriceToDouble (MarketModel.cpp), inlined here
// because a pushed row converts up to 21 prices; the two must stay alike.
inline double PushPrice(int32_t raw, double divisor) {
    if (raw == 0) return DBL_MAX;
    if (static_cast<uint32_t>(raw) == 0x80000000u) return 0.0;
    return static_cast<double>(raw) / divisor;
}

template <class T>
inline void Put(void* record, size_t offset, T value) {
    std::memcpy(static_cast<char*>(record) + offset, &value, sizeof(value));
}
template <class T>
inline T Get(const void* record, size_t offset) {
    T v;
    std::memcpy(&v, static_cast<const char*>(record) + offset, sizeof(v));
    return v;
}

// State of one walk over a row.
struct RowWalk {
    const char* row;
    int rowLength;
    int pos;               // next field's offset in the row
    bool ended;            // a field ran past rowLength
    bool changed;
    double divisor;
    char* depth;
    unsigned char* raw;
    F* delta;              // null for a full push
};

// One mask A field. The bit's field is compile-time, so each step is a
// handful of loads and stores at fixed offsets; absent bits cost a test.
template <int Bit, bool Delta>
inline void StepA(RowWalk& w, uint32_t maskA) {
    constexpr MainField f = kMaskA[Bit];
    constexpr int width = (f.kind == Kind::Double8) ? 8 : 4;
    if (!(maskA & (1u << Bit)) || w.ended) return;
    if (w.pos + width > w.rowLength) {
        w.ended = true;
        return;
    }
    const char* p = w.row + w.pos;
    w.pos += width;
    if constexpr (f.kind == Kind::Skip) {
        return;
    } else {
        if constexpr (f.kind == Kind::Price) Put(w.depth, f.depthOffset, PushPrice(Rd<int32_t>(p), w.divisor));
        // Unlike the snapshot, a pushed count of 0 is 0.0.
        if constexpr (f.kind == Kind::Count) Put(w.depth, f.depthOffset, static_cast<double>(Rd<uint32_t>(p)));
        if constexpr (f.kind == Kind::Double8) std::memcpy(w.depth + f.depthOffset, p, 8);
        if constexpr (Delta) {
            bool differs;
            if constexpr (f.kind == Kind::Double8) {
                const double diff = Rd<double>(p) - Get<double>(w.raw, f.rawOffset);
                differs = diff > 1e-5 || diff < -1e-5;
            } else {
                differs = std::memcmp(p, w.raw + f.rawOffset, 4) != 0;
            }
            if (!differs) return;
            // A changed previous open interest reports the open interest.
            if constexpr (Bit == kPreOpenInterestBit)
                w.delta->OpenInterest = Get<double>(w.depth, offsetof(F, OpenInterest));
            else
                Put(w.delta, f.depthOffset, Get<double>(w.depth, f.depthOffset));
            std::memcpy(w.raw + f.rawOffset, p, width);
            w.changed = true;
        }
    }
}

// One mask B level.
template <int Bit, bool Delta>
inline void StepB(RowWalk& w, uint32_t maskB) {
    constexpr LevelField f = kMaskB[Bit];
    if (!(maskB & (1u << Bit)) || w.ended) return;
    if (w.pos + 8 > w.rowLength) {
        w.ended = true;
        return;
    }
    const char* p = w.row + w.pos;
    w.pos += 8;
    if constexpr (f.applied) {
        const double price = PushPrice(Rd<int32_t>(p), w.divisor);
        const int32_t volume = Rd<int32_t>(p + 4);
        Put(w.depth, f.priceOffset, price);
        Put(w.depth, f.volumeOffset, volume);
        if constexpr (Delta) {
            if (std::memcmp(p, w.raw + f.rawOffset, 4) != 0) {
                Put(w.delta, f.priceOffset, price);
                std::memcpy(w.raw + f.rawOffset, p, 4);
                w.changed = true;
            }
            if (std::memcmp(p + 4, w.raw + f.rawOffset + 4, 4) != 0) {
                Put(w.delta, f.volumeOffset, volume);
                std::memcpy(w.raw + f.rawOffset + 4, p + 4, 4);
                w.changed = true;
            }
        }
    }
}

template <bool Delta, size_t... A, size_t... B>
inline void WalkRow(RowWalk& w, uint32_t maskA, uint32_t maskB, std::index_sequence<A...>,
                    std::index_sequence<B...>) {
    (StepA<static_cast<int>(A), Delta>(w, maskA), ...);
    (StepB<static_cast<int>(B), Delta>(w, maskB), ...);
}

// Walks both masks of a row, set bits only and in bit order, and stores
// every present field into the instrument's depth record. With a delta
// record, each field whose raw value differs from the raw quote is also
// copied into it and written into the raw quote. Fields that lie beyond
// rowLength end the walk. Returns whether anything differed.
template <bool Delta>
bool ApplyRow(const char* row, int rowLength, CQxInstrument* inst, F* delta) {
    RowWalk w{row,   rowLength, kPushFields, false, false, static_cast<double>(inst->priceDivisor),
              reinterpret_cast<char*>(&inst->depth), inst->rawQuote, delta};
    const uint32_t maskA = Rd<uint32_t>(row) & 0xFFFFu;       // bits 16-31 are ignored
    const uint32_t maskB = Rd<uint32_t>(row + 4) & 0xFFFFFu;  // levels: bits 0-19
    WalkRow<Delta>(w, maskA, maskB, std::make_index_sequence<16>(), std::make_index_sequence<20>());
    return w.changed;
}

}  // namespace

bool CMdEngine::ProcessPushQuotation(const char* row, int rowLength, CQxInstrument* inst, F* out) {
    if (!row || !inst || !out || rowLength < kPushFields) return false;
    SetUpdateTime(inst, row);
    ApplyRow<false>(row, rowLength, inst, nullptr);
    PrintInt(inst->depth.ActionDay, sizeof(inst->depth.ActionDay), static_cast<int>(inst->quoteDate));
    CopyDepthRecord(out, &inst->depth);
    return true;
}

bool CMdEngine::ProcessPushQuotationDelta(const char* row, int rowLength, CQxInstrument* inst, bool* changed,
                                          F* out) {
    if (!row || !inst || !out || rowLength < kPushFields) return false;
    SetUpdateTime(inst, row);

    const F& d = inst->depth;
    CopyDepthRecord(out, &BlankDelta());
    std::memcpy(out->TradingDay, d.TradingDay, sizeof(out->TradingDay));
    std::memcpy(out->InstrumentID, d.InstrumentID, sizeof(out->InstrumentID));
    std::memcpy(out->ExchangeID, d.ExchangeID, sizeof(out->ExchangeID));
    std::memcpy(out->ExchangeInstID, d.ExchangeInstID, sizeof(out->ExchangeInstID));
    std::memcpy(out->UpdateTime, d.UpdateTime, sizeof(out->UpdateTime));
    out->UpdateMillisec = d.UpdateMillisec;
    std::memcpy(out->ActionDay, d.ActionDay, sizeof(out->ActionDay));

    const bool any = ApplyRow<true>(row, rowLength, inst, out);
    PrintInt(inst->depth.ActionDay, sizeof(inst->depth.ActionDay), static_cast<int>(inst->quoteDate));
    if (changed) *changed = any;
    return true;
}
