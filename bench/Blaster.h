// A quote server for the end-to-end benchmark, on 127.0.0.1.
//
// It accepts one client at a time (TCP_NODELAY, as a feed would), answers
// the client's login, market status, name table and quotation requests
// from answers built in advance (so that building them is not measured),
// and streams pushed rows on the caller's thread, at full speed or at a
// fixed rate (the sender sleeps until the next row is due and sends every
// row that is due by then, in one send() of up to four frames). The
// answering thread sleeps in poll() without a time-out, so an idle blaster
// costs no CPU.
#ifndef ORVEX_BENCH_BLASTER_H
#define ORVEX_BENCH_BLASTER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchMarket.h"

namespace orvex_bench {

struct StreamResult {
    uint64_t rows = 0;       // rows sent
    uint64_t frames = 0;
    int64_t startNs = 0;     // first send
    int64_t endNs = 0;       // last send returned
    bool broken = false;     // the client went away
};

class Blaster {
public:
    explicit Blaster(const BenchCatalog& cat);
    ~Blaster();
    Blaster(const Blaster&) = delete;
    Blaster& operator=(const Blaster&) = delete;

    uint16_t Port() const { return m_port; }
    std::string Front() const { return "tcp://127.0.0.1:" + std::to_string(m_port); }

    int Accepted() const { return m_accepted.load(); }
    bool WaitAccepted(int n, int timeoutMs) const;
    bool WaitSubscribed(int timeoutMs) const;
    bool HasClient() const { return m_client.load() >= 0; }

    // Moments (NowNs) of the last accept, of the login frame received and of
    // the return of the send() that wrote the last quotation packet.
    int64_t AcceptedAt() const { return m_acceptedAt.load(); }
    int64_t LoginAt() const { return m_loginAt.load(); }
    int64_t LastQuoteSentAt() const { return m_lastQuoteAt.load(); }

    // Sends rows to the current client from the calling thread: `rate` rows
    // per second (0: as fast as the client takes them) for `seconds`, or
    // until `maxRows` rows are out. Sequence numbers start at `firstSeq`.
    StreamResult Stream(const PushStream& stream, double rate, double seconds, uint64_t maxRows, uint64_t firstSeq);

    // Sends one frame of `rowsPerTick` rows every `tickNs` from the calling
    // thread for `seconds`, each frame on an absolute schedule (a late tick
    // is sent at once, the next one keeps its own time), every row stamped
    // with the moment of its send(). Sequence numbers start at `firstSeq`.
    StreamResult StreamPaced(const PushStream& stream, int64_t tickNs, int rowsPerTick, double seconds,
                             uint64_t firstSeq);

    // Closes the client's connection (FIN) and returns the moment.
    int64_t CloseClient();

private:
    void Run();
    void Answer(int fd, int command, const std::string& body);
    bool SendAll(int fd, const char* data, size_t n);

    BenchCatalog m_cat;
    std::string m_status;
    std::vector<std::string> m_names;
    std::vector<std::string> m_quotes;

    int m_listen = -1;
    int m_wake[2] = {-1, -1};
    uint16_t m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_client{-1};
    std::atomic<int> m_accepted{0};
    std::atomic<bool> m_subscribed{false};
    std::atomic<int64_t> m_acceptedAt{0};
    std::atomic<int64_t> m_loginAt{0};
    std::atomic<int64_t> m_lastQuoteAt{0};
    std::mutex m_sendLock;
    std::thread m_thread;
};

}  // namespace orvex_bench

#endif
