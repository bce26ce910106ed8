// Test helpers for journals: records to write, and a journal read back
// into owned entries.
#ifndef ORVEX_TESTS_JOURNAL_KIT_H
#define ORVEX_TESTS_JOURNAL_KIT_H

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "OrvexWiraMdStruct.h"
#include "journal/JournalReader.h"
#include "journal/RecordFields.h"

namespace orvex_test {

// A depth record with every field set, distinct per (seq): prices with
// decimals, an empty price, GBK-free texts.
inline COrvexWiraDepthMarketDataField MakeDepth(const char* id, const char* exchange, int seq,
                                                const char* tradingDay = "20250102") {
    COrvexWiraDepthMarketDataField d;
    std::memset(&d, 0, sizeof(d));
    std::snprintf(d.TradingDay, sizeof(d.TradingDay), "%s", tradingDay);
    std::snprintf(d.InstrumentID, sizeof(d.InstrumentID), "%s", id);
    std::snprintf(d.ExchangeID, sizeof(d.ExchangeID), "%s", exchange);
    std::snprintf(d.ExchangeInstID, sizeof(d.ExchangeInstID), "%s", id);
    std::snprintf(d.ActionDay, sizeof(d.ActionDay), "%s", tradingDay);
    d.LastPrice = 70000.5 + seq * 0.1;   // not exact in binary: 17 digits needed
    d.PreSettlementPrice = 69990;
    d.PreClosePrice = 69980.25;
    d.PreOpenInterest = 123456;
    d.OpenPrice = 70010;
    d.HighestPrice = 70500;
    d.LowestPrice = 69500;
    d.Volume = 1000 + seq;
    d.Turnover = 1.2345678901234567e10 + seq;
    d.OpenInterest = 200000 - seq;
    d.ClosePrice = DBL_MAX;
    d.SettlementPrice = DBL_MAX;
    d.UpperLimitPrice = 75000;
    d.LowerLimitPrice = 65000;
    d.PreDelta = DBL_MAX;
    d.CurrDelta = DBL_MAX;
    char clock[32];
    std::snprintf(clock, sizeof(clock), "%02d:%02d:%02d", 9 + seq / 3600 % 12, seq / 60 % 60, seq % 60);
    std::memcpy(d.UpdateTime, clock, 8);
    d.UpdateMillisec = seq % 2 ? 500 : 0;
    double* bids[5] = {&d.BidPrice1, &d.BidPrice2, &d.BidPrice3, &d.BidPrice4, &d.BidPrice5};
    double* asks[5] = {&d.AskPrice1, &d.AskPrice2, &d.AskPrice3, &d.AskPrice4, &d.AskPrice5};
    int* bidVolumes[5] = {&d.BidVolume1, &d.BidVolume2, &d.BidVolume3, &d.BidVolume4, &d.BidVolume5};
    int* askVolumes[5] = {&d.AskVolume1, &d.AskVolume2, &d.AskVolume3, &d.AskVolume4, &d.AskVolume5};
    for (int i = 0; i < 5; ++i) {
        *bids[i] = d.LastPrice - (i + 1) * 10;
        *asks[i] = d.LastPrice + (i + 1) * 10;
        *bidVolumes[i] = 10 * (i + 1) + seq % 7;
        *askVolumes[i] = 20 * (i + 1) + seq % 5;
    }
    d.AveragePrice = 70001.123456789;
    return d;
}

struct OwnedEntry {
    uint16_t kind;
    uint16_t aux;
    int64_t time;
    std::string payload;
};

// Every whole entry of a file; `torn` gets the bytes after the last one.
inline std::vector<OwnedEntry> ReadJournal(const std::string& path, uint64_t* torn = nullptr,
                                           std::string* error = nullptr) {
    std::vector<OwnedEntry> out;
    orvex::journal::JournalReader r;
    if (!r.Open(path, error)) return out;
    orvex::journal::Entry e;
    while (r.Next(&e))
        out.push_back({e.kind, e.aux, e.time, std::string(reinterpret_cast<const char*>(e.payload), e.size)});
    if (torn) *torn = r.Torn();
    return out;
}

inline std::string FileBytes(const std::string& path) {
    std::string out;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return out;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
    std::fclose(f);
    return out;
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return;
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

// True when two records hold the same values field by field: texts up to
// their NUL, numbers bit for bit. `which` names the first difference.
inline bool SameFields(orvex::journal::FieldList fields, const void* a, const void* b, std::string* which = nullptr) {
    const unsigned char* pa = static_cast<const unsigned char*>(a);
    const unsigned char* pb = static_cast<const unsigned char*>(b);
    for (const orvex::journal::FieldDesc& f : fields) {
        bool same;
        if (f.type == orvex::journal::FieldDesc::Text)
            same = strncmp(reinterpret_cast<const char*>(pa + f.offset), reinterpret_cast<const char*>(pb + f.offset), f.size) == 0;
        else
            same = std::memcmp(pa + f.offset, pb + f.offset, f.size) == 0;
        if (!same) {
            if (which) *which = f.name;
            return false;
        }
    }
    return true;
}

}  // namespace orvex_test

#endif
