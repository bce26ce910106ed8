// Reading a journal file.
//
// JournalReader maps a file and walks its entries. It owns the mapping; it
// is used by one thread at a time. Depth deltas are applied as they are
// read: every depth record comes out whole, as a kDepth entry (aux 0) whose
// payload lives in the reader until the next call of Next. Other entries
// point into the mapping and stay valid until the reader is closed. The walk ends at the end
// of the file or at the first entry that is not whole (a torn tail): Torn()
// then tells how many bytes follow the last whole entry.
//
// JournalFiles lists the journal files of a path: the file itself, or the
// *.mdj files of a directory in trading-day order (then by name).
#ifndef ORVEX_JOURNAL_READER_H
#define ORVEX_JOURNAL_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "journal/JournalFormat.h"

namespace orvex {
namespace journal {

struct Entry {
    uint16_t kind = 0;
    uint16_t aux = 0;
    int64_t time = 0;
    const unsigned char* payload = nullptr;
    uint32_t size = 0;
};

class JournalReader {
public:
    JournalReader() = default;
    ~JournalReader();
    JournalReader(const JournalReader&) = delete;
    JournalReader& operator=(const JournalReader&) = delete;

    // False with a message for a user when the file cannot be read or its
    // header is refused (see DecodeHeader).
    bool Open(const std::string& path, std::string* error);
    void Close();

    const FileHeader& Header() const { return m_header; }
    const std::string& Path() const { return m_path; }
    uint64_t FileSize() const { return m_size; }

    // The next whole entry; false at the end (or at a torn tail).
    bool Next(Entry* e);
    // At least as many depth records as the file holds, from the entry
    // heads alone (nothing checked, the position unchanged): for sizing.
    uint64_t DepthRecordsAtMost() const;
    // Back to the first entry.
    void Rewind() {
        m_offset = kHeaderSize;
        m_slots.clear();
        m_filled.clear();
    }
    // Offset just past the last entry returned.
    uint64_t Offset() const { return m_offset; }
    // After Next returned false: bytes after the last whole entry (0 when the
    // file ended cleanly).
    uint64_t Torn() const { return m_offset < m_size ? m_size - m_offset : 0; }

private:
    std::string m_path;
    FileHeader m_header;
    const unsigned char* m_data = nullptr;
    uint64_t m_size = 0;
    uint64_t m_offset = 0;
    // The last depth record of each slot.
    std::vector<COrvexWiraDepthMarketDataField> m_slots;
    std::vector<bool> m_filled;   // the slot has had its whole record
};

// The journal files of a file or directory path; empty with a message when
// there are none.
std::vector<std::string> JournalFiles(const std::string& path, std::string* error);

// Where the whole entries of an existing file end, for a writer that
// appends: the header is checked, then every entry. Returns false with a
// message when the file cannot be appended to (refused header).
bool FindWholeEnd(const std::string& path, FileHeader* header, uint64_t* end, uint64_t* fileSize, std::string* error);

}  // namespace journal
}  // namespace orvex

#endif
