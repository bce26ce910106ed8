#include "journal/JournalWriter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <emmintrin.h>

#include <cerrno>
#include <cstddef>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "journal/JournalReader.h"

namespace orvex {
namespace journal {

namespace {

// Switching days travels in the queue as an entry of this kind; it is never
// written to a file.
constexpr uint16_t kDayMark = 0xFFFF;
// Room that only day marks may use, so that one always fits.
constexpr size_t kMarkRoom = 1024;
// Entries waiting for the first trading day.
constexpr size_t kEarlyLimit = 1u << 20;

bool PowerOfTen(uint64_t n) {
    while (n >= 10 && n % 10 == 0) n /= 10;
    return n == 1;
}

}  // namespace

int64_t WallNanos() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

namespace {

// The wall clock and the time-stamp counter read together: the counter
// before and after the clock, again when the two are far apart (the thread
// was interrupted), the middle taken.
void ReadPair(uint64_t* tsc, int64_t* wall) {
    for (int attempt = 0;; ++attempt) {
        const uint64_t a = __builtin_ia32_rdtsc();
        const int64_t w = WallNanos();
        const uint64_t b = __builtin_ia32_rdtsc();
        if (b - a < 20000 || attempt == 4) {
            *tsc = a + (b - a) / 2;
            *wall = w;
            return;
        }
    }
}

}  // namespace

int64_t FastWallNanos() {
    struct Clock {
        uint64_t tsc = 0;          // at `wall`
        int64_t wall = 0;
        uint64_t calTsc = 0;       // the first reading, for the scale
        int64_t calWall = 0;
        uint64_t scale = 0;        // ns per tick in 32.32 fixed point; 0 until known
        uint64_t resyncTicks = 0;  // about a millisecond
        int64_t last = 0;
    };
    thread_local Clock c;
    const uint64_t now = __builtin_ia32_rdtsc();
    int64_t t;
    if (now - c.tsc < c.resyncTicks) {
        t = c.wall + static_cast<int64_t>((static_cast<unsigned __int128>(now - c.tsc) * c.scale) >> 32);
    } else {
        uint64_t tsc;
        ReadPair(&tsc, &t);
        if (!c.calWall) {
            c.calWall = t;
            c.calTsc = tsc;
        } else if (t - c.calWall >= 10000000 && tsc > c.calTsc) {
            // Ten milliseconds or more since the first reading: the scale.
            const double nsPerTick = static_cast<double>(t - c.calWall) / static_cast<double>(tsc - c.calTsc);
            c.scale = static_cast<uint64_t>(nsPerTick * 4294967296.0);
            c.resyncTicks = static_cast<uint64_t>(1e6 / nsPerTick);
        }
        c.tsc = tsc;
        c.wall = t;
    }
    if (t < c.last) t = c.last;
    c.last = t;
    return t;
}

JournalWriter::JournalWriter(Options options) : m_options(std::move(options)) {
    if (m_options.queueBytes < 2 * kMarkRoom + 64 * 1024) m_options.queueBytes = 2 * kMarkRoom + 64 * 1024;
    m_cap = m_options.queueBytes & ~size_t{7};
    m_stats.queueBytes = m_options.queueBytes;
}

JournalWriter::~JournalWriter() { Close(); }

void JournalWriter::RingMemory::operator()(unsigned char* p) const {
    if (p) munmap(p, bytes);
}

void JournalWriter::Log(const std::string& line) {
    if (m_options.log) m_options.log(line);
    else std::fprintf(stderr, "%s\n", line.c_str());
}

bool JournalWriter::Start(std::string* error) {
    if (m_started) return true;
    if (mkdir(m_options.dir.c_str(), 0775) != 0 && errno != EEXIST) {
        if (error) *error = m_options.dir + ": " + std::strerror(errno);
        return false;
    }
    struct stat st;
    if (stat(m_options.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (error) *error = m_options.dir + ": not a directory";
        return false;
    }
    {
        // Mapped whole and in huge pages where the system allows it: the
        // library's thread streams through the ring, and a 4 KB page
        // would cost it a page walk every ten depth records.
        constexpr size_t kHuge = size_t{2} << 20;
        const size_t bytes = (m_cap + kHuge - 1) / kHuge * kHuge;
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) {
            if (error) *error = std::string("journal queue: ") + std::strerror(errno);
            return false;
        }
#ifdef MADV_HUGEPAGE
        madvise(p, bytes, MADV_HUGEPAGE);
#endif
        m_ring = std::unique_ptr<unsigned char[], RingMemory>(static_cast<unsigned char*>(p), RingMemory{bytes});
    }
    // Every page of the ring is touched now, so that the library's thread
    // never takes a page fault (a page cleared by the kernel) in a callback.
    std::memset(m_ring.get(), 0, m_cap);
    m_started = true;
    m_open.store(true, std::memory_order_release);
    m_thread = std::thread([this] { Run(); });
    return true;
}

namespace {

constexpr size_t Align8(size_t n) { return (n + 7) & ~size_t{7}; }
// In place of an entry's size: the rest of the ring is unused, the stream
// goes on at its start.
constexpr uint32_t kWrapMark = 0xFFFFFFFFu;

// How far ahead of the entries the ring's lines are claimed: a few entries,
// time enough for a line to come from memory.
constexpr size_t kClaimAhead = 2048;

// Asks for a cache line in order to write it.
inline void ClaimLine(const unsigned char* p) {
#if defined(__x86_64__)
    asm volatile("prefetchw %0" : : "m"(*p));
#else
    __builtin_prefetch(p, 1, 3);
#endif
}

// A depth record's bytes, sixteen at a time in line: no call, and none of
// the string instructions that cost more to start than this copy takes.
inline void CopyDepthRecord(unsigned char* to, const unsigned char* from) {
    constexpr size_t kSize = sizeof(COrvexWiraDepthMarketDataField);
    size_t i = 0;
    for (; i + 16 <= kSize; i += 16)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i)));
    for (; i < kSize; i += 8) std::memcpy(to + i, from + i, 8);
}

