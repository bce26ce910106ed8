// Depth records of a market whose instruments tick in turn, for the
// benchmarks of the recorder: what a tick moves in a real market, so that
// the journal's deltas are of a real size.
#ifndef ORVEX_BENCH_DEPTH_BOOK_H
#define ORVEX_BENCH_DEPTH_BOOK_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include "OrvexWiraMdStruct.h"

namespace orvex_bench {

// Level `level` (0-4) of the book side whose first field is at `first`.
template <typename T>
void SetLevel(COrvexWiraDepthMarketDataField* d, size_t first, int level, T value) {
    constexpr size_t kStride =
        offsetof(COrvexWiraDepthMarketDataField, BidPrice2) - offsetof(COrvexWiraDepthMarketDataField, BidPrice1);
    std::memcpy(reinterpret_cast<char*>(d) + first + kStride * static_cast<size_t>(level), &value, sizeof(T));
}

// Instruments cu0000, cu0001, ... of SHFE on trading day 20250102, each
// with a last price and five levels a side.
inline std::vector<COrvexWiraDepthMarketDataField> DepthBook(size_t instruments) {
    std::vector<COrvexWiraDepthMarketDataField> book(instruments);
    for (size_t k = 0; k < book.size(); ++k) {
        COrvexWiraDepthMarketDataField& b = book[k];
        std::memset(&b, 0, sizeof(b));
        std::strcpy(b.TradingDay, "20250102");
        std::strcpy(b.ExchangeID, "SHFE");
        std::snprintf(b.InstrumentID, sizeof(b.InstrumentID), "cu%04u", static_cast<unsigned>(k));
        std::strcpy(b.UpdateTime, "10:15:03");
        b.LastPrice = 70000 + static_cast<double>(k);
        b.PreSettlementPrice = b.OpenPrice = b.HighestPrice = b.LowestPrice = b.LastPrice;
        for (int level = 0; level < 5; ++level) {
            SetLevel<double>(&b, offsetof(COrvexWiraDepthMarketDataField, BidPrice1), level, b.LastPrice - 10 * (level + 1));
            SetLevel<double>(&b, offsetof(COrvexWiraDepthMarketDataField, AskPrice1), level, b.LastPrice + 10 * (level + 1));
        }
    }
    return book;
}

}  // namespace orvex_bench

#endif
