// One client connection of the simulated quote server, without the socket.
//
// The owner feeds the bytes it reads into OnReceive and the market's
// events into OnMarketEvents, and writes out what TakeOutput returns. The
// session answers the client's frames:
//
//   83  login               -> login answer (82, first form, or 83, second form)
//    2  market status        -> market status rows, a few per packet
//    1  name table           -> each market's name rows, split over packets
//    3  quotation            -> snapshot rows of every market, split over packets
//  100  dynamic information  -> from then on: status records, pushed rows and
//                                 template packages of the sample templates (101)
//    0  heartbeat            -> nothing
//
// A pushed row carries the fields that changed, except right after the
// subscription (the client may have missed changes) and after a name table
// that a client asked for on its own (it has just lost its quotes): then
// the instrument's next row is complete.
#ifndef QXSIM_QUOTE_SESSION_H
#define QXSIM_QUOTE_SESSION_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Market.h"

namespace qxsim {

using LogFn = std::function<void(const std::string&)>;

struct QuoteOptions {
    int loginForm = 2;          // 2: command 83 with an access list; 1: command 82 with market numbers
    std::string user;           // credentials a login must carry; empty: any
    std::string password;
    int rejectCode = 0;         // refuse every login with this code (8, 9, ...)
    bool compress = true;       // deflate answers of 256 bytes or more when that makes them shorter
    int statusRows = 2;         // rows per market status packet
    int nameRows = 40;          // rows per name table packet (at most 48)
    int quoteRows = 12;         // rows per quotation packet (at most 15)
    int indexEvery = 200;       // an index package per market every this many pushed rows (0: none)
};

struct QuoteSessionStats {
    int logins = 0;
    int heartbeats = 0;
    int requests = 0;
    uint64_t pushedRows = 0;
    uint64_t statusRecords = 0;
    uint64_t templatePackages = 0;
    uint64_t framesOut = 0;
};

class QuoteSession {
public:
    QuoteSession(const Market& market, const QuoteOptions& options, LogFn log = nullptr);

    void OnReceive(const char* data, size_t length);
    void OnMarketEvents(const std::vector<MarketEvent>& events);

    // Bytes to send, taken out of the session.
    std::string TakeOutput();
    size_t PendingOutput() const { return m_out.size(); }
    // The client broke the framing; the owner closes the connection.
    bool WantsClose() const { return m_close; }
    bool LoggedIn() const { return m_loggedIn; }
    bool Subscribed() const { return m_subscribed; }
    const std::string& User() const { return m_user; }
    const QuoteSessionStats& Stats() const { return m_stats; }

private:
    void OnFrame(int command, const std::string& body);
    void OnLogin(const std::string& body);
    void AnswerMarketStatus(uint16_t marketId);
    void AnswerNameTables(uint16_t marketId);
    void AnswerQuotation(uint16_t marketId);
    std::vector<const MarketInfo*> Select(uint16_t marketId) const;
    void Send(int command, const std::string& body);
    void AddDyna(const std::string& record);
    void FlushDyna();
    void PushRow(int index, uint32_t maskA, uint32_t maskB);
    // One ExchangeIndex package per market that has instruments.
    void PushIndexPackages();
    void Log(const std::string& text) const;

    const Market& m_market;
    QuoteOptions m_options;
    LogFn m_log;
    std::string m_in;
    std::string m_out;
    std::string m_dyna;
    uint32_t m_sequence = 0;
    bool m_close = false;
    bool m_loggedIn = false;
    bool m_subscribed = false;
    std::string m_user;
    std::vector<bool> m_needFull;
    uint64_t m_rowsSinceIndex = 0;
    QuoteSessionStats m_stats;
};

}  // namespace qxsim

#endif
