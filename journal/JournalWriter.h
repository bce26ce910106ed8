// Writing journal files: a bounded queue in memory and a writer thread.
//
// Add() is called on the library's callback threads and never touches the
// disk. The thread that adds the first depth record owns the queue's ring:
// its entries are copied into the ring and published with one ordinary
// store, without a lock or any other locked instruction, so that the
// library's worker pays for the copy and the clock and nothing else. Any
// other thread's entries go to a side list under a lock, each marked with
// the ring's position when it was added; the writer puts it back in the
// stream there, so every thread's entries keep their order and an entry
// added after another thread's (as the two threads saw it) is written
// after it.
//
// The writer thread wakes every flushMs (or when the ring is half full),
// seals the entries (their checks) and writes them to the current trading
// day's file. When the ring is full an entry is dropped, counted and
// logged, never lost in silence.
//
// Files: DIR/DAY.mdj, one per trading day, switched by SetTradingDay at the
// point of the stream where it was called. Entries added before any trading
// day is known wait in memory for the first one. A file that already exists
// is appended to after its last whole entry; a torn tail is cut first (and
// logged). A file this build cannot append to (another format version) is
// left alone and DAY.2.mdj, DAY.3.mdj, ... is used instead. A write that
// fails part of the way (a full disk) is cut back to the last whole write,
// its entries counted as dropped, so that later ones are not stranded
// behind a torn entry.
//
// Depth records are written as deltas from the instrument's previous record
// (see JournalFormat.h) unless depthDeltas is off; the encoding is done here,
// on the writer thread.
//
// Flush policy: with flushMs 0 the writer is woken for every entry, so an
// entry reaches the OS as soon as the writer runs; otherwise at least every
// flushMs milliseconds (and sooner when the queue is half full). With sync,
// every write is followed by fdatasync, for power loss; without it a killed
// process loses only what had not reached the OS.
//
// Close() once the callbacks have stopped: whatever is added after it is
// dropped and counted.
#ifndef ORVEX_JOURNAL_WRITER_H
#define ORVEX_JOURNAL_WRITER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "journal/JournalFormat.h"

namespace orvex {
namespace journal {

class JournalWriter {
public:
    struct Options {
        std::string dir = ".";
        size_t queueBytes = 64u << 20;   // the ring: bound of what waits for the writer thread (touched at Start)
        int flushMs = 20;                // 0: every entry
        bool sync = false;               // fdatasync after every write
        std::string templatesText;       // written at the start of every new file
        bool depthDeltas = true;         // depth records as changes from the instrument's last one
        std::function<void(const std::string&)> log;   // log lines; stderr when empty
    };
    struct Stats {
        uint64_t entries = 0;        // written to files
        uint64_t bytes = 0;          // written to files, headers included
        uint64_t dropped = 0;        // entries dropped: queue full, write errors
        uint64_t droppedBytes = 0;
        uint64_t highWater = 0;      // most bytes ever waiting in the ring or the side list
        uint64_t waiting = 0;        // bytes waiting now
        uint64_t queueBytes = 0;     // the bound
        uint64_t files = 0;          // files opened
        uint64_t instruments = 0;    // distinct instruments of depth records in the current file
        uint64_t tornBytes = 0;      // cut from torn tails before appending
        uint64_t writeErrors = 0;
        uint64_t writerCpuNs = 0;    // CPU time of the writer thread so far
        std::string file;            // the current file
    };

    explicit JournalWriter(Options options);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // Creates the directory when missing and starts the writer thread.
    bool Start(std::string* error);
    // Any thread. False when the entry was dropped (queue full, too big, or
    // the writer not running).
    bool Add(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size);
    // Any thread: entries added from now on belong to trading day `day`
    // (YYYYMMDD); a day other than the current one starts a new file.
    void SetTradingDay(const std::string& day);
    // Writes everything queued, closes the file and ends the thread.
    void Close();

