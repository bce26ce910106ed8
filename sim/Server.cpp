#include "Server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace qxsim {

struct Server::Client {
    int fd = -1;
    int id = 0;
    bool quote = true;
    std::string peer;
    std::unique_ptr<QuoteSession> quoteSession;
    std::unique_ptr<FileSession> fileSession;
    std::string out;
    size_t outPos = 0;
    int64_t lastRead = 0;
    bool closing = false;   // close once the output is written
    bool closed = false;

    std::string Label() const { return std::string(quote ? "quote" : "file") + " #" + std::to_string(id); }
    // Moves what the session produced into the output buffer.
    void Collect() {
        if (quoteSession) {
            out += quoteSession->TakeOutput();
            closing = closing || quoteSession->WantsClose();
        } else if (fileSession) {
            out += fileSession->TakeOutput();
            closing = closing || fileSession->WantsClose();
        }
    }
    size_t Pending() const { return out.size() - outPos; }
};

namespace {
std::atomic<bool> g_quiet{false};
}  // namespace

void SetLogQuiet(bool quiet) { g_quiet = quiet; }

void LogLine(const std::string& text) {
    if (g_quiet) return;
    const int64_t now = Server::NowMs();
    time_t seconds = static_cast<time_t>(now / 1000);
    struct tm t;
    localtime_r(&seconds, &t);
    std::fprintf(stderr, "%02d:%02d:%02d.%03d qxdc-sim: %s\n", t.tm_hour, t.tm_min, t.tm_sec,
                 static_cast<int>(now % 1000), text.c_str());
}

int64_t Server::NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Server::Server(Market& market, const ServerOptions& options, MarketReplay* replay, MarketRecorder* recorder)
    : m_market(market), m_options(options), m_replay(replay), m_recorder(recorder) {
    m_store.Build(m_market, m_market.Clock());
    m_knownRolls = m_market.Rolls();
}

Server::~Server() {
    for (auto& c : m_clients)
        if (c->fd >= 0) close(c->fd);
    if (m_quoteFd >= 0) close(m_quoteFd);
    if (m_fileFd >= 0) close(m_fileFd);
}

void Server::Log(const std::string& text) const { LogLine(text); }

namespace {

int ListenOn(const std::string& host, uint16_t port, uint16_t* bound, std::string* error) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1) {
        *error = "not an IPv4 address: " + host;
        close(fd);
        return -1;
    }
    socklen_t length = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        *error = host + ":" + std::to_string(port) + ": " + std::strerror(errno);
        close(fd);
        return -1;
    }
    *bound = ntohs(addr.sin_port);
    return fd;
}

}  // namespace

bool Server::Listen(std::string* error) {
    m_quoteFd = ListenOn(m_options.host, m_options.quotePort, &m_quotePort, error);
    if (m_quoteFd < 0) return false;
    if (m_options.fileServer) {
        m_fileFd = ListenOn(m_options.host, m_options.filePort, &m_filePort, error);
        if (m_fileFd < 0) return false;
    }
    return true;
}

void Server::Accept(int listenFd, bool quote) {
    for (;;) {
        sockaddr_in peer;
        socklen_t length = sizeof(peer);
        int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        auto c = std::make_unique<Client>();
        c->fd = fd;
        c->id = m_nextId++;
        c->quote = quote;
        char host[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, host, sizeof(host));
        c->peer = std::string(host) + ":" + std::to_string(ntohs(peer.sin_port));
        c->lastRead = NowMs();
        const std::string label = c->Label();
        LogFn log = [label](const std::string& text) { LogLine(label + ": " + text); };
        if (quote) {
            c->quoteSession = std::make_unique<QuoteSession>(m_market, m_options.quote, log);
            ++m_stats.quoteConnections;
        } else {
            c->fileSession = std::make_unique<FileSession>(m_store, m_options.file, log);
            ++m_stats.fileConnections;
        }
        Log(label + ": connected from " + c->peer);
        m_clients.push_back(std::move(c));
    }
}

void Server::Close(Client& c, const std::string& why) {
    if (c.closed) return;
    c.closed = true;
    std::string summary;
    if (c.quoteSession) {
        const QuoteSessionStats& s = c.quoteSession->Stats();
        m_stats.pushedRows += s.pushedRows;
        summary = "; " + std::to_string(s.requests) + " requests, " + std::to_string(s.heartbeats) +
                  " heartbeats, " + std::to_string(s.pushedRows) + " rows pushed";
    } else if (c.fileSession) {
        const FileSessionStats& s = c.fileSession->Stats();
        summary = "; " + std::to_string(s.files) + " files sent";
    }
    Log(c.Label() + ": " + why + summary);
    close(c.fd);
    c.fd = -1;
}

