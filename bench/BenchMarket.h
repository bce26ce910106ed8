// The benchmark market: one back-end market (SHFE, id 2001) with N
// instruments, the quote server's answers for it (login, market status,
// name tables, quotation snapshot), and the stream of pushed rows that the
// end-to-end benchmark sends.
//
// Every byte is built with the server-side encoders of the test support
// (QuoteBodies, BuildDcFrame); this file only chooses the values.
//
// Pushed rows carry last price, volume, open interest, turnover and five
// bid and ask levels (150 bytes with the record head, 27 rows per frame).
// Two fields travel through the library unchanged into the depth record
// and are used to measure it:
//   Volume    the sender's clock (NowNs) when the frame was handed to send()
//   Turnover  the row's sequence number in the stream
// Rows are dated with the market's day and timed 09:00:00.000 plus the
// process's monotonic milliseconds, so no row is ever older than the one
// before it (none is stale for the library's filter).
#ifndef ORVEX_BENCH_BENCH_MARKET_H
#define ORVEX_BENCH_BENCH_MARKET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvex_bench {

constexpr uint16_t kBenchMarket = 2001;
constexpr uint32_t kOpenTime = 90000000;   // HHMMSSmmm of the market and of the snapshot

struct BenchCatalog {
    uint16_t market = kBenchMarket;
    uint32_t tradingDay = 20240102;
    int instruments = 1000;
    int32_t divisor = 100;

    std::string Code(int i) const;   // market code (also the exchange code)
};

// Whole DC frames (header included) of the server's answers.
std::string LoginAnswerFrame(const BenchCatalog& cat, uint16_t handle);
std::string MarketStatusFrame(const BenchCatalog& cat);
std::vector<std::string> NameTableFrames(const BenchCatalog& cat);
std::vector<std::string> QuotationFrames(const BenchCatalog& cat);
// One dynamic-information body / frame of quote rows for the given
// instruments (a row per instrument), all with the same packed time; for
// the micro-benchmarks.
std::string DynainfoBody(const BenchCatalog& cat, const std::vector<int>& instruments, uint32_t packedTime);
// One quotation packet (up to 15 rows) starting at instrument `first`.
std::string QuotationBody(const BenchCatalog& cat, int first, int rows);
// Encoded pushed row (masks first, no record head) of one instrument.
std::string PushedRowBytes(const BenchCatalog& cat, int instrument, uint32_t packedTime);

// Packed quote time of 09:00:00.000 plus `ms` milliseconds.
uint32_t PackedTimeAfterOpen(int64_t ms);

// Where Volume and Turnover sit in a pushed row (offsets from the row's
// mask A), worked out from the row's own masks; false when the row carries
// neither. Used by the receivers that read rows without the library.
bool StampOffsets(uint32_t maskA, uint32_t maskB, int* volumeAt, int* turnoverAt);

// Fills dynamic-information frames of the stream.
class PushStream {
public:
    explicit PushStream(const BenchCatalog& cat);

    static constexpr int kRecordBytes = 150;
    int MaxRowsPerFrame() const { return m_maxRows; }

    // Writes one frame of `rows` rows with sequence numbers from `firstSeq`
    // into buf (at least 4096 bytes); returns its length. The instrument of
    // a row is its sequence number modulo the catalog size.
    size_t Build(char* buf, uint64_t firstSeq, int rows, uint32_t packedTime) const;
    // Writes the send time into every row of a frame built by Build.
    void Stamp(char* buf, int rows, int64_t sendNs) const;

private:
    std::vector<std::string> m_records;   // per instrument, record head included
    int m_maxRows = 0;
    int m_volumeAt = 0;                    // offsets inside a record
    int m_turnoverAt = 0;
    int m_lastAt = 0;
};

}  // namespace orvex_bench

#endif
