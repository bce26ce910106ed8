#include "journal/JournalReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orvex {
namespace journal {

JournalReader::~JournalReader() { Close(); }

void JournalReader::Close() {
    if (m_data) munmap(const_cast<unsigned char*>(m_data), m_size);
    m_data = nullptr;
    m_size = 0;
    m_offset = 0;
}

bool JournalReader::Open(const std::string& path, std::string* error) {
    Close();
    m_path = path;
    auto fail = [&](const std::string& why) {
        if (error) *error = path + ": " + why;
        Close();
        return false;
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(std::strerror(errno));
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const int e = errno;
        ::close(fd);
        return fail(std::strerror(e));
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return fail("not a regular file");
    }
    m_size = static_cast<uint64_t>(st.st_size);
    if (m_size < kHeaderSize) {
        ::close(fd);
        m_size = 0;
        return fail("not a tick journal (too short)");
    }
    void* map = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, fd, 0);
    const int e = errno;
    ::close(fd);
    if (map == MAP_FAILED) {
        m_size = 0;
        return fail(std::strerror(e));
    }
    m_data = static_cast<const unsigned char*>(map);
    madvise(map, m_size, MADV_SEQUENTIAL);
    std::string why;
    if (!DecodeHeader(m_data, m_size, &m_header, &why)) return fail(why);
    m_offset = kHeaderSize;
    return true;
}

bool JournalReader::Next(Entry* e) {
    for (;;) {
        if (!m_data || m_size - m_offset < kEntryHeadSize) return false;
        const unsigned char* p = m_data + m_offset;
        const EntryHead h = DecodeEntryHead(p);
        if (h.kind == 0 || h.size > kMaxPayload || h.size > m_size - m_offset - kEntryHeadSize) return false;
        if (!EntryIsWhole(p)) return false;
        const unsigned char* payload = p + kEntryHeadSize;
        e->kind = h.kind;
        e->aux = h.aux;
        e->time = h.time;
        e->payload = payload;
        e->size = h.size;
        if (h.kind == kDepth || h.kind == kDepthDelta) {
            constexpr size_t kSize = sizeof(COrvexWiraDepthMarketDataField);
            const size_t slot = h.aux;   // slot + 1; 0: a record without one
            if (h.kind == kDepth) {
                if (slot && h.size == kSize) {
                    if (m_slots.size() < slot) {
                        m_slots.resize(slot);
                        m_filled.resize(slot, false);
                    }
                    std::memcpy(&m_slots[slot - 1], payload, kSize);
                    m_filled[slot - 1] = true;
                }
            } else {
                // A delta without its base (a file cut by hand) is skipped:
                // a reader never makes up a record.
                if (!slot || slot > m_slots.size() || !m_filled[slot - 1] ||
                    !ApplyDepthDelta(payload, h.size, reinterpret_cast<unsigned char*>(&m_slots[slot - 1]))) {
                    m_offset += kEntryHeadSize + h.size;
                    continue;
                }
                e->kind = kDepth;
                e->payload = reinterpret_cast<const unsigned char*>(&m_slots[slot - 1]);
                e->size = kSize;
            }
            e->aux = 0;
        }
        m_offset += kEntryHeadSize + h.size;
        return true;
    }
}

uint64_t JournalReader::DepthRecordsAtMost() const {
    uint64_t n = 0;
    for (uint64_t at = kHeaderSize; m_data && m_size - at >= kEntryHeadSize;) {
        const EntryHead h = DecodeEntryHead(m_data + at);
        if (h.kind == kDepth || h.kind == kDepthDelta) ++n;
        if (h.size > m_size - at - kEntryHeadSize) break;
        at += kEntryHeadSize + h.size;
    }
    return n;
}

std::vector<std::string> JournalFiles(const std::string& path, std::string* error) {
    std::vector<std::string> files;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        if (error) *error = path + ": " + std::strerror(errno);
        return files;
    }
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return files;
    }
    DIR* dir = opendir(path.c_str());
    if (!dir) {
        if (error) *error = path + ": " + std::strerror(errno);
        return files;
    }
    const std::string suffix = kFileSuffix;
    std::vector<std::pair<std::string, std::string>> found;   // (trading day, path)
    while (struct dirent* d = readdir(dir)) {
        const std::string name = d->d_name;
        if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
        const std::string full = path + (path.back() == '/' ? "" : "/") + name;
        // The header's trading day orders the files; a file whose header
        // cannot be read sorts by its name and is refused when opened.
        std::string day = name.substr(0, 8);
        const int fd = ::open(full.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            unsigned char head[kHeaderSize];
            FileHeader h;
            if (::read(fd, head, sizeof(head)) == static_cast<ssize_t>(sizeof(head)) &&
                DecodeHeader(head, sizeof(head), &h, nullptr))
                day = h.tradingDay;
            ::close(fd);
        }
        found.emplace_back(day, full);
    }
    closedir(dir);
    std::sort(found.begin(), found.end());
    for (auto& f : found) files.push_back(f.second);
    if (files.empty() && error) *error = path + ": no journal files (*" + suffix + ") in this directory";
    return files;
}

bool FindWholeEnd(const std::string& path, FileHeader* header, uint64_t* end, uint64_t* fileSize, std::string* error) {
    JournalReader reader;
    if (!reader.Open(path, error)) return false;
    Entry e;
    while (reader.Next(&e)) {
    }
    *header = reader.Header();
    *end = reader.Offset();
    *fileSize = reader.FileSize();
    return true;
}

}  // namespace journal
}  // namespace orvex
