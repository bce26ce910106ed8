// A scriptable quote server on loopback for tests.
//
// It listens on 127.0.0.1 (ephemeral port), accepts one client at a time,
// cuts the client's frames (4-byte header, optional zlib body) and keeps
// them for the test to inspect; the test sends answers whole, split, several
// per write, compressed or malformed, and can close or reset the client.
// An optional responder runs on the server thread for every frame received,
// so a test (or a simulator) can answer requests as they come.
#ifndef ORVEX_TESTS_FAKE_QUOTE_SERVER_H
#define ORVEX_TESTS_FAKE_QUOTE_SERVER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "protocol/DcFrames.h"

namespace orvex_test {

class FakeQuoteServer {
public:
    FakeQuoteServer();
    ~FakeQuoteServer();
    FakeQuoteServer(const FakeQuoteServer&) = delete;
    FakeQuoteServer& operator=(const FakeQuoteServer&) = delete;

    uint16_t Port() const { return m_port; }
    std::string FrontAddress() const;   // "tcp://127.0.0.1:<port>"

    // Number of connections accepted so far; waits for the n-th.
    int Accepted() const { return m_accepted.load(); }
    bool WaitForAccepted(int n, int timeoutMs = 3000);

    // Frames received on any connection, in order.
    std::vector<DcFrame> Frames();
    // Waits until a frame with this command has been received and returns
    // the first one not yet taken by an earlier call.
    bool WaitForFrame(int command, DcFrame* out, int timeoutMs = 3000);
    int CountFrames(int command);

    // Sends to the current client. False when none is connected.
    bool SendRaw(const std::string& bytes);
    bool Send(int command, const std::string& body, bool compress = false) {
        return SendRaw(BuildDcFrame(command, body, compress));
    }
    // Closes the current client: gracefully, or with a reset (RST).
    void CloseClient(bool reset = false);
    // Stops accepting: later connection attempts are refused.
    void StopListening();

    // Runs on the server thread for every frame received.
    void SetResponder(std::function<void(FakeQuoteServer&, const DcFrame&)> responder);

private:
    void Run();

    int m_listenFd = -1;
    int m_wakeFd[2] = {-1, -1};
    uint16_t m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    std::thread m_thread;

    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_clientFd = -1;
    std::vector<DcFrame> m_frames;
    std::vector<bool> m_taken;
    std::function<void(FakeQuoteServer&, const DcFrame&)> m_responder;
};

// Replaces the library's clock and random hooks with controllable ones for
// the lifetime of the object.
class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    static void AdvanceMs(uint32_t ms);
    static uint32_t Tick();
    // Local wall time given as calendar parts.
    static void SetLocalTime(int year, int month, int day, int hour, int minute, int second);
    static void AdvanceSeconds(long seconds);
    // Random numbers returned in turn (cycled); empty means always 0.
    static void SetRandom(std::vector<int> values);
};

// Waits until `pred` holds or the time runs out.
bool WaitUntil(const std::function<bool()>& pred, int timeoutMs = 3000);

}  // namespace orvex_test

#endif
