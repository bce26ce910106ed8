// Replaying a tick journal (journal/JournalFormat.h): the depth records and
// status reports the library handed to an application, served again as the
// quote server sent them, so that the library and the application above it
// see the recorded session once more.
//
// The market is built from the journal: one back-end market (the plain
// feed's id) per exchange that has depth records or status reports, the
// instruments of its depth
// records, named by the recorded instrument answers when there are any, and
// each market's trading day, status and clock from its first status report
// ('*', the login mark, only gives the day and the clock). Records of other
// exchanges are skipped and counted. The first depth record of an
// instrument is its state when the replay starts; every later one, and
// every status report that changes a market, is a change due at its receive
// time less the receive time of the journal's first depth record.
//
// Prices go back into raw integers with the instrument's divisor: the
// smallest of 1, 10, 100, 1000 and 10000 at which every recorded price of
// the instrument is exactly raw / divisor, so that the library's division
// gives back the very same double. The inverse of the library's rules
// (dc/MarketModel.cpp, dc/Quotation.cpp, dc/PushQuotation.cpp):
//   price DBL_MAX (empty)  -> raw 0
//   price 0.0              -> raw 0x80000000 ("no value")
//   open interest, previous open interest: DBL_MAX or 0 -> 0, else the count
//   Volume, Turnover       -> sent as they are (8-byte doubles)
//   UpdateTime, UpdateMillisec -> the packed time; ActionDay -> the date word
//   MarketStatus '0' '2' '4' '6' -> status codes 0, 1, 2, 6
//
// Some fields the quote server cannot carry, so a replayed record may differ
// from the recorded one there: PreDelta and CurrDelta (never sent, always
// DBL_MAX); an open interest of zero, which the library reports as DBL_MAX
// in a snapshot and as 0.0 in a pushed row, whichever path the recorded
// record took; milliseconds above 999; a price that no divisor up to 10000
// carries exactly (counted); and ActionDay and TradingDay, which the library
// works out from the market's clock and trading day rather than reading
// them from the row (the replayed status reports keep those as recorded).
// A journal written with delta quotes (only changed fields filled) is
// replayed as if its records were whole.
#ifndef QXSIM_JOURNAL_REPLAY_H
#define QXSIM_JOURNAL_REPLAY_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Market.h"
#include "MarketRecord.h"
#include "OrvexWiraMdStruct.h"

namespace qxsim {

struct JournalReplayInfo {
    std::vector<std::string> files;
    uint64_t depthRecords = 0;      // of the markets served, first records included
    uint64_t statusReports = 0;     // market statuses, login marks not counted
    uint64_t instruments = 0;
    uint64_t inexactInstruments = 0;   // prices not exact at any divisor up to 10000
    std::map<std::string, uint64_t> skipped;   // records of exchanges without a market, by exchange
    int64_t firstTime = 0;          // receive times (ns) of the first and last depth record
    int64_t lastTime = 0;
    // One line for the log.
    std::string Summary() const;
};

// True for a directory and for a file that starts with the journal's magic.
bool LooksLikeJournal(const std::string& path);

// Reads the journal files of `path` (a file or a directory) into `market`
// (an empty Market) and returns the source of the changes that follow,
// with the clock value (ms) the market's state belongs to. Null with a
// message for a user when there is nothing to replay.
std::unique_ptr<ReplaySource> OpenJournalReplay(const std::string& path, Market* market, int64_t* recordStartMs,
                                                JournalReplayInfo* info, std::string* error);

// The conversions, one value at a time.
int32_t RawPriceOf(double price, int32_t divisor);
// The smallest divisor (1 ... 10000) that carries every price exactly; 0
// when none does.
int32_t ExactDivisor(const std::vector<double>& prices);
QuoteState QuoteOfDepth(const COrvexWiraDepthMarketDataField& depth, int32_t divisor);
// The quote server's status code of a reported status; -1 for '*' and
// anything else that is not a market status.
int StatusCodeOf(char reported);

}  // namespace qxsim

#endif
