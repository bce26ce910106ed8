// The simulator's socket loop: two listening sockets (quote server and file
// server), any number of clients on each, and the market's clock.
//
// One thread does everything with poll(): it accepts, reads into the
// sessions, writes what they produce (non-blocking, with a cap on what may
// pile up for a slow client), and steps the market every few milliseconds,
// handing the events to every quote session. All protocol work is in the
// sessions and the market; this file only moves bytes.
#ifndef QXSIM_SERVER_H
#define QXSIM_SERVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FileSession.h"
#include "Market.h"
#include "MarketRecord.h"
#include "QuoteSession.h"

namespace qxsim {

struct ServerOptions {
    std::string host = "127.0.0.1";
    uint16_t quotePort = 7000;          // 0: any free port
    uint16_t filePort = 7001;           // 0: any free port; -1 in main: no file server
    bool fileServer = true;
    int stepMs = 20;                    // market step interval
    int idleSeconds = 60;               // drop a client that has sent nothing for this long
    size_t maxPending = 16u << 20;      // drop a client that lets this much output pile up
    QuoteOptions quote;
    FileOptions file;
};

struct ServerStats {
    int quoteConnections = 0;
    int fileConnections = 0;
    uint64_t pushedRows = 0;
    uint64_t bytesOut = 0;
};

class Server {
public:
    // The market (and the replay, when given) stay owned by the caller.
    Server(Market& market, const ServerOptions& options, MarketReplay* replay = nullptr,
           MarketRecorder* recorder = nullptr);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Binds and listens; false with a message when a port cannot be used.
    bool Listen(std::string* error);
    uint16_t QuotePort() const { return m_quotePort; }
    uint16_t FilePort() const { return m_filePort; }

    // Serves until `stop` is set or `deadlineMs` (a clock value, 0: none)
    // passes. Returns when every client has been closed.
    void Run(const std::atomic<bool>& stop, int64_t deadlineMs);
    const ServerStats& Stats() const { return m_stats; }

    static int64_t NowMs();

private:
    struct Client;
    void Accept(int listenFd, bool quote);
    void Read(Client& c);
    void Write(Client& c);
    void Close(Client& c, const std::string& why);
    void StepMarket(int64_t now);
    void StepBatch(const std::vector<MarketEvent>& events);
    void Log(const std::string& text) const;

    Market& m_market;
    ServerOptions m_options;
    MarketReplay* m_replay;
    MarketRecorder* m_recorder;
    ContractStore m_store;
    int m_quoteFd = -1;
    int m_fileFd = -1;
    uint16_t m_quotePort = 0;
    uint16_t m_filePort = 0;
    int m_nextId = 1;
    int m_knownRolls = 0;
    bool m_replayDone = false;
    std::vector<std::unique_ptr<Client>> m_clients;
    ServerStats m_stats;
};

// Writes one time-stamped line to standard error, unless quiet.
void LogLine(const std::string& text);
void SetLogQuiet(bool quiet);

}  // namespace qxsim

#endif