void Server::Read(Client& c) {
    char buffer[65536];
    for (;;) {
        ssize_t n = recv(c.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (n == 0) {
            Close(c, "closed by the client");
            return;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
            Close(c, std::string("receive error: ") + std::strerror(errno));
            return;
        }
        c.lastRead = NowMs();
        if (c.quoteSession) c.quoteSession->OnReceive(buffer, static_cast<size_t>(n));
        else c.fileSession->OnReceive(buffer, static_cast<size_t>(n));
        c.Collect();
        if (static_cast<size_t>(n) < sizeof(buffer)) return;
    }
}

void Server::Write(Client& c) {
    while (c.Pending() > 0) {
        ssize_t n = send(c.fd, c.out.data() + c.outPos, c.Pending(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
            Close(c, std::string("send error: ") + std::strerror(errno));
            return;
        }
        c.outPos += static_cast<size_t>(n);
        m_stats.bytesOut += static_cast<uint64_t>(n);
    }
    c.out.clear();
    c.outPos = 0;
    if (c.closing) Close(c, "closed after a protocol error or a refused login");
}

void Server::StepMarket(int64_t now) {
    // A replay may hand its due changes over in several batches.
    do {
        StepBatch(m_replay ? m_replay->Step(m_market, now) : m_market.Step(now));
    } while (m_replay && m_replay->Due(now));
}

void Server::StepBatch(const std::vector<MarketEvent>& events) {
    if (m_recorder) m_recorder->Write(m_market, events);
    for (const MarketEvent& e : events) {
        if (e.type != MarketEvent::kStatus || e.index != 0) continue;
        const MarketInfo& m = m_market.Markets()[0];
        Log("market status: " + std::string(StatusName(m.status)) + ", trading day " + std::to_string(m.tradingDay) +
            (e.newTradingDay ? " (new trading day)" : ""));
    }
    if (m_market.Rolls() != m_knownRolls) {
        m_knownRolls = m_market.Rolls();
        m_store.Build(m_market, m_market.Clock());
    }
    if (m_replay && m_replay->Finished() && !m_replayDone) {
        m_replayDone = true;
        Log("replay finished after " + std::to_string(m_replay->Applied()) + " changes; serving the last state");
    }
    if (events.empty()) return;
    for (auto& c : m_clients) {
        if (c->closed || !c->quoteSession) continue;
        c->quoteSession->OnMarketEvents(events);
        c->Collect();
        if (c->Pending() > m_options.maxPending) Close(*c, "too slow: output piled up");
    }
}

void Server::Run(const std::atomic<bool>& stop, int64_t deadlineMs) {
    int64_t nextStep = NowMs();
    std::vector<pollfd> fds;
    std::vector<Client*> polled;
    while (!stop.load()) {
        int64_t now = NowMs();
        if (deadlineMs > 0 && now >= deadlineMs) {
            Log("duration reached");
            break;
        }
        if (now >= nextStep) {
            StepMarket(now);
            nextStep = now + m_options.stepMs;
        }
        // Writes first: most output comes from the market step.
        for (auto& c : m_clients)
            if (!c->closed && c->Pending() > 0) Write(*c);

        fds.clear();
        polled.clear();
        fds.push_back({m_quoteFd, POLLIN, 0});
        if (m_fileFd >= 0) fds.push_back({m_fileFd, POLLIN, 0});
        const size_t listeners = fds.size();
        for (auto& c : m_clients) {
            if (c->closed) continue;
            short events = POLLIN;
            if (c->Pending() > 0) events |= POLLOUT;
            fds.push_back({c->fd, events, 0});
            polled.push_back(c.get());
        }
        int timeout = static_cast<int>(nextStep - NowMs());
        if (timeout < 0) timeout = 0;
        if (timeout > m_options.stepMs) timeout = m_options.stepMs;
        int ready = poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            Log(std::string("poll: ") + std::strerror(errno));
            break;
        }
        if (ready > 0) {
            if (fds[0].revents & POLLIN) Accept(m_quoteFd, true);
            if (m_fileFd >= 0 && (fds[1].revents & POLLIN)) Accept(m_fileFd, false);
            for (size_t i = listeners; i < fds.size(); ++i) {
                Client& c = *polled[i - listeners];
                if (c.closed) continue;
                if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) Read(c);
                if (!c.closed && (fds[i].revents & POLLOUT)) Write(c);
            }
        }
        now = NowMs();
        for (auto& c : m_clients) {
            if (c->closed) continue;
            if (c->closing && c->Pending() == 0) Close(*c, "closed after a protocol error or a refused login");
            else if (m_options.idleSeconds > 0 && now - c->lastRead > m_options.idleSeconds * 1000LL)
                Close(*c, "idle for " + std::to_string(m_options.idleSeconds) + " s");
        }
        for (size_t i = 0; i < m_clients.size();) {
            if (m_clients[i]->closed) m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(i));
            else ++i;
        }
    }
    for (auto& c : m_clients) Close(*c, "server stopping");
    m_clients.clear();
}

}  // namespace qxsim
