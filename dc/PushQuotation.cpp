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
#include <cstring>

#include "dc/DCThread.h"
#include "dc/WireText.h"

namespace {

using dcwire::CopyText;
using dcwire::PrintField;
using dcwire::PrintInt;
using dcwire::Rd;

using F = COrvexWiraDepthMarketDataField;

constexpr int kPushTime = 35;
constexpr int kPushFields = 39;

enum class Kind { Price, Skip, Double8, Count };

// Mask A, bit by bit: the depth record field, where the instrument keeps the
// raw value in its raw quote, and how the wire value is read.
struct MainField {
    double F::*field;
    int rawOffset;
    Kind kind;
};
constexpr MainField kMaskA[16] = {
    {&F::PreClosePrice, 31, Kind::Price},      {&F::PreSettlementPrice, 35, Kind::Price},
    {&F::OpenPrice, 39, Kind::Price},          {&F::HighestPrice, 43, Kind::Price},
    {&F::LowestPrice, 47, Kind::Price},        {&F::LastPrice, 51, Kind::Price},
    {&F::UpperLimitPrice, 55, Kind::Price},    {&F::LowerLimitPrice, 59, Kind::Price},
    {&F::AveragePrice, 63, Kind::Price},       {&F::SettlementPrice, 67, Kind::Price},
    {&F::ClosePrice, 71, Kind::Price},         {nullptr, 75, Kind::Skip},
    {&F::Volume, 79, Kind::Double8},           {&F::OpenInterest, 87, Kind::Count},
    {&F::PreOpenInterest, 91, Kind::Count},    {&F::Turnover, 95, Kind::Double8},
};
constexpr int kPreOpenInterestBit = 14;

constexpr double F::*kBidPrice[5] = {&F::BidPrice1, &F::BidPrice2, &F::BidPrice3, &F::BidPrice4, &F::BidPrice5};
constexpr int F::*kBidVolume[5] = {&F::BidVolume1, &F::BidVolume2, &F::BidVolume3, &F::BidVolume4,
                                   &F::BidVolume5};
constexpr double F::*kAskPrice[5] = {&F::AskPrice1, &F::AskPrice2, &F::AskPrice3, &F::AskPrice4, &F::AskPrice5};
constexpr int F::*kAskVolume[5] = {&F::AskVolume1, &F::AskVolume2, &F::AskVolume3, &F::AskVolume4,
                                   &F::AskVolume5};
constexpr int kRawBid = 183;
constexpr int kRawAsk = 103;

void SetUpdateTime(CQxInstrument* inst, const char* row) {
    const uint32_t packed = Rd<uint32_t>(row + kPushTime);
    CDCThread::FormatPackedTime(inst->depth.UpdateTime, packed);
    inst->depth.UpdateMillisec = static_cast<int>(packed & 0x3FF);
}

// The raw price rule of RawPriceToDouble (MarketModel.cpp), inlined here
// because a pushed row converts up to 21 prices; the two must stay alike.
inline double PushPrice(int32_t raw, uint32_t divisor) {
    if (raw == 0) return DBL_MAX;
    if (static_cast<uint32_t>(raw) == 0x80000000u) return 0.0;
    return static_cast<double>(raw) / static_cast<double>(divisor);
}

// Walks both masks of a row, set bits only and in bit order, and stores
// every present field into the instrument's depth record. With a delta
// record, each field whose raw value differs from the raw quote is also
// copied into it and written into the raw quote. Fields that lie beyond
// rowLength end the walk.
bool ApplyRow(const char* row, int rowLength, CQxInstrument* inst, F* delta) {
    F& d = inst->depth;
    unsigned char* raw = inst->rawQuote;
    const uint32_t divisor = inst->priceDivisor;
    const uint32_t maskA = Rd<uint32_t>(row) & 0xFFFFu;     // bits 16-31 are ignored
    const uint32_t maskB = Rd<uint32_t>(row + 4) & 0xFFFFFu; // levels: bits 0-19
    bool changed = false;
    int pos = kPushFields;
    auto fits = [&](int width) { return pos + width <= rowLength; };

    for (uint32_t bits = maskA; bits != 0; bits &= bits - 1) {
        const int bit = __builtin_ctz(bits);
        const MainField& f = kMaskA[bit];
        const int width = (f.kind == Kind::Double8) ? 8 : 4;
        if (!fits(width)) return changed;
        const char* p = row + pos;
        pos += width;
        switch (f.kind) {
            case Kind::Skip:
                continue;
            case Kind::Price:
                d.*f.field = PushPrice(Rd<int32_t>(p), divisor);
                break;
            case Kind::Count:
                // Unlike the snapshot, a pushed count of 0 is 0.0.
                d.*f.field = static_cast<double>(Rd<uint32_t>(p));
                break;
            case Kind::Double8:
                std::memcpy(&(d.*f.field), p, 8);
                break;
        }
        if (!delta) continue;
        bool differs;
        if (f.kind == Kind::Double8) {
            const double diff = Rd<double>(p) - Rd<double>(reinterpret_cast<const char*>(raw + f.rawOffset));
            differs = diff > 1e-5 || diff < -1e-5;
        } else {
            differs = std::memcmp(p, raw + f.rawOffset, 4) != 0;
        }
        if (!differs) continue;
        // A changed previous open interest reports the open interest.
        if (bit == kPreOpenInterestBit) delta->OpenInterest = d.OpenInterest;
        else delta->*f.field = d.*f.field;
        std::memcpy(raw + f.rawOffset, p, width);
        changed = true;
    }

    // Mask B: bid levels 1-5, bid 6-10 (skipped), ask 1-5, ask 6-10 (skipped).
    for (uint32_t bits = maskB; bits != 0; bits &= bits - 1) {
        const int bit = __builtin_ctz(bits);
        if (!fits(8)) return changed;
        const char* p = row + pos;
        pos += 8;
        const int level = bit % 5;
        const bool bid = bit < 5;
        if (!bid && (bit < 10 || bit >= 15)) continue;
        double F::*price = bid ? kBidPrice[level] : kAskPrice[level];
        int F::*volume = bid ? kBidVolume[level] : kAskVolume[level];
        unsigned char* rawLevel = raw + (bid ? kRawBid : kRawAsk) + 8 * level;
        d.*price = PushPrice(Rd<int32_t>(p), divisor);
        d.*volume = Rd<int32_t>(p + 4);
        if (!delta) continue;
        if (std::memcmp(p, rawLevel, 4) != 0) {
            delta->*price = d.*price;
            std::memcpy(rawLevel, p, 4);
            changed = true;
        }
        if (std::memcmp(p + 4, rawLevel + 4, 4) != 0) {
            delta->*volume = d.*volume;
            std::memcpy(rawLevel + 4, p + 4, 4);
            changed = true;
        }
    }
    return changed;
}

}  // namespace

