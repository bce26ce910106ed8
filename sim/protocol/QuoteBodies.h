// Builders of the quote server's answer bodies (without the 4-byte frame
// header; BuildDcFrame adds it): market status, name tables, quotation
// snapshots, dynamic information (status records, pushed rows, template
// packages) and both forms of the login answer.
//
// All integers are little-endian and unaligned, text fields fixed-width and
// NUL-padded, as the server writes them. Every builder takes plain values,
// so tests, the fake quote server and simulators can describe a market by
// its fields and get the exact bytes.
#ifndef ORVEX_TESTS_QUOTE_BODIES_H
#define ORVEX_TESTS_QUOTE_BODIES_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orvex_test {

// Appends little-endian values and fixed-width text to a byte string.
class BodyWriter {
public:
    BodyWriter& U8(uint8_t v) { return Raw(&v, 1); }
    BodyWriter& U16(uint16_t v) { return Raw(&v, 2); }
    BodyWriter& U32(uint32_t v) { return Raw(&v, 4); }
    BodyWriter& I32(int32_t v) { return Raw(&v, 4); }
    BodyWriter& F64(double v) { return Raw(&v, 8); }
    // `text` cut to `width` bytes, NUL-padded to `width`.
    BodyWriter& Text(const std::string& text, size_t width);
    BodyWriter& Fill(size_t n, char byte = '\0') {
        bytes.append(n, byte);
        return *this;
    }
    BodyWriter& Raw(const void* data, size_t n) {
        bytes.append(static_cast<const char*>(data), n);
        return *this;
    }
    BodyWriter& Bytes(const std::string& s) { return Raw(s.data(), s.size()); }

    std::string bytes;
};

// Packed quote time: milliseconds bits 0-9, seconds 10-15, minutes 16-21,
// hours 22-31.
uint32_t PackQuoteTime(unsigned hour, unsigned minute, unsigned second, unsigned millisecond);

// ---- market status (command 2) ----

// One market's status; the same 16 bytes appear in market status answers
// and in status records of dynamic information.
struct MarketStatusRow {
    uint16_t market = 0;
    uint32_t tradingDay = 0;   // YYYYMMDD
    uint8_t status = 0;
    uint8_t status2 = 0;
    uint32_t secondDay = 0;
    uint32_t timeWord = 0;     // HHMMSSmmm
};
std::string EncodeStatusRow(const MarketStatusRow& row);

// u16 0, u16 total, u16 rows, u16 first row, rows. `claimedRows` (when not
// negative) replaces the row count written in the head.
std::string MarketStatusBody(uint16_t totalRows, uint16_t firstRow, const std::vector<MarketStatusRow>& rows,
                             int claimedRows = -1);

// ---- name table (command 1) ----

struct NameRow {
    std::string name;            // char[33]
    std::string marketCode;      // char[21]
    std::string exchangeCode;    // char[22]
    int32_t divisor = 1;
    uint16_t attribute1 = 0;
    uint16_t attribute2 = 0;
};
std::string EncodeNameRow(const NameRow& row);   // 84 bytes

// 6 zero bytes, u16 market, 8 zero bytes, u16 total, u16 rows, u16 first
// row, rows.
std::string NameTableBody(uint16_t market, uint16_t totalRows, uint16_t firstRow, const std::vector<NameRow>& rows,
                          int claimedRows = -1);

// ---- quotation snapshot (command 3) ----

constexpr size_t kQuoteRowBytes = 263;

struct PriceLevel {
    int32_t price = 0;       // raw price
    uint32_t volume = 0;
};

// One snapshot row by field; raw prices as the server sends them (0 empty,
// 0x80000000 no value).
struct QuoteRow {
    uint16_t market = 0;
    std::string code;        // market code, char[21]
    uint32_t date = 0;       // YYYYMMDD, 0 = none
    uint32_t packedTime = 0; // PackQuoteTime
    int32_t preClose = 0;
    int32_t preSettlement = 0;
    int32_t open = 0;
    int32_t high = 0;
    int32_t low = 0;
    int32_t last = 0;
    int32_t upperLimit = 0;
    int32_t lowerLimit = 0;
    int32_t average = 0;
    int32_t settlement = 0;
    int32_t close = 0;
    uint32_t reserved = 0;   // offset 75, not interpreted
    double volume = 0;
    uint32_t openInterest = 0;
    uint32_t preOpenInterest = 0;
    double turnover = 0;
    PriceLevel ask[5];
    PriceLevel bid[5];
    // Bytes of the two 40-byte gaps after the ask and bid levels.
    char gapByte = 0;
};
std::string EncodeQuoteRow(const QuoteRow& row);   // 263 bytes

