// The DC worker: the one thread that talks to the quote server.
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>

#include "base/Clock.h"
#include "base/TcpConnection.h"
#include "dc/DCThread.h"
#include "sf/QXSFThread.h"

namespace {

// Sleeps in short steps so that a cleared running flag ends the wait early.
void SleepWhileRunning(const std::atomic<bool>& running, unsigned ms) {
    while (ms > 0 && running) {
        unsigned step = ms < 10 ? ms : 10;
        usleep(step * 1000);
        ms -= step;
    }
}

constexpr int kConnectLimitMs = 127000;

// The local date (YYYYMMDD) and time of day (HHMMSS) of the wall clock, as
// orvex::TodayYmd() and orvex::NowHms() give them, converted again only
// when the clock's second has changed: the loop asks on every pass, that
// is every 2 ms while connected and idle.
class LocalClock {
public:
    void Read(int* today, int* hms) {
        const time_t now = orvex::NowTime();
        if (now != m_second) {
            struct tm t {};
            localtime_r(&now, &t);
            m_today = (t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday;
            m_hms = t.tm_hour * 10000 + t.tm_min * 100 + t.tm_sec;
            m_second = now;
        }
        *today = m_today;
        *hms = m_hms;
    }

private:
    time_t m_second = static_cast<time_t>(-1);
    int m_today = 0;
    int m_hms = 0;
};

}  // namespace

int CDCThread::WaitTimeoutMs(uint32_t lastHeartBeat) const {
    // File-service workers and their answers are polled, not signalled.
    if (FileServiceBusy()) return 2;
    // Otherwise wake for the next heartbeat and at least every 100 ms for
    // the clock checks (daily reconnect, daily file check).
    uint32_t since = orvex::NowTick() - lastHeartBeat;
    int untilHeartBeat = since >= 15000 ? 1 : static_cast<int>(15000 - since);
    return untilHeartBeat < 100 ? untilHeartBeat : 100;
}

void* CDCThread::WorkThread(void* arg) {
    if (arg) static_cast<CDCThread*>(arg)->WorkLoop();
    return nullptr;
}

void CDCThread::WorkLoop() {
    if (m_bLog) Log("WorkThread Start, ThreadID : 0x%08x", static_cast<unsigned>(pthread_self()));
    LoadFamilyAccess();
    orvex::SeedRandom(static_cast<unsigned>(orvex::NowTime()));
    m_bAbnormalEnd = true;
    m_nCurrentFront = -1;

    uint32_t lastConnect = orvex::NowTick() - 10000;
    uint32_t lastHeartBeat = orvex::NowTick();
    int r1 = orvex::Random();
    int r2 = orvex::Random();
    const int reconnectTime = 50000 + (r1 % 45) * 100 + (r2 % 60);
    int lastFileCheckDay = 0;
    LocalClock localClock;

    while (m_bRunning) {
        // Sockets a reset ended, possibly on the caller's thread: no wait
        // or receive of this thread uses them any more.
        CloseRetired();
        try {
            if (IsConnected()) {
                int today, now;
                localClock.Read(&today, &now);
                if (m_nLastConnectDay != today && now >= reconnectTime) {
                    Reset(kReasonServerClosed);
                    continue;
                }
                // A connection that has been silent too long is taken for
                // dead (a half-open connection never reports an error).
                if (m_nRecvTimeoutMs > 0 && orvex::NowTick() - m_lastReceiveTick >= m_nRecvTimeoutMs) {
                    Log("Recv Timeout : no data for %u ms", m_nRecvTimeoutMs);
                    Reset(kReasonReadError);
                    continue;
                }
                if (lastFileCheckDay != today) {
                    lastFileCheckDay = today;
                    CQXSFThread::CheckLocalFile();
                }
            } else {
                if (!m_fronts.empty() && orvex::NowTick() - lastConnect >= 10000) {
                    lastConnect = orvex::NowTick();
                    lastHeartBeat = lastConnect;
                    Connect();
                    m_nLastConnectDay = orvex::TodayYmd();
                } else {
                    SleepWhileRunning(m_bRunning, 50);
                    continue;
                }
            }

            if (!IsConnected()) continue;
            if (TakeQueueWork()) ServeQueues();

            int64_t sock = m_socket.load();
            if (sock >= 0 && m_bReceiveFilled) {
                // The last receive filled the buffer, so the socket most
                // likely holds more: this pass receives without waiting
                // (and without blocking, in case it does not).
                ReadSocket(MSG_DONTWAIT);
            } else if (sock >= 0) {
                // poll rather than select: a trading process may hold more
                // than FD_SETSIZE descriptors. Queued work and resets wake the
                // wait at once through the wake descriptor, so the wait need
                // be short only while the file service is busy.
                pollfd fds[2] = {{static_cast<int>(sock), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
                int rc = poll(fds, m_wakeFd >= 0 ? 2 : 1, WaitTimeoutMs(lastHeartBeat));
                if (rc < 0 && errno == EINTR) rc = 0;
                if (rc < 0) {
                    Log("select error:%d", errno);
                    Reset(kReasonReadError);
                    continue;
                }
                if (rc > 0 && m_wakeFd >= 0 && fds[1].revents) {
                    uint64_t drained;
                    ssize_t n = read(m_wakeFd, &drained, sizeof(drained));
                    (void)n;
                }
                if (rc > 0 && fds[0].revents) ReadSocket(0);
            }

            if (orvex::NowTick() - lastHeartBeat > 14999) {
                lastHeartBeat = orvex::NowTick();
                HeartBeat();
            }
        } catch (const std::exception& e) {
            Log("exception : %s", e.what());
            Reset(kReasonException);
            SleepWhileRunning(m_bRunning, 1000);
        } catch (...) {
            Log("unkown exception");
            Reset(kReasonException);
            SleepWhileRunning(m_bRunning, 1000);
        }
    }

    m_bAbnormalEnd = false;
    Reset(kReasonServerClosed);
    CloseRetired();
}

void CDCThread::Connect() {
    // The fronts' usable flags and the current index are also changed by a
    // reset on the caller's thread (a failed login send), so they are read
    // and written under the send lock; the connect itself runs without it.
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) {
        ReportLost(kReasonNoSocket);
        return;
    }
    const int count = static_cast<int>(m_fronts.size());
    auto frontAt = [this](int i) {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        return m_fronts[i];
    };
    auto markUnusable = [this](int i) {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        m_fronts[i].usable = false;
    };
    bool connected = false;
    int current;
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        current = m_nCurrentFront;
    }
    if (current >= 0 && current < count && frontAt(current).usable) {
        _FrontInfo front = frontAt(current);
        if (orvex::ConnectTcp(sock, front.host, front.port, m_bRunning, kConnectLimitMs)) {
            connected = true;
            Log("DC Connected : %s:%d", front.host, front.port);
            m_engine.OnConnected(true);
        } else {
            markUnusable(current);
            close(sock);
            sock = socket(AF_INET, SOCK_STREAM, 0);
        }
    }
    if (!connected && sock >= 0) {
        int unusable = 0;
        for (int i = 0; i < count; ++i) unusable += frontAt(i).usable ? 0 : 1;
        while (unusable < count && m_bRunning) {
            // A poor generator must not spin for ever: after many misses the
            // next usable front is taken.
            const int i = orvex::DrawFront(
                count, [&](int k) { return frontAt(k).usable; }, [] { return orvex::Random(); }, 256);
            if (i < 0) break;
            _FrontInfo front = frontAt(i);
            if (orvex::ConnectTcp(sock, front.host, front.port, m_bRunning, kConnectLimitMs)) {
                connected = true;
                Log("DC Connected : %s:%d", front.host, front.port);
                m_engine.OnConnected(false);
                std::lock_guard<std::recursive_mutex> lock(m_sendLock);
                m_nCurrentFront = i;
                break;
            }
            markUnusable(i);
            ++unusable;
            // A socket whose connect failed is not used for another try.
            close(sock);
            sock = socket(AF_INET, SOCK_STREAM, 0);
            if (sock < 0) break;
        }
    }
    if (connected) {
        m_cutter.Clear();
        m_bReceiveFilled = false;
        {
            std::lock_guard<std::recursive_mutex> lock(m_sendLock);
            m_socket = sock;
        }
        m_lastReceiveTick = orvex::NowTick();
        if (COrvexWiraMdSpi* spi = m_engine.Spi()) spi->OnFrontLinked();
        return;
    }
    {
        // The socket is stored first so that the reset closes it and reports
        // the lost round with 4099.
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        m_socket = sock < 0 ? -2 : sock;
    }
    Reset(kReasonNoFront);
    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    for (_FrontInfo& f : m_fronts) f.usable = true;
}

void CDCThread::ReadSocket(int flags) {
    m_bReceiveFilled = false;
    int64_t sock = m_socket.load();
    if (sock < 0) return;
    const int room = m_cutter.FreeBytes();
    ssize_t n = recv(static_cast<int>(sock), m_cutter.FreeSpace(), static_cast<size_t>(room), flags);
    if (n == 0) {
        Reset(kReasonServerClosed);
        return;
    }
    if (n < 0) {
        int err = errno;
        if (err == 10035) return;
        // Nothing there after all (only a receive without waiting), or a
        // signal came first: the next pass receives again.
        if ((flags & MSG_DONTWAIT) && (err == EAGAIN || err == EWOULDBLOCK)) return;
        if (err == EINTR) return;
        Log("recv error:%d", err);
        Reset(kReasonReadError);
        return;
    }
    // Only the receive time-out reads the time of the last receive.
    if (m_nRecvTimeoutMs > 0) m_lastReceiveTick = orvex::NowTick();
    m_bReceiveFilled = n == room;
    m_cutter.Commit(static_cast<int>(n));
    // Whole frames go straight to the engine.
    if (m_cutter.Cut(m_engine) == CDCFrameCutter::kProtocolError) Reset(kReasonBadFrame);
}

void CDCThread::OnReceived(const char* data, size_t length) {
    if (m_cutter.Feed(data, length, m_engine) == CDCFrameCutter::kProtocolError) Reset(kReasonBadFrame);
}