EntryHead Head(uint16_t kind, uint16_t aux, int64_t time, uint32_t size) {
    EntryHead h;
    h.size = size;
    h.kind = kind;
    h.aux = aux;
    h.time = time;
    return h;
}

// One per thread: its address tells the threads apart.
inline uintptr_t ThreadToken() {
    static thread_local char token;
    return reinterpret_cast<uintptr_t>(&token);
}

}  // namespace

bool JournalWriter::Add(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size) {
    const uintptr_t me = ThreadToken();
    uintptr_t owner = m_owner.load(std::memory_order_relaxed);
    if (owner != me) {
        // The ring goes to the thread of the first depth record: the
        // library's worker.
        if (owner != 0 || kind != kDepth || !m_owner.compare_exchange_strong(owner, me))
            return AddToSide(kind, aux, time, payload, size);
    }
    return AddToRing(kind, aux, time, payload, size, false);
}

// The owner thread only (for a day mark, under m_lock as well).
bool JournalWriter::AddToRing(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size,
                              bool mark) {
    const size_t need = Align8(kEntryHeadSize + size);
    if (!m_open.load(std::memory_order_relaxed) || size > kMaxPayload || need > m_cap / 4) return Dropped(need);
    uint64_t head = m_head;
    size_t off = m_headOff;
    // An entry never straddles the end: the rest is skipped.
    const size_t skip = off + need > m_cap ? m_cap - off : 0;
    // The last kMarkRoom bytes are for day marks only, so one always fits.
    const size_t room = skip + need + (mark ? 0 : kMarkRoom);
    if (head - m_consumedSeen + room > m_cap) {
        m_consumedSeen = m_consumed.load(std::memory_order_acquire);
        if (head - m_consumedSeen + room > m_cap) {
            if (!mark && !m_wakeAsked.load(std::memory_order_relaxed)) {
                m_wakeAsked.store(true, std::memory_order_relaxed);
                Wake();
            }
            return Dropped(need);
        }
    }
    if (skip) {
        std::memcpy(m_ring.get() + off, &kWrapMark, 4);
        head += skip;
        off = 0;
    }
    unsigned char* p = m_ring.get() + off;
    EncodeEntryHead(Head(kind, aux, time, size), p);
    if (size == sizeof(COrvexWiraDepthMarketDataField))
        CopyDepthRecord(p + kEntryHeadSize, static_cast<const unsigned char*>(payload));
    else if (size)
        std::memcpy(p + kEntryHeadSize, payload, size);
    head += need;
    m_head = head;
    m_headOff = off + need == m_cap ? 0 : off + need;
    m_published.store(head, std::memory_order_release);
    // The ring's lines are cold (the writer read them last, long ago): those
    // a few entries ahead are claimed for writing now, so that they are in
    // the cache by the time an entry is copied there.
    const size_t ahead = off + need + kClaimAhead;
    for (size_t o = 0; o < need && ahead + o < m_cap; o += 64) ClaimLine(m_ring.get() + ahead + o);
    uint64_t used = head - m_consumedSeen;
    if (used > m_ringHigh || used >= m_cap / 2) {
        m_consumedSeen = m_consumed.load(std::memory_order_acquire);
        used = head - m_consumedSeen;
        if (used > m_ringHigh) {
            m_ringHigh = used;
            m_ringHighWater.store(used, std::memory_order_relaxed);
        }
    }
    if (mark) return true;
    if (m_options.flushMs == 0) {
        Wake();
    } else if (used >= m_cap / 2 && !m_wakeAsked.load(std::memory_order_relaxed)) {
        m_wakeAsked.store(true, std::memory_order_relaxed);
        Wake();
    }
    return true;
}

