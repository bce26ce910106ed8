// Recording and replaying the simulated market.
//
// A recording is a text file: a header with the markets, the instruments
// and their state when the recording started, then one line per change in
// the order they happened, each with its clock value:
//
//   qxdc-sim-record 1
//   clock <ms>
//   market <id> <exchange 0-3> <trading day> <status> <day> <HHMMSSmmm>
//   instrument <market id> <exchange 0-3> <code> <divisor> <multiple> <tick> <listed> <expires>
//              <delivery from> <delivery to> <name GBK, hex> <name UTF-8, hex>
//   quote <ms> <instrument index> <date> <time> <17 main fields> <5 bids and 5 asks: price volume>
//   start
//   quote ... | status <ms> <market index> <trading day> <status> <day> <HHMMSSmmm>
//
// The replay rebuilds the market from the header and applies each change
// when as much time has passed since the replay began as had passed since
// the recording began, so clients see the recorded day at its own pace.
// A tick journal of the library's callbacks replays the same way.
#ifndef QXSIM_MARKET_RECORD_H
#define QXSIM_MARKET_RECORD_H

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Market.h"

namespace qxsim {

class MarketRecorder {
public:
    // Creates the file and writes the header with the market as it is now.
    bool Open(const std::string& path, const Market& market, std::string* error);
    // Appends the changes of one step.
    void Write(const Market& market, const std::vector<MarketEvent>& events);
    void Close();
    uint64_t Lines() const { return m_lines; }

private:
    void WriteQuote(const Market& market, int index);
    std::ofstream m_out;
    uint64_t m_lines = 0;
};

// One recorded change, due when the replay's clock reaches `ms`.
struct ReplayChange {
    enum Type : uint8_t { kQuote, kStatus };
    Type type = kQuote;
    int64_t ms = 0;
    int index = -1;               // instrument index, or market index for kStatus
    QuoteState quote;
    // A recorded update goes out as a pushed row even when no field of the
    // quote changed (only its time did): the client reports every row.
    bool alwaysPush = false;
    uint32_t tradingDay = 0;      // kStatus
    uint8_t status = 0;
    uint32_t secondDay = 0;
    uint32_t timeWord = 0;
};

// Where a replay takes its changes from, in order.
class ReplaySource {
public:
    virtual ~ReplaySource() = default;
    // The next change; false at the end.
    virtual bool Next(ReplayChange* change) = 0;
};

class MarketReplay {
public:
    MarketReplay();
    ~MarketReplay();
    MarketReplay(const MarketReplay&) = delete;
    MarketReplay& operator=(const MarketReplay&) = delete;

    // Reads a recording into `market` (an empty Market): a text recording
    // as above, or a tick journal (a file, or a directory of them; see
    // JournalReplay.h). The replay's own clock starts at `nowMs`.
    bool Open(const std::string& path, Market* market, int64_t nowMs, std::string* error);
    // Replays changes that come from elsewhere; the market is already built
    // and its state is the one at clock `recordStartMs`.
    void Start(std::unique_ptr<ReplaySource> source, Market& market, int64_t recordStartMs, int64_t nowMs);
    // Applies the changes that are due at nowMs and returns their events.
    // A batch holds at most one quote change per instrument; Due tells
    // whether more changes are due, for the next batch.
    std::vector<MarketEvent> Step(Market& market, int64_t nowMs);
    bool Due(int64_t nowMs) const;
    bool Finished() const { return m_finished; }
    uint64_t Applied() const { return m_applied; }
    // What was loaded, one line for the log.
    const std::string& Summary() const { return m_summary; }

private:
    std::unique_ptr<ReplaySource> OpenText(const std::string& path, Market* market, int64_t* recordStart,
                                           std::string* error);
    void ReadNext();

    std::unique_ptr<ReplaySource> m_source;
    int64_t m_recordStart = 0;
    int64_t m_replayStart = 0;
    bool m_finished = false;
    bool m_havePending = false;
    ReplayChange m_pending;
    uint64_t m_applied = 0;
    std::string m_summary;
};

}  // namespace qxsim

#endif
