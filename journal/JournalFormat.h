// The tick journal: what md-record writes and everything else reads.
//
// A journal file holds the callbacks of one trading day, in the order the
// library made them, each with its receive time (wall clock, nanoseconds
// since the epoch). All integers are little-endian.
//
//   header (64 bytes)
//     0  "ORVXMDJ\0"       magic
//     8  u16 version       kJournalVersion
//    10  u16 header size   64
//    12  u16 entry head    24
//    14  u16 ×5            sizes of the depth, status, instrument, login
//                          answer and result records the entries hold
//    24  char[9]           trading day, YYYYMMDD
//    40  i64               start time (ns), when the file was created
//    48  u32               check of bytes 0-47
//    52  12 bytes of zero
//   entries, one after the other:
//     0  u32 size          payload bytes that follow the 24-byte head
//     4  u16 kind          EntryKind; a reader skips kinds it does not know
//     6  u16 aux           template entries: the package id; depth entries:
//                          the instrument's slot + 1 (0: none); else 0
//     8  i64 time          receive time (ns)
//    16  u32 check         EntryCheck of bytes 0-15 and the payload
//    20  u32 zero
//    24  payload
//
// Payloads: depth, status: the record. Depth delta: the depth record as the
// change from the previous depth record of the same slot in this file: a
// u64 mask of the record's 51 eight-byte words that changed, then, for each
// set bit in order, the changed word XOR the old one. The writer gives each
// instrument a slot the first time it writes it in a file (or after
// reopening it) and always writes a slot's first record whole, so a reader
// keeps the last record of each slot and needs nothing else. Instrument and login answers: i32
// request id, u8 flags (kHasRecord, kHasInfo, kIsLast), three zero bytes,
// the record (zero when the callback had none), the result record (the
// same). Template: the record as the template file lays it out. Linked:
// nothing. Lost: i32 reason. Templates: the template file's text, written
// once at the start of a file so the journal explains its own templates.
//
// An entry whose check fails, or that runs past the end of the file, ends
// the journal: that is where a writer that was killed stopped.
#ifndef ORVEX_JOURNAL_FORMAT_H
#define ORVEX_JOURNAL_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "OrvexWiraMdStruct.h"

namespace orvex {
namespace journal {

constexpr char kMagic[8] = {'O', 'R', 'V', 'X', 'M', 'D', 'J', '\0'};
constexpr uint16_t kJournalVersion = 1;
constexpr size_t kHeaderSize = 64;
constexpr size_t kEntryHeadSize = 24;
// Larger payloads are refused by the writer and end a journal for a reader.
constexpr uint32_t kMaxPayload = 16u << 20;
// Journal files are named DAY + kFileSuffix (20250102.mdj).
constexpr const char* kFileSuffix = ".mdj";

enum EntryKind : uint16_t {
    kDepth = 1,
    kStatus = 2,
    kInstrument = 3,
    kLogin = 4,
    kTemplate = 5,
    kLinked = 6,
    kLost = 7,
    kTemplates = 8,
    kDepthDelta = 9,
};
// The name of a kind in text output ("depth", ...); null when unknown.
const char* KindName(uint16_t kind);
// The kind of a name; 0 when unknown.
uint16_t KindOf(const std::string& name);

// Flags of instrument and login answer payloads.
enum : uint8_t { kHasRecord = 1, kHasInfo = 2, kIsLast = 4 };

constexpr size_t kAnswerHead = 8;   // request id, flags, padding
constexpr size_t kInstrumentPayload =
    kAnswerHead + sizeof(COrvexWiraInstrumentField) + sizeof(COrvexWiraRspInfoField);
constexpr size_t kLoginPayload =
    kAnswerHead + sizeof(COrvexWiraRspUserLoginField) + sizeof(COrvexWiraRspInfoField);

struct FileHeader {
    uint16_t version = kJournalVersion;
    uint16_t depthSize = sizeof(COrvexWiraDepthMarketDataField);
    uint16_t statusSize = sizeof(COrvexWiraMarketStatusField);
    uint16_t instrumentSize = sizeof(COrvexWiraInstrumentField);
    uint16_t loginSize = sizeof(COrvexWiraRspUserLoginField);
    uint16_t infoSize = sizeof(COrvexWiraRspInfoField);
    char tradingDay[9] = {0};
    int64_t startTime = 0;
};

void EncodeHeader(const FileHeader& h, unsigned char out[kHeaderSize]);
// Reads a header. On failure returns false with a message fit for a user:
// not a journal, a version this build does not read, record sizes that are
// not this build's.
bool DecodeHeader(const unsigned char* data, size_t size, FileHeader* h, std::string* error);

// The check of an entry: a fast 32-bit hash of its first 16 bytes and its
// payload. Not a cryptographic digest: it tells a whole entry from a torn
// or zero-filled one.
uint32_t EntryCheck(const unsigned char* head16, const unsigned char* payload, size_t size);

// Head fields of an entry.
struct EntryHead {
    uint32_t size = 0;
    uint16_t kind = 0;
    uint16_t aux = 0;
    int64_t time = 0;
};
void EncodeEntryHead(const EntryHead& e, unsigned char out[kEntryHeadSize]);   // check left zero
inline EntryHead DecodeEntryHead(const unsigned char* p) {
    EntryHead e;
    std::memcpy(&e.size, p, 4);
    std::memcpy(&e.kind, p + 4, 2);
    std::memcpy(&e.aux, p + 6, 2);
    std::memcpy(&e.time, p + 8, 8);
    return e;
}
// Depth deltas (see above).
constexpr size_t kDepthWords = sizeof(COrvexWiraDepthMarketDataField) / 8;
static_assert(sizeof(COrvexWiraDepthMarketDataField) % 8 == 0, "depth record of whole words");
// Encodes `now` against `base` into out (room for 8 + 408 bytes needed)
// and copies `now` into `base`; returns the delta's size.
// Uses the processor's vector instructions where it has them.
size_t EncodeDepthDelta(unsigned char* base, const unsigned char* now, unsigned char* out);
// The same bytes without them (the tests hold the two together).
size_t EncodeDepthDeltaWithoutVectors(unsigned char* base, const unsigned char* now, unsigned char* out);
// Applies a delta to `record` (the slot's previous record) in place; false
// when the delta is malformed.
bool ApplyDepthDelta(const unsigned char* delta, size_t size, unsigned char* record);

// Fills the check of a whole entry (head and payload contiguous).
void SealEntry(unsigned char* entry);
// True when a whole entry (head and payload contiguous) checks out.
bool EntryIsWhole(const unsigned char* entry);

// The name of a day's file: DIR/DAY.mdj.
std::string DayFileName(const std::string& dir, const std::string& day);

}  // namespace journal
}  // namespace orvex

#endif