bool JournalWriter::AddToSide(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size) {
    const size_t need = kEntryHeadSize + size;
    bool full = false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_open.load(std::memory_order_relaxed) || size > kMaxPayload ||
            m_side.size() + need > m_cap / 2 - kMarkRoom) {
            full = true;   // dropped below, after the lock; the writer is woken all the same
        } else {
            AppendToSideLocked(Head(kind, aux, time, size), payload);
            if (m_side.size() > m_stats.highWater) m_stats.highWater = m_side.size();
            if (m_woken || (m_options.flushMs != 0 && m_side.size() < m_cap / 4)) return true;
            m_woken = true;
        }
    }
    m_wake.notify_one();
    return full ? Dropped(need) : true;
}

void JournalWriter::AppendToSideLocked(const EntryHead& h, const void* payload) {
    const size_t at = m_side.size();
    m_side.resize(at + kEntryHeadSize + h.size);
    EncodeEntryHead(h, m_side.data() + at);
    if (h.size) std::memcpy(m_side.data() + at + kEntryHeadSize, payload, h.size);
    // Everything the owner published so far comes before this.
    m_sideAt.emplace_back(m_published.load(std::memory_order_acquire), at);
}

bool JournalWriter::Dropped(size_t bytes) {
    const uint64_t dropped = m_queueDropped.fetch_add(1, std::memory_order_relaxed) + 1;
    m_queueDroppedBytes.fetch_add(bytes, std::memory_order_relaxed);
    // The first drop and then each power of ten, so that a long stall does
    // not flood the log.
    if (PowerOfTen(dropped))
        Log("journal queue full: " + std::to_string(dropped) + " entries dropped so far (queue " +
            std::to_string(m_options.queueBytes) + " bytes)");
    return false;
}

void JournalWriter::Wake() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_woken = true;
    }
    m_wake.notify_one();
}

void JournalWriter::SetTradingDay(const std::string& day) {
    if (day.empty()) return;
    char text[8] = {0};
    std::memcpy(text, day.data(), day.size() < 8 ? day.size() : 8);
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_open.load(std::memory_order_relaxed) || day == m_lastDay) return;
        m_lastDay = day;
        if (m_owner.load(std::memory_order_relaxed) == ThreadToken()) {
            // Between the owner's own entries, in the ring.
            if (!AddToRing(kDayMark, 0, 0, text, 8, true)) return;
        } else {
            AppendToSideLocked(Head(kDayMark, 0, 0, 8), text);
        }
        m_woken = true;
    }
    m_wake.notify_one();
}