// u16 0, u16 packet count, u16 packet index, u16 market, u16 total rows,
// u16 rows, u16 first row, rows.
std::string QuotationBody(uint16_t packetCount, uint16_t packetIndex, uint16_t market, uint16_t totalRows,
                          uint16_t firstRow, const std::vector<QuoteRow>& rows, int claimedRows = -1);

// ---- dynamic information (command 101) ----

enum DynaType : uint8_t { kDynaStatus = 0, kDynaPush = 1, kDynaTemplate = 2 };

// u32 sequence, u8 type, u16 payload length, payload. `claimedLength` (when
// not negative) replaces the length written in the head.
std::string DynaRecord(uint32_t sequence, uint8_t type, const std::string& payload, int claimedLength = -1);
std::string DynaStatusRecord(uint32_t sequence, const MarketStatusRow& row);
// A template package record: the leading 16-bit value (unused by the
// library), then the package body, its package id first.
std::string DynaTemplateRecord(uint32_t sequence, uint16_t leading, const std::string& packageBody);

// Mask A bits of a pushed row.
enum PushField : int {
    kPushPreClose = 0,
    kPushPreSettlement = 1,
    kPushOpen = 2,
    kPushHigh = 3,
    kPushLow = 4,
    kPushLast = 5,
    kPushUpperLimit = 6,
    kPushLowerLimit = 7,
    kPushAverage = 8,
    kPushSettlement = 9,
    kPushClose = 10,
    kPushReserved = 11,
    kPushVolume = 12,
    kPushOpenInterest = 13,
    kPushPreOpenInterest = 14,
    kPushTurnover = 15,
};

// A pushed quote row: masks, u16 market, char[21] code, u32 date word,
// u32 packed time, then the fields that were set, in mask bit order (the
// order of the setter calls does not matter).
class PushedRow {
public:
    PushedRow(uint16_t market, const std::string& code, uint32_t date, uint32_t packedTime);

    // Mask A bits 0-10 (raw prices) and 11 (the uninterpreted word).
    PushedRow& Price(PushField field, int32_t raw);
    PushedRow& Reserved(uint32_t value);
    PushedRow& Volume(double value);
    PushedRow& OpenInterest(uint32_t value);
    PushedRow& PreOpenInterest(uint32_t value);
    PushedRow& Turnover(double value);
    // Depth levels 1-10; levels 6-10 are sent but not applied by the library.
    PushedRow& Bid(int level, int32_t price, uint32_t volume);
    PushedRow& Ask(int level, int32_t price, uint32_t volume);
    // Sets mask bits without adding field bytes (for rows that claim more
    // than they carry).
    PushedRow& ClaimA(uint32_t bits);
    PushedRow& ClaimB(uint32_t bits);

    uint32_t MaskA() const;
    uint32_t MaskB() const;
    std::string Encode() const;

private:
    uint16_t m_market;
    std::string m_code;
    uint32_t m_date;
    uint32_t m_time;
    std::map<int, std::string> m_a;   // bit -> field bytes
    std::map<int, std::string> m_b;
    uint32_t m_claimA = 0;
    uint32_t m_claimB = 0;
};
std::string DynaPushRecord(uint32_t sequence, const PushedRow& row);

// ---- login answers ----

// First form (command 82): u16 handle, u16 code, 8 zero bytes, 200 u16
// market numbers (0 = empty slot), char[80] message; 492 bytes.
std::string LoginAnswerBody(uint16_t handle, uint16_t code, const std::vector<uint16_t>& markets,
                            const std::string& message = "");

struct AccessEntry {
    uint16_t family = 0;
    int32_t groups = -1;
};

// Second form (command 83): u16 handle, u16 code, char[80] message at 12,
// u32 flags at 268, padded to 512 bytes; when flags bit 0 is set, u32 count
// and the 6-byte entries follow.
std::string LoginAnswer1Body(uint16_t handle, uint16_t code, const std::string& message, uint32_t flags,
                             const std::vector<AccessEntry>& entries = {});

}  // namespace orvex_test

#endif
