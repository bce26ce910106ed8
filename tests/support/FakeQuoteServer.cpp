#include "support/FakeQuoteServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "base/Clock.h"
#include "protocol/Loopback.h"

namespace orvex_test {

FakeQuoteServer::FakeQuoteServer() {
    m_listenFd = ListenLoopback(0, 16, &m_port);
    if (pipe(m_wakeFd) != 0) m_wakeFd[0] = m_wakeFd[1] = -1;
    m_thread = std::thread([this] { Run(); });
}

FakeQuoteServer::~FakeQuoteServer() {
    m_stop = true;
    if (m_wakeFd[1] >= 0) {
        char c = 0;
        ssize_t n = write(m_wakeFd[1], &c, 1);
        (void)n;
    }
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_clientFd >= 0) close(m_clientFd);
    if (m_listenFd >= 0) close(m_listenFd);
    if (m_wakeFd[0] >= 0) close(m_wakeFd[0]);
    if (m_wakeFd[1] >= 0) close(m_wakeFd[1]);
}

std::string FakeQuoteServer::FrontAddress() const { return "tcp://127.0.0.1:" + std::to_string(m_port); }

void FakeQuoteServer::Run() {
    std::string buffer;
    while (!m_stop) {
        pollfd fds[3];
        int n = 0;
        fds[n++] = {m_wakeFd[0], POLLIN, 0};
        int listenFd, clientFd;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            listenFd = m_listenFd;
            clientFd = m_clientFd;
        }
        int listenIdx = -1, clientIdx = -1;
        if (listenFd >= 0) {
            listenIdx = n;
            fds[n++] = {listenFd, POLLIN, 0};
        }
        if (clientFd >= 0) {
            clientIdx = n;
            fds[n++] = {clientFd, POLLIN, 0};
        }
        if (poll(fds, static_cast<nfds_t>(n), 20) <= 0) continue;
        if (fds[0].revents) break;
        if (listenIdx >= 0 && (fds[listenIdx].revents & POLLIN)) {
            int c = accept(listenFd, nullptr, nullptr);
            if (c >= 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_clientFd >= 0) close(m_clientFd);
                m_clientFd = c;
                buffer.clear();
                ++m_accepted;
                m_cv.notify_all();
            }
            continue;
        }
        if (clientIdx >= 0 && fds[clientIdx].revents) {
            char chunk[8192];
            ssize_t got = recv(clientFd, chunk, sizeof(chunk), 0);
            if (got <= 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_clientFd == clientFd) {
                    close(m_clientFd);
                    m_clientFd = -1;
                }
                buffer.clear();
                continue;
            }
            buffer.append(chunk, static_cast<size_t>(got));
            std::vector<DcFrame> frames = CutDcFrames(buffer);
            for (DcFrame& f : frames) {
                std::function<void(FakeQuoteServer&, const DcFrame&)> responder;
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_frames.push_back(f);
                    m_taken.push_back(false);
                    responder = m_responder;
                    m_cv.notify_all();
                }
                if (responder) responder(*this, f);
            }
        }
    }
}

bool FakeQuoteServer::WaitForAccepted(int n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_accepted.load() >= n; });
}

std::vector<DcFrame> FakeQuoteServer::Frames() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_frames;
}

bool FakeQuoteServer::WaitForFrame(int command, DcFrame* out, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    size_t found = 0;
    bool ok = m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        for (size_t i = 0; i < m_frames.size(); ++i) {
            if (!m_taken[i] && m_frames[i].command == command) {
                found = i;
                return true;
            }
        }
        return false;
    });
    if (!ok) return false;
    m_taken[found] = true;
    if (out) *out = m_frames[found];
    return true;
}

int FakeQuoteServer::CountFrames(int command) {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const DcFrame& f : m_frames) n += f.command == command ? 1 : 0;
    return n;
}

bool FakeQuoteServer::SendRaw(const std::string& bytes) {
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        fd = m_clientFd;
    }
    if (fd < 0) return false;
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

void FakeQuoteServer::CloseClient(bool reset) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_clientFd < 0) return;
    if (reset) {
        linger lg{1, 0};
        setsockopt(m_clientFd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    }
    close(m_clientFd);
    m_clientFd = -1;
}

void FakeQuoteServer::StopListening() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_listenFd >= 0) close(m_listenFd);
    m_listenFd = -1;
}

void FakeQuoteServer::SetResponder(std::function<void(FakeQuoteServer&, const DcFrame&)> responder) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_responder = std::move(responder);
}

// ---- fake clock ----

namespace {

std::atomic<uint32_t> g_tick{1000000};
std::atomic<long> g_wall{0};
std::mutex g_randomLock;
std::vector<int> g_random;
size_t g_randomPos = 0;

uint32_t FakeTick() { return g_tick.load(); }
time_t FakeWall() { return static_cast<time_t>(g_wall.load()); }
int FakeRandom() {
    std::lock_guard<std::mutex> lock(g_randomLock);
    if (g_random.empty()) return 0;
    int v = g_random[g_randomPos % g_random.size()];
    ++g_randomPos;
    return v;
}
void FakeSeed(unsigned) {}

}  // namespace

FakeClock::FakeClock() {
    g_tick = 1000000;
    SetLocalTime(2024, 1, 2, 10, 0, 0);
    SetRandom({});
    orvex::ClockHooks& hooks = orvex::Clock();
    hooks.tick = FakeTick;
    hooks.wallTime = FakeWall;
    hooks.random = FakeRandom;
    hooks.seed = FakeSeed;
}

FakeClock::~FakeClock() { orvex::RestoreClock(); }

void FakeClock::AdvanceMs(uint32_t ms) { g_tick += ms; }

uint32_t FakeClock::Tick() { return g_tick.load(); }

void FakeClock::SetLocalTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    g_wall = static_cast<long>(mktime(&t));
}

void FakeClock::AdvanceSeconds(long seconds) { g_wall += seconds; }

void FakeClock::SetRandom(std::vector<int> values) {
    std::lock_guard<std::mutex> lock(g_randomLock);
    g_random = std::move(values);
    g_randomPos = 0;
}

bool WaitUntil(const std::function<bool()>& pred, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return pred();
}

}  // namespace orvex_test