void JournalWriter::Close() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_started || m_stop) return;
        m_open.store(false, std::memory_order_relaxed);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
    // Entries published after the writer's last look: dropped, and counted.
    uint64_t pos = m_consumed.load(std::memory_order_acquire);
    const uint64_t end = m_published.load(std::memory_order_acquire);
    while (const unsigned char* entry = NextInRing(&pos, end)) {
        m_queueDropped.fetch_add(1, std::memory_order_relaxed);
        m_queueDroppedBytes.fetch_add(Align8(kEntryHeadSize + DecodeEntryHead(entry).size), std::memory_order_relaxed);
    }
}

const unsigned char* JournalWriter::NextInRing(uint64_t* pos, uint64_t end) const {
    while (*pos < end) {
        const size_t off = static_cast<size_t>(*pos % m_cap);
        const unsigned char* entry = m_ring.get() + off;
        uint32_t size;
        std::memcpy(&size, entry, 4);
        if (size == kWrapMark) {
            *pos += m_cap - off;
            continue;
        }
        *pos += Align8(kEntryHeadSize + size);
        return entry;
    }
    return nullptr;
}

JournalWriter::Stats JournalWriter::GetStats() const {
    Stats s;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        s = m_stats;
        s.waiting = m_side.size();
    }
    s.waiting += m_published.load(std::memory_order_acquire) - m_consumed.load(std::memory_order_acquire);
    s.dropped += m_queueDropped.load(std::memory_order_relaxed);
    s.droppedBytes += m_queueDroppedBytes.load(std::memory_order_relaxed);
    const uint64_t ring = m_ringHighWater.load(std::memory_order_relaxed);
    if (ring > s.highWater) s.highWater = ring;
    return s;
}

