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
#ifndef QXSIM_MARKET_RECORD_H
#define QXSIM_MARKET_RECORD_H

#include <cstdint>
#include <fstream>
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

class MarketReplay {
public:
    // Reads the header into `market` (an empty Market). The replay's own
    // clock starts at `nowMs`.
    bool Open(const std::string& path, Market* market, int64_t nowMs, std::string* error);
    // Applies the changes that are due at nowMs and returns their events.
    std::vector<MarketEvent> Step(Market& market, int64_t nowMs);
    bool Finished() const { return m_finished; }
    uint64_t Applied() const { return m_applied; }

private:
    bool ReadNext();

    std::ifstream m_in;
    int64_t m_recordStart = 0;
    int64_t m_replayStart = 0;
    bool m_finished = false;
    bool m_havePending = false;
    std::string m_pending;
    int64_t m_pendingMs = 0;
    uint64_t m_applied = 0;
};

}  // namespace qxsim

#endif
