#include "Blaster.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "BenchUtil.h"
#include "protocol/DcFrames.h"
#include "protocol/Loopback.h"

namespace orvex_bench {

namespace {

constexpr int kCmdHeartBeat = 0;
constexpr int kCmdNameTable = 1;
constexpr int kCmdMarketStatus = 2;
constexpr int kCmdQuotation = 3;
constexpr int kCmdLogin = 83;
constexpr int kCmdSubscribeDynainfo = 100;

bool WaitFor(const std::atomic<bool>& flag, int timeoutMs) {
    const int64_t end = NowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    while (!flag.load()) {
        if (NowNs() > end) return false;
        SleepNs(200000);
    }
    return true;
}

}  // namespace

Blaster::Blaster(const BenchCatalog& cat) : m_cat(cat) {
    m_status = MarketStatusFrame(cat);
    m_names = NameTableFrames(cat);
    m_quotes = QuotationFrames(cat);

    m_listen = orvex_test::ListenLoopback(0, 8, &m_port);
    if (pipe(m_wake) != 0) m_wake[0] = m_wake[1] = -1;
    m_thread = std::thread([this] { Run(); });
}

Blaster::~Blaster() {
    m_stop = true;
    char c = 0;
    if (m_wake[1] >= 0 && write(m_wake[1], &c, 1) < 0) {
    }
    m_thread.join();
    int fd = m_client.exchange(-1);
    if (fd >= 0) close(fd);
    if (m_listen >= 0) close(m_listen);
    for (int f : m_wake)
        if (f >= 0) close(f);
}

bool Blaster::WaitAccepted(int n, int timeoutMs) const {
    const int64_t end = NowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    while (m_accepted.load() < n) {
        if (NowNs() > end) return false;
        SleepNs(200000);
    }
    return true;
}

bool Blaster::WaitSubscribed(int timeoutMs) const { return WaitFor(m_subscribed, timeoutMs); }

bool Blaster::SendAll(int fd, const char* data, size_t n) {
    size_t sent = 0;
    while (sent < n) {
        ssize_t k = send(fd, data + sent, n - sent, MSG_NOSIGNAL);
        if (k <= 0) return false;
        sent += static_cast<size_t>(k);
    }
    return true;
}

void Blaster::Answer(int fd, int command, const std::string& body) {
    std::lock_guard<std::mutex> lock(m_sendLock);
    switch (command) {
        case kCmdLogin: {
            m_loginAt = NowNs();
            uint16_t handle = 0;
            if (body.size() >= 2) std::memcpy(&handle, body.data(), 2);
            std::string frame = LoginAnswerFrame(m_cat, handle);
            SendAll(fd, frame.data(), frame.size());
            break;
        }
        case kCmdMarketStatus:
            SendAll(fd, m_status.data(), m_status.size());
            break;
        case kCmdNameTable:
            for (const std::string& f : m_names)
                if (!SendAll(fd, f.data(), f.size())) break;
            break;
        case kCmdQuotation:
            for (const std::string& f : m_quotes)
                if (!SendAll(fd, f.data(), f.size())) break;
            m_lastQuoteAt = NowNs();
            break;
        case kCmdSubscribeDynainfo:
            m_subscribed = true;
            break;
        case kCmdHeartBeat:
        default:
            break;
    }
}

void Blaster::Run() {
    std::string pending;
    while (!m_stop) {
        pollfd fds[3];
        nfds_t n = 0;
        fds[n++] = {m_wake[0], POLLIN, 0};
        fds[n++] = {m_listen, POLLIN, 0};
        const int client = m_client.load();
        if (client >= 0) fds[n++] = {client, POLLIN, 0};
        if (poll(fds, n, -1) <= 0) continue;
        if (fds[0].revents) break;
        if (fds[1].revents & POLLIN) {
            int c = accept(m_listen, nullptr, nullptr);
            if (c >= 0) {
                int one = 1;
                setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
                int old = m_client.exchange(c);
                if (old >= 0) close(old);
                pending.clear();
                m_subscribed = false;
                m_acceptedAt = NowNs();
                ++m_accepted;
            }
            continue;
        }
        if (client >= 0 && n > 2 && fds[2].revents) {
            char chunk[8192];
            ssize_t got = recv(client, chunk, sizeof(chunk), 0);
            if (got <= 0) {
                int expected = client;
                if (m_client.compare_exchange_strong(expected, -1)) close(client);
                pending.clear();
                continue;
            }
            pending.append(chunk, static_cast<size_t>(got));
            for (const orvex_test::DcFrame& f : orvex_test::CutDcFrames(pending)) Answer(client, f.command, f.body);
        }
    }
}

StreamResult Blaster::Stream(const PushStream& stream, double rate, double seconds, uint64_t maxRows,
                             uint64_t firstSeq) {
    StreamResult res;
    const int fd = m_client.load();
    if (fd < 0) {
        res.broken = true;
        return res;
    }
    // Up to four frames (16 KB) go out in one send(), as a server writing
    // whatever it has ready would do.
    constexpr int kFramesPerSend = 4;
    std::vector<char> buf(kFramesPerSend * 4096);
    const int perFrame = stream.MaxRowsPerFrame();
    const int64_t start = NowNs();
    const int64_t deadline = start + static_cast<int64_t>(seconds * 1e9);
    uint64_t sent = 0;
    while (sent < maxRows) {
        const int64_t now = NowNs();
        if (now >= deadline) break;
        uint64_t rows = static_cast<uint64_t>(perFrame) * kFramesPerSend;
        if (rate > 0) {
            // Row i is due at start + i / rate.
            const uint64_t due = static_cast<uint64_t>(static_cast<double>(now - start) * rate / 1e9) + 1;
            if (due <= sent) {
                // Sleep until the next row is due. The kernel wakes the
                // sender some tens of microseconds late, so at high rates
                // the rows that fell due meanwhile go out together, as a
                // server's would; the blaster leaves the receivers a core.
                const int64_t next = start + static_cast<int64_t>(static_cast<double>(sent) * 1e9 / rate);
                SleepNs(std::max<int64_t>(next - now, 1000));
                continue;
            }
            rows = std::min<uint64_t>(rows, due - sent);
        }
        rows = std::min<uint64_t>(rows, maxRows - sent);
        // Frames of up to perFrame rows, back to back.
        const uint32_t packed = PackedTimeAfterOpen(now / 1000000);
        size_t len = 0;
        int frameRows[kFramesPerSend];
        int frames = 0;
        for (uint64_t done = 0; done < rows; ++frames) {
            frameRows[frames] = static_cast<int>(std::min<uint64_t>(static_cast<uint64_t>(perFrame), rows - done));
            len += stream.Build(buf.data() + len, firstSeq + sent + done, frameRows[frames], packed);
            done += static_cast<uint64_t>(frameRows[frames]);
        }
        int64_t stamp;
        {
            std::lock_guard<std::mutex> lock(m_sendLock);
            stamp = NowNs();
            size_t at = 0;
            for (int f = 0; f < frames; ++f) {
                stream.Stamp(buf.data() + at, frameRows[f], stamp);
                at += 4 + static_cast<size_t>(frameRows[f]) * PushStream::kRecordBytes;
            }
            if (!SendAll(fd, buf.data(), len)) {
                res.broken = true;
                break;
            }
        }
        if (res.frames == 0) res.startNs = stamp;
        sent += rows;
        res.frames += static_cast<uint64_t>(frames);
    }
    res.rows = sent;
    res.endNs = NowNs();
    return res;
}

StreamResult Blaster::StreamPaced(const PushStream& stream, int64_t tickNs, int rowsPerTick, double seconds,
                                  uint64_t firstSeq) {
    StreamResult res;
    const int fd = m_client.load();
    if (fd < 0 || tickNs <= 0 || rowsPerTick <= 0 || rowsPerTick > stream.MaxRowsPerFrame()) {
        res.broken = true;
        return res;
    }
    std::vector<char> buf(4096);
    const int64_t start = NowNs();
    const uint64_t ticks = static_cast<uint64_t>(seconds * 1e9 / static_cast<double>(tickNs));
    uint64_t sent = 0;
    for (uint64_t k = 0; k < ticks; ++k) {
        const int64_t due = start + static_cast<int64_t>(k) * tickNs;
        SleepUntilNs(due);
        const uint32_t packed = PackedTimeAfterOpen(due / 1000000);
        const size_t len = stream.Build(buf.data(), firstSeq + sent, rowsPerTick, packed);
        std::lock_guard<std::mutex> lock(m_sendLock);
        const int64_t stamp = NowNs();
        stream.Stamp(buf.data(), rowsPerTick, stamp);
        if (!SendAll(fd, buf.data(), len)) {
            res.broken = true;
            break;
        }
        if (res.frames == 0) res.startNs = stamp;
        sent += static_cast<uint64_t>(rowsPerTick);
        ++res.frames;
    }
    res.rows = sent;
    res.endNs = NowNs();
    return res;
}

int64_t Blaster::CloseClient() {
    const int64_t at = NowNs();
    const int fd = m_client.load();
    // The answering thread sees the end of the stream and closes the socket.
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
    return at;
}

}  // namespace orvex_bench