    Stats GetStats() const;

private:
    bool AddToRing(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size, bool mark);
    bool AddToSide(uint16_t kind, uint16_t aux, int64_t time, const void* payload, uint32_t size);
    // Appends an entry to the side list, marked with the ring's position
    // now; the caller holds m_lock.
    void AppendToSideLocked(const EntryHead& h, const void* payload);
    bool Dropped(size_t bytes);
    void Wake();
    void Run();
    // The ring's entries from `*pos` up to `end`, in order.
    void FeedRing(uint64_t* pos, uint64_t end);
    // The entry at `*pos` (past a wrap mark), `*pos` moved beyond it; null
    // at `end`.
    const unsigned char* NextInRing(uint64_t* pos, uint64_t end) const;
    // One entry of the stream: a day mark or an entry for the file.
    void Feed(const unsigned char* entry);
    // Writes what Feed gathered.
    void EndBatch();
    // Appends one entry to m_out, a depth record as a delta when smaller.
    void Transcode(const unsigned char* entry);
    static uint64_t InstrumentKey(const unsigned char* depthRecord);
    // The slot (1-based) of an instrument key in the current file, made on
    // first sight (then *first is set); 0 when the file has no slot left.
    uint16_t SlotOf(uint64_t key, bool* first);
    // The file no longer holds the slots' last records (a new file, or
    // entries lost on the way to it): the slots start again, each with a
    // whole record.
    void LoseFileBases();
    void WriteRun(const unsigned char* data, size_t size, uint64_t entries);
    void OpenDay(const std::string& day);
    void CloseFile();
    bool WriteAll(const unsigned char* data, size_t size);
    // Writes m_fileHead; false when it could not be written whole.
    bool WriteFileHead();
    // Cuts the file back to m_fileEnd after a failed write.
    void CutToFileEnd();
    void Log(const std::string& line);

    Options m_options;
    size_t m_cap = 0;   // ring bytes, a multiple of 8

    // The ring. Bytes [m_consumed, m_published) of its endless stream hold
    // entries (at offsets modulo m_cap, each at a multiple of 8); the owner
    // writes past m_published, the writer reads below it.
    struct RingMemory {
        void operator()(unsigned char* p) const;
        size_t bytes;
    };
    std::unique_ptr<unsigned char[], RingMemory> m_ring{nullptr, RingMemory{0}};
    std::atomic<uintptr_t> m_owner{0};      // the ring's producer thread (a token of it); 0: none yet
    std::atomic<bool> m_open{false};        // between Start and Close
    alignas(64) uint64_t m_head = 0;        // owner only: where the next entry goes
    size_t m_headOff = 0;                   // owner only: m_head % m_cap
    uint64_t m_consumedSeen = 0;            // owner only: m_consumed as last read
    uint64_t m_ringHigh = 0;                // owner only
    std::atomic<uint64_t> m_published{0};   // written by the owner
    std::atomic<bool> m_wakeAsked{false};   // the owner asked for the writer (half full); the writer clears it
    alignas(64) std::atomic<uint64_t> m_consumed{0};   // written by the writer thread
    std::atomic<uint64_t> m_ringHighWater{0};
    std::atomic<uint64_t> m_queueDropped{0};
    std::atomic<uint64_t> m_queueDroppedBytes{0};

    // Shared with the callback threads, under m_lock.
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::vector<unsigned char> m_side;   // entries of threads other than the owner
    std::vector<std::pair<uint64_t, size_t>> m_sideAt;   // each one's ring position and offset in m_side
    bool m_woken = false;
    bool m_stop = false;
    Stats m_stats;
    std::string m_lastDay;   // of the last SetTradingDay

    // Writer thread only.
    std::vector<unsigned char> m_out;     // the batch as written (m_outUsed bytes of it)
    size_t m_outUsed = 0;
    uint64_t m_outEntries = 0;
    // Per file: instrument key -> slot + 1, open addressing (see SlotOf).
    std::vector<uint64_t> m_slotKeys;
    std::vector<uint16_t> m_slotIds;
    std::vector<COrvexWiraDepthMarketDataField> m_bases;   // last record of each slot
    std::vector<unsigned char> m_early;   // entries before the first trading day
    uint64_t m_earlyEntries = 0;
    std::string m_day;
    int m_fd = -1;
    uint64_t m_fileEnd = 0;                  // the file's length up to its last whole write
    std::vector<unsigned char> m_fileHead;   // a new file's header and templates, until written
    uint64_t m_fileHeadEntries = 0;
    std::thread m_thread;
    bool m_started = false;
};

// Wall-clock time in nanoseconds since the epoch.
int64_t WallNanos();
// The same for a callback path: the processor's time-stamp counter scaled
// to the wall clock, which is read again at least every millisecond (and
// for every call until the scale is known). Per thread; never goes back on
// a thread.
int64_t FastWallNanos();

}  // namespace journal
}  // namespace orvex

#endif
