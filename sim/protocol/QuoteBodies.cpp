#include "protocol/QuoteBodies.h"

#include <cstring>
#include <stdexcept>

namespace orvex_test {

BodyWriter& BodyWriter::Text(const std::string& text, size_t width) {
    const size_t n = text.size() < width ? text.size() : width;
    bytes.append(text, 0, n);
    bytes.append(width - n, '\0');
    return *this;
}

uint32_t PackQuoteTime(unsigned hour, unsigned minute, unsigned second, unsigned millisecond) {
    return (hour << 22) | ((minute & 0x3F) << 16) | ((second & 0x3F) << 10) | (millisecond & 0x3FF);
}

std::string EncodeStatusRow(const MarketStatusRow& r) {
    BodyWriter w;
    w.U16(r.market).U32(r.tradingDay).U8(r.status).U8(r.status2).U32(r.secondDay).U32(r.timeWord);
    return w.bytes;
}

std::string MarketStatusBody(uint16_t totalRows, uint16_t firstRow, const std::vector<MarketStatusRow>& rows,
                             int claimedRows) {
    BodyWriter w;
    w.U16(0).U16(totalRows);
    w.U16(static_cast<uint16_t>(claimedRows >= 0 ? claimedRows : static_cast<int>(rows.size())));
    w.U16(firstRow);
    for (const MarketStatusRow& r : rows) w.Bytes(EncodeStatusRow(r));
    return w.bytes;
}

std::string EncodeNameRow(const NameRow& r) {
    BodyWriter w;
    w.Text(r.name, 33).Text(r.marketCode, 21).Text(r.exchangeCode, 22);
    w.I32(r.divisor).U16(r.attribute1).U16(r.attribute2);
    return w.bytes;
}

std::string NameTableBody(uint16_t market, uint16_t totalRows, uint16_t firstRow, const std::vector<NameRow>& rows,
                          int claimedRows) {
    BodyWriter w;
    w.Fill(6).U16(market).Fill(8).U16(totalRows);
    w.U16(static_cast<uint16_t>(claimedRows >= 0 ? claimedRows : static_cast<int>(rows.size())));
    w.U16(firstRow);
    for (const NameRow& r : rows) w.Bytes(EncodeNameRow(r));
    return w.bytes;
}

std::string EncodeQuoteRow(const QuoteRow& r) {
    BodyWriter w;
    w.U16(r.market).Text(r.code, 21).U32(r.date).U32(r.packedTime);
    w.I32(r.preClose).I32(r.preSettlement).I32(r.open).I32(r.high).I32(r.low).I32(r.last);
    w.I32(r.upperLimit).I32(r.lowerLimit).I32(r.average).I32(r.settlement).I32(r.close);
    w.U32(r.reserved).F64(r.volume).U32(r.openInterest).U32(r.preOpenInterest).F64(r.turnover);
    for (const PriceLevel& l : r.ask) w.I32(l.price).U32(l.volume);
    w.Fill(40, r.gapByte);
    for (const PriceLevel& l : r.bid) w.I32(l.price).U32(l.volume);
    w.Fill(40, r.gapByte);
    if (w.bytes.size() != kQuoteRowBytes) throw std::logic_error("quote row is not 263 bytes");
    return w.bytes;
}

std::string QuotationBody(uint16_t packetCount, uint16_t packetIndex, uint16_t market, uint16_t totalRows,
                          uint16_t firstRow, const std::vector<QuoteRow>& rows, int claimedRows) {
    BodyWriter w;
    w.U16(0).U16(packetCount).U16(packetIndex).U16(market).U16(totalRows);
    w.U16(static_cast<uint16_t>(claimedRows >= 0 ? claimedRows : static_cast<int>(rows.size())));
    w.U16(firstRow);
    for (const QuoteRow& r : rows) w.Bytes(EncodeQuoteRow(r));
    return w.bytes;
}

std::string DynaRecord(uint32_t sequence, uint8_t type, const std::string& payload, int claimedLength) {
    BodyWriter w;
    w.U32(sequence).U8(type);
    w.U16(static_cast<uint16_t>(claimedLength >= 0 ? claimedLength : static_cast<int>(payload.size())));
    w.Bytes(payload);
    return w.bytes;
}

std::string DynaStatusRecord(uint32_t sequence, const MarketStatusRow& row) {
    return DynaRecord(sequence, kDynaStatus, EncodeStatusRow(row));
}

std::string DynaTemplateRecord(uint32_t sequence, uint16_t leading, const std::string& packageBody) {
    BodyWriter w;
    w.U16(leading).Bytes(packageBody);
    return DynaRecord(sequence, kDynaTemplate, w.bytes);
}

PushedRow::PushedRow(uint16_t market, const std::string& code, uint32_t date, uint32_t packedTime)
    : m_market(market), m_code(code), m_date(date), m_time(packedTime) {}

PushedRow& PushedRow::Price(PushField field, int32_t raw) {
    if (field < kPushPreClose || field > kPushClose) throw std::invalid_argument("not a price field");
    m_a[field] = BodyWriter().I32(raw).bytes;
    return *this;
}

PushedRow& PushedRow::Reserved(uint32_t value) {
    m_a[kPushReserved] = BodyWriter().U32(value).bytes;
    return *this;
}

PushedRow& PushedRow::Volume(double value) {
    m_a[kPushVolume] = BodyWriter().F64(value).bytes;
    return *this;
}

PushedRow& PushedRow::OpenInterest(uint32_t value) {
    m_a[kPushOpenInterest] = BodyWriter().U32(value).bytes;
    return *this;
}

PushedRow& PushedRow::PreOpenInterest(uint32_t value) {
    m_a[kPushPreOpenInterest] = BodyWriter().U32(value).bytes;
    return *this;
}

PushedRow& PushedRow::Turnover(double value) {
    m_a[kPushTurnover] = BodyWriter().F64(value).bytes;
    return *this;
}

PushedRow& PushedRow::Bid(int level, int32_t price, uint32_t volume) {
    if (level < 1 || level > 10) throw std::invalid_argument("bid level 1-10");
    m_b[level - 1] = BodyWriter().I32(price).U32(volume).bytes;
    return *this;
}

PushedRow& PushedRow::Ask(int level, int32_t price, uint32_t volume) {
    if (level < 1 || level > 10) throw std::invalid_argument("ask level 1-10");
    m_b[10 + level - 1] = BodyWriter().I32(price).U32(volume).bytes;
    return *this;
}

PushedRow& PushedRow::ClaimA(uint32_t bits) {
    m_claimA |= bits;
    return *this;
}

PushedRow& PushedRow::ClaimB(uint32_t bits) {
    m_claimB |= bits;
    return *this;
}

uint32_t PushedRow::MaskA() const {
    uint32_t mask = m_claimA;
    for (const auto& kv : m_a) mask |= 1u << kv.first;
    return mask;
}

uint32_t PushedRow::MaskB() const {
    uint32_t mask = m_claimB;
    for (const auto& kv : m_b) mask |= 1u << kv.first;
    return mask;
}

std::string PushedRow::Encode() const {
    BodyWriter w;
    w.U32(MaskA()).U32(MaskB()).U16(m_market).Text(m_code, 21).U32(m_date).U32(m_time);
    for (const auto& kv : m_a) w.Bytes(kv.second);   // std::map: ascending bit order
    for (const auto& kv : m_b) w.Bytes(kv.second);
    return w.bytes;
}

std::string DynaPushRecord(uint32_t sequence, const PushedRow& row) {
    return DynaRecord(sequence, kDynaPush, row.Encode());
}

std::string LoginAnswerBody(uint16_t handle, uint16_t code, const std::vector<uint16_t>& markets,
                            const std::string& message) {
    if (markets.size() > 200) throw std::invalid_argument("at most 200 markets");
    BodyWriter w;
    w.U16(handle).U16(code).Fill(8);
    for (uint16_t m : markets) w.U16(m);
    w.Fill(2 * (200 - markets.size()));
    w.Text(message, 80);
    return w.bytes;
}

std::string LoginAnswer1Body(uint16_t handle, uint16_t code, const std::string& message, uint32_t flags,
                             const std::vector<AccessEntry>& entries) {
    BodyWriter w;
    w.U16(handle).U16(code).Fill(8).Text(message, 80);
    w.Fill(268 - w.bytes.size()).U32(flags);
    w.Fill(512 - w.bytes.size());
    if (flags & 1u) {
        w.U32(static_cast<uint32_t>(entries.size()));
        for (const AccessEntry& e : entries) w.U16(e.family).I32(e.groups);
    }
    return w.bytes;
}

}  // namespace orvex_test
