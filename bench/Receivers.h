// The receiving ends of the end-to-end benchmark.
//
// DeliveryRecorder counts the rows of one stream as they reach a receiver
// and keeps the latency from send to delivery of each; it is fed by the
// library's callback and by the baseline client alike.
//
// BaselineClient is the ceiling: a bare client that connects, receives into
// a buffer of the library's size with the library's 2 ms poll, cuts frames,
// walks the dynamic-information records and the pushed rows' heads, and
// reads the two stamps of each row. It keeps no model and makes no record.
#ifndef ORVEX_BENCH_RECEIVERS_H
#define ORVEX_BENCH_RECEIVERS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "BenchUtil.h"

namespace orvex_bench {

struct LatencySummary {
    uint64_t rows = 0;
    int64_t p50 = 0, p99 = 0, p999 = 0, max = 0;   // ns
};

// Percentiles and maximum of latencies in any order.
LatencySummary SummarizeLatencies(std::vector<int64_t> latencies);

class DeliveryRecorder {
public:
    // Expects rows firstSeq .. firstSeq + capacity - 1; space is reserved
    // here, so that Record never allocates.
    void Arm(uint64_t firstSeq, uint64_t capacity);
    void Disarm() { m_armed.store(false, std::memory_order_release); }
    bool Armed() const { return m_armed.load(std::memory_order_acquire); }

    // One delivered row (called on the receiving thread).
    void Record(double seq, double sendNs) {
        if (!m_armed.load(std::memory_order_acquire)) return;
        const int64_t now = NowNs();
        const double offset = seq - static_cast<double>(m_first);
        if (offset < 0 || offset >= static_cast<double>(m_seen.size())) {
            m_stray.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        const size_t i = static_cast<size_t>(offset);
        if (m_seen[i]) {
            m_duplicates.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        m_seen[i] = 1;
        if (i < m_lastIndex) m_outOfOrder.fetch_add(1, std::memory_order_relaxed);
        m_lastIndex = i;
        const uint64_t n = m_count.load(std::memory_order_relaxed);
        m_latency[n] = now - static_cast<int64_t>(sendNs);
        m_lastAt.store(now, std::memory_order_relaxed);
        m_count.store(n + 1, std::memory_order_release);
    }

    uint64_t Count() const { return m_count.load(std::memory_order_acquire); }
    int64_t LastAt() const { return m_lastAt.load(std::memory_order_relaxed); }
    uint64_t Duplicates() const { return m_duplicates.load(); }
    uint64_t OutOfOrder() const { return m_outOfOrder.load(); }
    uint64_t Stray() const { return m_stray.load(); }

    // Waits until `rows` rows have arrived or nothing arrived for
    // `quietMs`; true when all arrived.
    bool WaitFor(uint64_t rows, int quietMs) const;
    LatencySummary Summarize();
    // The latencies recorded (ns), sorted.
    std::vector<int64_t> SortedLatencies() const;

private:
    std::atomic<bool> m_armed{false};
    uint64_t m_first = 0;
    std::vector<uint8_t> m_seen;
    std::vector<int64_t> m_latency;
    size_t m_lastIndex = 0;
    std::atomic<uint64_t> m_count{0};
    std::atomic<int64_t> m_lastAt{0};
    std::atomic<uint64_t> m_duplicates{0};
    std::atomic<uint64_t> m_outOfOrder{0};
    std::atomic<uint64_t> m_stray{0};
};

class BaselineClient {
public:
    // The poll loop receives as the library does (2 ms poll, then recv);
    // the blocking loop is the barest receiver: one blocking recv per pass.
    enum class Mode { Poll, Blocking };
    explicit BaselineClient(DeliveryRecorder& recorder, Mode mode = Mode::Poll) : m_recorder(recorder), m_mode(mode) {}
    ~BaselineClient() { Stop(); }
    bool Connect(uint16_t port);
    void Stop();
    uint64_t Frames() const { return m_frames.load(); }
    // Kernel id of the receiving thread (for its CPU time), or -1.
    int Tid() const { return m_tid.load(); }

private:
    void Run();
    void Walk(const char* body, int length);

    DeliveryRecorder& m_recorder;
    const Mode m_mode;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::atomic<uint64_t> m_frames{0};
    std::atomic<int> m_tid{-1};
    std::thread m_thread;
};

}  // namespace orvex_bench

#endif
