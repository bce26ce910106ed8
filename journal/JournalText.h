// Journal entries as text: one JSON object per entry (JSON lines) or CSV
// rows, with every field of the record under its C name. Doubles keep all
// 17 significant digits, texts are converted from GBK to UTF-8.
//
//   {"kind":"depth","time":1735795200123456789,"TradingDay":"20250102",...}
//
// Answers (instrument, login) are flat: the record's fields, then ErrorID
// and ErrorMsg of the result, RequestID and IsLast; the fields of a record
// the callback did not get are left out. Lost carries "Reason", a template
// record "PackageID" and its bytes as hex in "Data".
#ifndef ORVEX_JOURNAL_TEXT_H
#define ORVEX_JOURNAL_TEXT_H

#include <string>

#include "journal/JournalReader.h"

namespace orvex {
namespace journal {

// Appends the entry as one JSON object (no newline).
void AppendJson(const Entry& e, std::string* out);
// The CSV header line of a kind (no newline): kind,time, then the columns.
std::string CsvHeader(uint16_t kind);
// Appends the entry as one CSV row (no newline), the columns of CsvHeader.
void AppendCsv(const Entry& e, std::string* out);

// The instrument an entry is about ("" when none): InstrumentID of depth
// and instrument records.
std::string EntryInstrument(const Entry& e);
std::string EntryExchange(const Entry& e);

// Formatting shared with the other writers of these values.
std::string FormatDouble(double v);   // %.17g; non-finite values as "null"
std::string JsonString(const std::string& utf8);

}  // namespace journal
}  // namespace orvex

#endif
