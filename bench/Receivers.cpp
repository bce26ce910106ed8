#include "Receivers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BenchMarket.h"

namespace orvex_bench {

void DeliveryRecorder::Arm(uint64_t firstSeq, uint64_t capacity) {
    m_armed = false;
    m_first = firstSeq;
    m_seen.assign(capacity, 0);
    m_latency.assign(capacity, 0);
    m_lastIndex = 0;
    m_count = 0;
    m_lastAt = 0;
    m_duplicates = 0;
    m_outOfOrder = 0;
    m_stray = 0;
    m_armed.store(true, std::memory_order_release);
}

bool DeliveryRecorder::WaitFor(uint64_t rows, int quietMs) const {
    uint64_t seen = Count();
    int64_t quietSince = NowNs();
    while (seen < rows) {
        SleepNs(1000000);
        const uint64_t now = Count();
        if (now != seen) {
            seen = now;
            quietSince = NowNs();
        } else if (NowNs() - quietSince > static_cast<int64_t>(quietMs) * 1000000) {
            return false;
        }
    }
    return true;
}

LatencySummary SummarizeLatencies(std::vector<int64_t> v) {
    LatencySummary s;
    s.rows = v.size();
    s.p50 = Percentile(v, 50);
    s.p99 = Percentile(v, 99);
    s.p999 = Percentile(v, 99.9);
    s.max = v.empty() ? 0 : v.back();
    return s;
}

LatencySummary DeliveryRecorder::Summarize() {
    const uint64_t n = Count();
    return SummarizeLatencies(
        std::vector<int64_t>(m_latency.begin(), m_latency.begin() + static_cast<std::ptrdiff_t>(n)));
}

std::vector<int64_t> DeliveryRecorder::SortedLatencies() const {
    const uint64_t n = Count();
    std::vector<int64_t> v(m_latency.begin(), m_latency.begin() + static_cast<std::ptrdiff_t>(n));
    std::sort(v.begin(), v.end());
    return v;
}

bool BaselineClient::Connect(uint16_t port) {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(m_fd);
        m_fd = -1;
        return false;
    }
    if (m_mode == Mode::Blocking) {
        // A blocking receive that still notices Stop() now and then.
        timeval tv{0, 200000};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    m_thread = std::thread([this] { Run(); });
    return true;
}

void BaselineClient::Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

namespace {

template <class T>
T Rd(const char* p) {
    T v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// Keeps the reads of the row heads from being optimised away.
volatile uint32_t g_sink;

}  // namespace

void BaselineClient::Walk(const char* body, int length) {
    uint32_t sink = 0;
    unsigned pos = 0;
    const unsigned len = static_cast<unsigned>(length);
    while (pos + 7 <= len) {
        const char* rec = body + pos;
        const uint8_t type = Rd<uint8_t>(rec + 4);
        const unsigned payloadLength = Rd<uint16_t>(rec + 5);
        if (payloadLength > len - pos - 7) break;
        const char* row = rec + 7;
        pos += 7 + payloadLength;
        if (type != 1 || payloadLength < 39) continue;
        const uint32_t maskA = Rd<uint32_t>(row);
        const uint32_t maskB = Rd<uint32_t>(row + 4);
        sink += Rd<uint16_t>(row + 8) + static_cast<uint32_t>(strnlen(row + 10, 21)) + Rd<uint32_t>(row + 31) +
                Rd<uint32_t>(row + 35);
        int volumeAt, turnoverAt;
        if (!StampOffsets(maskA, maskB, &volumeAt, &turnoverAt)) continue;
        if (turnoverAt + 8 > static_cast<int>(payloadLength)) continue;
        m_recorder.Record(Rd<double>(row + turnoverAt), Rd<double>(row + volumeAt));
    }
    g_sink = sink;
}

void BaselineClient::Run() {
    // The library's receive path: 16384-byte buffer, 2 ms poll, frames of
    // at most 4096 bytes cut in place and the remainder moved down.
    m_tid = static_cast<int>(gettid());
    pthread_setname_np(pthread_self(), "baseline");
    static constexpr int kBuffer = 16384;
    std::vector<char> buf(kBuffer);
    int fill = 0;
    while (!m_stop) {
        if (m_mode == Mode::Poll) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, 2) <= 0) continue;
        }
        ssize_t n = recv(m_fd, buf.data() + fill, static_cast<size_t>(kBuffer - fill), 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
        if (n <= 0) break;
        fill += static_cast<int>(n);
        int start = 0;
        while (fill - start > 3) {
            const uint16_t bodyLength = Rd<uint16_t>(buf.data() + start + 2);
            if (fill - start < bodyLength + 4) break;
            const int command = static_cast<unsigned char>(buf[static_cast<size_t>(start) + 1]) >> 1;
            if (command == 101) Walk(buf.data() + start + 4, bodyLength);
            m_frames.fetch_add(1, std::memory_order_relaxed);
            start += bodyLength + 4;
        }
        if (start > 0) {
            std::memmove(buf.data(), buf.data() + start, static_cast<size_t>(fill - start));
            fill -= start;
        }
    }
}

}  // namespace orvex_bench