void JournalWriter::Run() {
    std::vector<unsigned char> side;
    std::vector<std::pair<uint64_t, size_t>> sideAt;
    uint64_t pos = 0;   // what of the ring has been fed
    constexpr size_t kOutBytes = 1u << 20;
    m_out.resize(kOutBytes);
    for (;;) {
        bool stop = false;
        side.clear();
        sideAt.clear();
        {
            std::unique_lock<std::mutex> lock(m_lock);
            if (m_options.flushMs > 0)
                m_wake.wait_for(lock, std::chrono::milliseconds(m_options.flushMs), [&] { return m_woken || m_stop; });
            else
                m_wake.wait(lock, [&] { return m_woken || m_stop; });
            m_woken = false;
            stop = m_stop;
            side.swap(m_side);
            sideAt.swap(m_sideAt);
        }
        m_wakeAsked.store(false, std::memory_order_relaxed);
        // Read after the side list was taken: at least every position an
        // entry of it was marked with.
        const uint64_t end = m_published.load(std::memory_order_acquire);
        for (const auto& at : sideAt) {
            FeedRing(&pos, at.first);
            Feed(side.data() + at.second);
        }
        FeedRing(&pos, end);
        EndBatch();
        if (stop) break;
    }
    // Entries that never saw a trading day go to today's file.
    if (m_fd < 0 && !m_early.empty()) {
        const time_t now = time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        char day[48];
        std::snprintf(day, sizeof(day), "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
        OpenDay(day);
    }
    CloseFile();
}

void JournalWriter::FeedRing(uint64_t* pos, uint64_t end) {
    // The ring's space is given back every megabyte or so, not only at the
    // end of a long batch.
    constexpr uint64_t kGiveBack = 1u << 20;
    uint64_t given = *pos;
    while (const unsigned char* entry = NextInRing(pos, end)) {
        Feed(entry);
        if (*pos - given >= kGiveBack) {
            m_consumed.store(*pos, std::memory_order_release);
            given = *pos;
        }
    }
    m_consumed.store(*pos, std::memory_order_release);
}

// Seals the stream's entries into a small output buffer that is written
// whenever it fills (so it stays in the cache, however large the batch),
// and switches files at day marks.
void JournalWriter::Feed(const unsigned char* entry) {
    const EntryHead h = DecodeEntryHead(entry);
    const size_t length = kEntryHeadSize + h.size;
    if (h.kind == kDayMark) {
        WriteRun(m_out.data(), m_outUsed, m_outEntries);
        m_outUsed = 0;
        m_outEntries = 0;
        const std::string day(reinterpret_cast<const char*>(entry + kEntryHeadSize),
                              strnlen(reinterpret_cast<const char*>(entry + kEntryHeadSize), 8));
        if (day != m_day) OpenDay(day);
        return;
    }
    // Room for the entry as it may come out (a depth delta adds a mask).
    const size_t need = length + 8;
    if (m_outUsed + need > m_out.size()) {
        WriteRun(m_out.data(), m_outUsed, m_outEntries);
        m_outUsed = 0;
        m_outEntries = 0;
        if (need > m_out.size()) m_out.resize(need);
    }
    Transcode(entry);
    ++m_outEntries;
}

void JournalWriter::EndBatch() {
    WriteRun(m_out.data(), m_outUsed, m_outEntries);
    m_outUsed = 0;
    m_outEntries = 0;
    if (m_options.sync && m_fd >= 0) fdatasync(m_fd);
    timespec cpu{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    std::lock_guard<std::mutex> lock(m_lock);
    m_stats.instruments = m_bases.size();
    m_stats.writerCpuNs = static_cast<uint64_t>(cpu.tv_sec) * 1000000000u + static_cast<uint64_t>(cpu.tv_nsec);
}

void JournalWriter::Transcode(const unsigned char* entry) {
    EntryHead h = DecodeEntryHead(entry);
    unsigned char* out = m_out.data() + m_outUsed;
    constexpr size_t kSize = sizeof(COrvexWiraDepthMarketDataField);
    if (h.kind != kDepth || h.size != kSize) {
        std::memcpy(out, entry, kEntryHeadSize + h.size);
        SealEntry(out);
        m_outUsed += kEntryHeadSize + h.size;
        return;
    }
    const unsigned char* record = entry + kEntryHeadSize;
    bool first = false;
    const uint16_t slot = SlotOf(InstrumentKey(record), &first);
    unsigned char* base = slot ? reinterpret_cast<unsigned char*>(&m_bases[slot - 1]) : nullptr;
    if (base && !first && m_options.depthDeltas) {
        const size_t n = EncodeDepthDelta(base, record, out + kEntryHeadSize);
        if (n < kSize) {
            h.kind = kDepthDelta;
            h.aux = slot;
            h.size = static_cast<uint32_t>(n);
            EncodeEntryHead(h, out);
            SealEntry(out);
            m_outUsed += kEntryHeadSize + n;
            return;
        }
    } else if (base) {
        std::memcpy(base, record, kSize);
    }
    h.aux = slot;
    EncodeEntryHead(h, out);
    std::memcpy(out + kEntryHeadSize, record, kSize);
    SealEntry(out);
    m_outUsed += kEntryHeadSize + kSize;
}

uint64_t JournalWriter::InstrumentKey(const unsigned char* record) {
    // The instrument and exchange ids up to their ends, zero-padded into
    // five words and mixed. The record sits at any alignment in the queue:
    // its texts are read as bytes.
    const char* id = reinterpret_cast<const char*>(record) + offsetof(COrvexWiraDepthMarketDataField, InstrumentID);
    const char* exchange = reinterpret_cast<const char*>(record) + offsetof(COrvexWiraDepthMarketDataField, ExchangeID);
    unsigned char k[40] = {0};
    std::memcpy(k, id, strnlen(id, sizeof(COrvexWiraDepthMarketDataField::InstrumentID)));
    std::memcpy(k + 32, exchange, strnlen(exchange, 8));
    uint64_t h = 0x9E3779B97F4A7C15ull;
    for (int i = 0; i < 5; ++i) {
        uint64_t w;
        std::memcpy(&w, k + 8 * i, 8);
        h = (h ^ w) * 0xBF58476D1CE4E5B9ull;
        h ^= h >> 31;
    }
    return h;
}

uint16_t JournalWriter::SlotOf(uint64_t key, bool* first) {
    // Open addressing over a power-of-two table at most half full; a key of
    // 0 marks a free place. Two instruments with the same key share a slot,
    // which costs only size: a delta is taken against whatever it holds.
    if (!key) key = 1;
    if (m_slotKeys.empty()) {
        m_slotKeys.assign(4096, 0);
        m_slotIds.assign(4096, 0);
    }
    size_t mask = m_slotKeys.size() - 1;
    for (size_t i = key & mask;; i = (i + 1) & mask) {
        if (m_slotKeys[i] == key) return m_slotIds[i];
        if (m_slotKeys[i]) continue;
        if (m_bases.size() >= 0xFFFF) return 0;   // no slot: written whole
        m_bases.emplace_back();
        const uint16_t slot = static_cast<uint16_t>(m_bases.size());
        m_slotKeys[i] = key;
        m_slotIds[i] = slot;
        *first = true;   // the slot's first record: whole
        if (2 * m_bases.size() > m_slotKeys.size()) {
            std::vector<uint64_t> keys(2 * m_slotKeys.size(), 0);
            std::vector<uint16_t> ids(keys.size(), 0);
            mask = keys.size() - 1;
            for (size_t j = 0; j < m_slotKeys.size(); ++j) {
                if (!m_slotKeys[j]) continue;
                size_t p = m_slotKeys[j] & mask;
                while (keys[p]) p = (p + 1) & mask;
                keys[p] = m_slotKeys[j];
                ids[p] = m_slotIds[j];
            }
            m_slotKeys.swap(keys);
            m_slotIds.swap(ids);
        }
        return slot;
    }
}

void JournalWriter::WriteRun(const unsigned char* data, size_t size, uint64_t entries) {
    if (!size) return;
    if (m_fd < 0 && !m_day.empty()) {
        // The day's file could not be opened (logged then): counted as lost.
        LoseFileBases();
        std::lock_guard<std::mutex> lock(m_lock);
        m_stats.dropped += entries;
        m_stats.droppedBytes += size;
        return;
    }
    if (m_fd < 0) {
        if (m_early.size() + size > kEarlyLimit) {
            LoseFileBases();
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_stats.dropped += entries;
                m_stats.droppedBytes += size;
            }
            Log("journal: no trading day known yet and " + std::to_string(kEarlyLimit) +
                " bytes already waiting: " + std::to_string(entries) + " entries dropped");
            return;
        }
        m_early.insert(m_early.end(), data, data + size);
        m_earlyEntries += entries;
        return;
    }
    if ((m_fileHead.empty() || WriteFileHead()) && WriteAll(data, size)) {
        m_fileEnd += size;
        std::lock_guard<std::mutex> lock(m_lock);
        m_stats.entries += entries;
        m_stats.bytes += size;
    } else {
        CutToFileEnd();
        LoseFileBases();
        bool first;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            first = m_stats.writeErrors++ == 0;
            m_stats.dropped += entries;
            m_stats.droppedBytes += size;
        }
        if (first) Log("journal: cannot write " + m_stats.file + ": " + std::strerror(errno) + "; entries are dropped");
    }
}

