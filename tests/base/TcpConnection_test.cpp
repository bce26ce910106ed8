// The workers' TCP primitives: resolution, connecting (and giving up on
// request), whole sends, and the draw of the next front.
#include "base/TcpConnection.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// A listening socket on 127.0.0.1 (or every address) at a free port.
class Listener {
public:
    explicit Listener(bool anyAddress = false, int backlog = 16) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(anyAddress ? INADDR_ANY : INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        listen(m_fd, backlog);
        socklen_t len = sizeof(a);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
        m_port = ntohs(a.sin_port);
    }
    ~Listener() { close(m_fd); }
    uint16_t Port() const { return m_port; }
    // Connections waiting to be accepted (0 after a short wait for none).
    int Pending() {
        int n = 0;
        timeval tv{0, 100000};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        for (int fd; (fd = accept(m_fd, nullptr, nullptr)) >= 0; ++n) close(fd);
        return n;
    }

private:
    int m_fd = -1;
    uint16_t m_port = 0;
};

const std::atomic<bool> kRunning{true};

TEST(TcpConnection, ResolvesAddressesAndNamesAndRefusesUnknownNames) {
    in_addr a{};
    ASSERT_TRUE(orvex::ResolveIPv4("127.0.0.1", &a));
    EXPECT_EQ(a.s_addr, htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(orvex::ResolveIPv4("localhost", &a));
    EXPECT_EQ(a.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_FALSE(orvex::ResolveIPv4("no-such-host.invalid", &a));
    EXPECT_FALSE(orvex::ResolveIPv4("", &a));
    EXPECT_FALSE(orvex::ResolveIPv4(nullptr, &a));
}

TEST(TcpConnection, ConnectsToAListenerAndFailsOnARefusedPortOrAnUnknownHost) {
    Listener listener;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_TRUE(orvex::ConnectTcp(fd, "127.0.0.1", listener.Port(), kRunning, 5000));
    close(fd);
    EXPECT_EQ(listener.Pending(), 1);

    uint16_t refused;
    {
        Listener gone;
        refused = gone.Port();
    }
    fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_FALSE(orvex::ConnectTcp(fd, "127.0.0.1", refused, kRunning, 5000));
    close(fd);

    // An unknown name never becomes the zero address, which would reach a
    // listener on every address of this machine.
    Listener everywhere(true);
    fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_FALSE(orvex::ConnectTcp(fd, "no-such-host.invalid", everywhere.Port(), kRunning, 5000));
    close(fd);
    EXPECT_EQ(everywhere.Pending(), 0);
}

TEST(TcpConnection, AConnectThatHangsEndsWhenTheRunningFlagIsCleared) {
    // A listener whose accept queue is full drops further connection
    // attempts, so their connect waits.
    Listener full(false, 0);
    std::vector<int> filler;
    for (int i = 0; i < 4; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        std::atomic<bool> quick{true};
        std::thread stop([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            quick = false;
        });
        const bool made = orvex::ConnectTcp(fd, "127.0.0.1", full.Port(), quick, 5000);
        stop.join();
        if (!made) {
            close(fd);
            break;
        }
        filler.push_back(fd);
    }
    std::atomic<bool> running{true};
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    std::thread stop([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        running = false;
    });
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(orvex::ConnectTcp(fd, "127.0.0.1", full.Port(), running, 60000));
    const auto waited = std::chrono::steady_clock::now() - t0;
    stop.join();
    close(fd);
    for (int f : filler) close(f);
    EXPECT_LT(waited, std::chrono::seconds(2));
}

TEST(TcpConnection, SendAllDeliversALargeBufferWholeAndFailsQuietlyOnAClosedPeer) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    std::string data(4 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
    std::string got;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while (got.size() < data.size() && (n = recv(pair[1], buf, sizeof(buf), 0)) > 0)
            got.append(buf, static_cast<size_t>(n));
    });
    EXPECT_TRUE(orvex::SendAll(pair[0], data.data(), data.size()));
    reader.join();
    EXPECT_TRUE(got == data);

    close(pair[1]);
    // No SIGPIPE: the process would die here.
    EXPECT_FALSE(orvex::SendAll(pair[0], "x", 1));
    close(pair[0]);
    EXPECT_FALSE(orvex::SendAll(-1, "x", 1));
}

TEST(TcpConnection, FrontDrawTriesRandomDrawsThenStepsToTheNextUsable) {
    std::vector<bool> usable = {false, true, false, true};
    auto isUsable = [&](int i) { return usable[static_cast<size_t>(i)]; };
    std::vector<int> values = {2, 7};   // 7 % 4 = 3
    size_t k = 0;
    auto next = [&] { return values[k++ % values.size()]; };
    EXPECT_EQ(orvex::DrawFront(4, isUsable, next, 8), 3);
    EXPECT_EQ(k, 2u);
    // A generator that only ever hits unusable fronts: after the bound,
    // the next usable one after the last draw.
    k = 0;
    values = {2};
    EXPECT_EQ(orvex::DrawFront(4, isUsable, next, 5), 3);
    EXPECT_EQ(k, 5u);
    usable = {false, false, false, false};
    EXPECT_EQ(orvex::DrawFront(4, isUsable, next, 5), -1);
    EXPECT_EQ(orvex::DrawFront(0, isUsable, next, 5), -1);
}

}  // namespace
