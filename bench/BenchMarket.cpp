#include "BenchMarket.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "protocol/DcFrames.h"
#include "protocol/QuoteBodies.h"

namespace orvex_bench {

using namespace orvex_test;

namespace {

constexpr int kNameRowsPerPacket = 48;    // 22 + 48 x 84 bytes fit in a 4092-byte body
constexpr int kQuoteRowsPerPacket = 15;   // 14 + 15 x 263 bytes
constexpr int kDcMaxBody = 4092;
constexpr int kCmdNameTable = 1;
constexpr int kCmdMarketStatus = 2;
constexpr int kCmdQuotation = 3;
constexpr int kCmdLoginAnswer = 82;
constexpr int kCmdDynainfo = 101;
constexpr int kRecordHead = 7;

int32_t BasePrice(int i) { return 300000 + 10 * (i % 5000); }

QuoteRow SnapshotRow(const BenchCatalog& cat, int i) {
    QuoteRow r;
    r.market = cat.market;
    r.code = cat.Code(i);
    r.date = cat.tradingDay;
    r.packedTime = PackQuoteTime(9, 0, 0, 0);
    const int32_t p = BasePrice(i);
    r.preClose = p;
    r.preSettlement = p;
    r.open = p;
    r.high = p + 50;
    r.low = p - 50;
    r.last = p;
    r.upperLimit = p + p / 10;
    r.lowerLimit = p - p / 10;
    r.average = p;
    r.settlement = static_cast<int32_t>(0x80000000u);
    r.close = static_cast<int32_t>(0x80000000u);
    r.volume = 1000;
    r.openInterest = 5000;
    r.preOpenInterest = 4900;
    r.turnover = 1.5e7;
    for (int k = 0; k < 5; ++k) {
        r.ask[k] = {p + 10 * (k + 1), static_cast<uint32_t>(10 + k)};
        r.bid[k] = {p - 10 * (k + 1), static_cast<uint32_t>(20 + k)};
    }
    return r;
}

PushedRow MakePushedRow(const BenchCatalog& cat, int i, uint32_t packedTime) {
    const int32_t p = BasePrice(i);
    PushedRow row(cat.market, cat.Code(i), cat.tradingDay, packedTime);
    row.Price(kPushLast, p + 10).Volume(0).OpenInterest(5001).Turnover(0);
    for (int k = 1; k <= 5; ++k) {
        row.Bid(k, p - 10 * k, static_cast<uint32_t>(30 + k));
        row.Ask(k, p + 10 * k, static_cast<uint32_t>(40 + k));
    }
    return row;
}

void Put32(char* p, uint32_t v) { std::memcpy(p, &v, 4); }
void PutF64(char* p, double v) { std::memcpy(p, &v, 8); }

}  // namespace

std::string BenchCatalog::Code(int i) const {
    char code[16];
    std::snprintf(code, sizeof(code), "bx%05d", i);
    return code;
}

std::string LoginAnswerFrame(const BenchCatalog& cat, uint16_t handle) {
    return BuildDcFrame(kCmdLoginAnswer, LoginAnswerBody(handle, 0, {cat.market}));
}

std::string MarketStatusFrame(const BenchCatalog& cat) {
    MarketStatusRow row;
    row.market = cat.market;
    row.tradingDay = cat.tradingDay;
    row.status = 1;
    row.secondDay = cat.tradingDay;
    row.timeWord = kOpenTime;
    return BuildDcFrame(kCmdMarketStatus, MarketStatusBody(1, 0, {row}));
}

std::vector<std::string> NameTableFrames(const BenchCatalog& cat) {
    std::vector<std::string> frames;
    for (int first = 0; first < cat.instruments; first += kNameRowsPerPacket) {
        std::vector<NameRow> rows;
        for (int i = first; i < cat.instruments && i < first + kNameRowsPerPacket; ++i) {
            NameRow r;
            r.name = "Bench " + std::to_string(i);
            r.marketCode = cat.Code(i);
            r.exchangeCode = cat.Code(i);
            r.divisor = cat.divisor;
            r.attribute1 = 10;
            rows.push_back(r);
        }
        frames.push_back(BuildDcFrame(kCmdNameTable, NameTableBody(cat.market, static_cast<uint16_t>(cat.instruments),
                                                                   static_cast<uint16_t>(first), rows)));
    }
    return frames;
}

std::string QuotationBody(const BenchCatalog& cat, int first, int rows) {
    const int packets = (cat.instruments + kQuoteRowsPerPacket - 1) / kQuoteRowsPerPacket;
    std::vector<QuoteRow> list;
    for (int i = first; i < first + rows && i < cat.instruments; ++i) list.push_back(SnapshotRow(cat, i));
    return orvex_test::QuotationBody(static_cast<uint16_t>(packets), static_cast<uint16_t>(first / kQuoteRowsPerPacket),
                                     cat.market, static_cast<uint16_t>(cat.instruments), static_cast<uint16_t>(first),
                                     list);
}

std::vector<std::string> QuotationFrames(const BenchCatalog& cat) {
    std::vector<std::string> frames;
    for (int first = 0; first < cat.instruments; first += kQuoteRowsPerPacket)
        frames.push_back(BuildDcFrame(kCmdQuotation, QuotationBody(cat, first, kQuoteRowsPerPacket)));
    return frames;
}

std::string PushedRowBytes(const BenchCatalog& cat, int instrument, uint32_t packedTime) {
    return MakePushedRow(cat, instrument, packedTime).Encode();
}

std::string DynainfoBody(const BenchCatalog& cat, const std::vector<int>& instruments, uint32_t packedTime) {
    std::string body;
    uint32_t seq = 1;
    for (int i : instruments) body += DynaPushRecord(seq++, MakePushedRow(cat, i, packedTime));
    return body;
}

uint32_t PackedTimeAfterOpen(int64_t ms) {
    const int64_t t = 9LL * 3600000 + (ms < 0 ? 0 : ms);
    return PackQuoteTime(static_cast<unsigned>(t / 3600000), static_cast<unsigned>(t / 60000 % 60),
                         static_cast<unsigned>(t / 1000 % 60), static_cast<unsigned>(t % 1000));
}

bool StampOffsets(uint32_t maskA, uint32_t /*maskB*/, int* volumeAt, int* turnoverAt) {
    // Mask A fields in bit order: eleven prices and the reserved word (4
    // bytes each), volume (8), open interest and previous open interest
    // (4 each), turnover (8). Mask B levels all follow them.
    int pos = 39;
    *volumeAt = *turnoverAt = -1;
    for (int bit = 0; bit < 16; ++bit) {
        if (!(maskA & (1u << bit))) continue;
        if (bit == 12) *volumeAt = pos;
        if (bit == 15) *turnoverAt = pos;
        pos += (bit == 12 || bit == 15) ? 8 : 4;
    }
    return *volumeAt >= 0 && *turnoverAt >= 0;
}

PushStream::PushStream(const BenchCatalog& cat) {
    for (int i = 0; i < cat.instruments; ++i)
        m_records.push_back(DynaPushRecord(0, MakePushedRow(cat, i, PackQuoteTime(9, 0, 0, 0))));
    if (m_records.empty() || m_records[0].size() != static_cast<size_t>(kRecordBytes))
        throw std::logic_error("unexpected pushed record size");
    m_maxRows = kDcMaxBody / kRecordBytes;
    uint32_t maskA, maskB;
    std::memcpy(&maskA, m_records[0].data() + kRecordHead, 4);
    std::memcpy(&maskB, m_records[0].data() + kRecordHead + 4, 4);
    int v, t;
    if (!StampOffsets(maskA, maskB, &v, &t)) throw std::logic_error("pushed row without volume and turnover");
    m_volumeAt = kRecordHead + v;
    m_turnoverAt = kRecordHead + t;
    m_lastAt = kRecordHead + 39;   // last price is the first field present
}

size_t PushStream::Build(char* buf, uint64_t firstSeq, int rows, uint32_t packedTime) const {
    if (rows > m_maxRows) rows = m_maxRows;
    const uint16_t bodyLength = static_cast<uint16_t>(rows * kRecordBytes);
    buf[0] = '@';
    buf[1] = static_cast<char>(kCmdDynainfo << 1);
    std::memcpy(buf + 2, &bodyLength, 2);
    char* rec = buf + 4;
    const size_t n = m_records.size();
    for (int r = 0; r < rows; ++r, rec += kRecordBytes) {
        const uint64_t seq = firstSeq + static_cast<uint64_t>(r);
        const size_t inst = static_cast<size_t>(seq % n);
        std::memcpy(rec, m_records[inst].data(), kRecordBytes);
        Put32(rec, static_cast<uint32_t>(seq));
        Put32(rec + kRecordHead + 35, packedTime);
        // The last price moves a little, as a live feed's would.
        int32_t last;
        std::memcpy(&last, rec + m_lastAt, 4);
        Put32(rec + m_lastAt, static_cast<uint32_t>(last + static_cast<int32_t>(seq % 7) * 10));
        PutF64(rec + m_turnoverAt, static_cast<double>(seq));
    }
    return 4 + bodyLength;
}

void PushStream::Stamp(char* buf, int rows, int64_t sendNs) const {
    const double stamp = static_cast<double>(sendNs);
    char* rec = buf + 4;
    for (int r = 0; r < rows; ++r, rec += kRecordBytes) PutF64(rec + m_volumeAt, stamp);
}

}  // namespace orvex_bench