bool JournalWriter::WriteFileHead() {
    if (!WriteAll(m_fileHead.data(), m_fileHead.size())) return false;
    m_fileEnd = m_fileHead.size();
    std::lock_guard<std::mutex> lock(m_lock);
    m_stats.bytes += m_fileHead.size();
    m_stats.entries += m_fileHeadEntries;
    m_fileHead.clear();
    return true;
}

void JournalWriter::CutToFileEnd() {
    // A write that failed part of the way (a full disk) leaves part of an
    // entry, and every later entry would sit behind it, out of a reader's
    // reach: the file goes back to its last whole write.
    if (ftruncate(m_fd, static_cast<off_t>(m_fileEnd)) == 0) lseek(m_fd, static_cast<off_t>(m_fileEnd), SEEK_SET);
}

void JournalWriter::LoseFileBases() {
    m_slotKeys.clear();
    m_slotIds.clear();
    m_bases.clear();
}

bool JournalWriter::WriteAll(const unsigned char* data, size_t size) {
    while (size) {
        const ssize_t n = ::write(m_fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void JournalWriter::CloseFile() {
    m_fileHead.clear();
    if (m_fd >= 0) {
        if (m_options.sync) fdatasync(m_fd);
        ::close(m_fd);
    }
    m_fd = -1;
}

void JournalWriter::OpenDay(const std::string& day) {
    CloseFile();
    m_day = day;
    // Slots start again in every file (and in a file appended to).
    LoseFileBases();
    std::string path;
    for (int n = 1; n < 100 && m_fd < 0; ++n) {
        path = n == 1 ? DayFileName(m_options.dir, day) : DayFileName(m_options.dir, day + "." + std::to_string(n));
        struct stat st;
        const bool exists = stat(path.c_str(), &st) == 0;
        if (exists && st.st_size >= static_cast<off_t>(kHeaderSize)) {
            FileHeader header;
            uint64_t end = 0, fileSize = 0;
            std::string error;
            if (!FindWholeEnd(path, &header, &end, &fileSize, &error)) {
                Log("journal: cannot append to " + error + "; trying the next name");
                continue;
            }
            const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (fd < 0) {
                Log("journal: cannot open " + path + ": " + std::strerror(errno));
                continue;
            }
            if (end < fileSize) {
                if (ftruncate(fd, static_cast<off_t>(end)) != 0) {
                    Log("journal: cannot cut the torn tail of " + path + ": " + std::strerror(errno));
                    ::close(fd);
                    continue;
                }
                Log("journal: " + path + ": cut " + std::to_string(fileSize - end) + " bytes of a torn tail at offset " +
                    std::to_string(end));
                std::lock_guard<std::mutex> lock(m_lock);
                m_stats.tornBytes += fileSize - end;
            }
            lseek(fd, static_cast<off_t>(end), SEEK_SET);
            m_fd = fd;
            m_fileEnd = end;
            m_fileHead.clear();
            Log("journal: appending to " + path + " at offset " + std::to_string(end));
        } else {
            const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            if (fd < 0) {
                Log("journal: cannot create " + path + ": " + std::strerror(errno));
                continue;
            }
            m_fd = fd;
            m_fileEnd = 0;
            // The header (and the templates) go first; until they are
            // written whole, nothing else is.
            FileHeader header;
            std::snprintf(header.tradingDay, sizeof(header.tradingDay), "%s", day.c_str());
            header.startTime = WallNanos();
            m_fileHead.assign(kHeaderSize, 0);
            EncodeHeader(header, m_fileHead.data());
            m_fileHeadEntries = 0;
            if (!m_options.templatesText.empty() && m_options.templatesText.size() <= kMaxPayload) {
                const size_t at = m_fileHead.size();
                m_fileHead.resize(at + kEntryHeadSize + m_options.templatesText.size());
                EntryHead h;
                h.size = static_cast<uint32_t>(m_options.templatesText.size());
                h.kind = kTemplates;
                h.time = header.startTime;
                EncodeEntryHead(h, m_fileHead.data() + at);
                std::memcpy(m_fileHead.data() + at + kEntryHeadSize, m_options.templatesText.data(), h.size);
                SealEntry(m_fileHead.data() + at);
                m_fileHeadEntries = 1;
            }
            if (!WriteFileHead()) {
                Log("journal: cannot write " + path + ": " + std::strerror(errno));
                CutToFileEnd();
            }
        }
    }
    if (m_fd < 0) {
        Log("journal: no file can be written for trading day " + day + "; entries are dropped until the next day");
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_lock);
        ++m_stats.files;
        m_stats.file = path;
    }
    if (!m_early.empty()) {
        std::vector<unsigned char> early;
        early.swap(m_early);
        WriteRun(early.data(), early.size(), m_earlyEntries);
        m_earlyEntries = 0;
    }
}

}  // namespace journal
}  // namespace orvex