bool CDCThread::ProcessPushQuotation(const char* row, int rowLength, CQxInstrument* inst, F* out) {
    if (!row || !inst || !out || rowLength < kPushFields) return false;
    SetUpdateTime(inst, row);
    ApplyRow(row, rowLength, inst, nullptr);
    PrintInt(inst->depth.ActionDay, sizeof(inst->depth.ActionDay), static_cast<int>(inst->quoteDate));
    *out = inst->depth;
    return true;
}

bool CDCThread::ProcessPushQuotationDelta(const char* row, int rowLength, CQxInstrument* inst, bool* changed,
                                          F* out) {
    if (!row || !inst || !out || rowLength < kPushFields) return false;
    SetUpdateTime(inst, row);

    const F& d = inst->depth;
    std::memset(out, 0, sizeof(*out));
    std::memcpy(out->TradingDay, d.TradingDay, sizeof(out->TradingDay));
    std::memcpy(out->InstrumentID, d.InstrumentID, sizeof(out->InstrumentID));
    std::memcpy(out->ExchangeID, d.ExchangeID, sizeof(out->ExchangeID));
    std::memcpy(out->ExchangeInstID, d.ExchangeInstID, sizeof(out->ExchangeInstID));
    std::memcpy(out->UpdateTime, d.UpdateTime, sizeof(out->UpdateTime));
    out->UpdateMillisec = d.UpdateMillisec;
    std::memcpy(out->ActionDay, d.ActionDay, sizeof(out->ActionDay));
    double* unchanged[] = {&out->LastPrice,       &out->PreSettlementPrice, &out->PreClosePrice,
                           &out->PreOpenInterest, &out->OpenPrice,          &out->HighestPrice,
                           &out->LowestPrice,     &out->Volume,             &out->Turnover,
                           &out->OpenInterest,    &out->ClosePrice,         &out->SettlementPrice,
                           &out->UpperLimitPrice, &out->LowerLimitPrice,    &out->PreDelta,
                           &out->CurrDelta,       &out->AveragePrice};
    for (double* p : unchanged) *p = DBL_MAX;
    for (int k = 0; k < 5; ++k) {
        out->*kBidPrice[k] = DBL_MAX;
        out->*kAskPrice[k] = DBL_MAX;
        out->*kBidVolume[k] = 0x7FFFFFFF;
        out->*kAskVolume[k] = 0x7FFFFFFF;
    }

    const bool any = ApplyRow(row, rowLength, inst, out);
    PrintInt(inst->depth.ActionDay, sizeof(inst->depth.ActionDay), static_cast<int>(inst->quoteDate));
    if (changed) *changed = any;
    return true;
}
