// Faults of the quote server and of the network: stalls, closes and resets in
// the middle of a frame, garbage, silent servers, fronts that never answer,
// many reconnections, and Release at every stage of a connection.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>

#include "dc/DCThread.h"
#include "support/FakeQuoteServer.h"
#include "protocol/QuoteBodies.h"
#include "support/RecordingSpi.h"

using namespace orvex_test;

namespace {

int CountEntries(const char* dir) {
    DIR* d = opendir(dir);
    if (!d) return -1;
    int n = 0;
    while (readdir(d)) ++n;
    closedir(d);
    return n;
}

std::string SuccessAnswer(const DcFrame& login) {
    std::string answer(512, '\0');
    std::memcpy(&answer[0], login.body.data(), 2);
    return answer;
}

class DCFaults : public ::testing::Test {
protected:
    void TearDown() override {
        if (api) api->Release();
    }
    void Start(const std::string& front) {
        api = new CDCThread("", true);
        api->RegisterSpi(&spi);
        std::string f = front;
        api->RegisterFront(&f[0]);
        api->Init();
    }
    void StartAndLink() {
        Start(server.FrontAddress());
        ASSERT_TRUE(spi.WaitFor("linked"));
        ASSERT_TRUE(server.WaitForAccepted(1));
    }
    void Login() {
        COrvexWiraReqUserLoginField req{};
        std::strcpy(req.UserID, "u");
        ASSERT_EQ(0, api->ReqUserLogin(&req, 5));
    }
    // Releases and checks that it returned promptly.
    void TimedRelease(int limitMs = 1500) {
        auto t0 = std::chrono::steady_clock::now();
        api->Release();
        api = nullptr;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
        EXPECT_LT(ms.count(), limitMs);
    }

    ScopedTempDir dir;
    FakeClock clock;
    FakeQuoteServer server;
    RecordingSpi spi;
    CDCThread* api = nullptr;
};

TEST_F(DCFaults, UnansweredLoginAndStallMidFrameKeepTheConnectionWithHeartbeatsAndReleaseIsPrompt) {
    StartAndLink();
    Login();
    DcFrame login;
    ASSERT_TRUE(server.WaitForFrame(83, &login));
    // No answer at all: heartbeats go on, nothing is reported.
    for (int i = 0; i < 3; ++i) {
        FakeClock::AdvanceMs(15000);
        ASSERT_TRUE(server.WaitForFrame(0, nullptr));
    }
    EXPECT_EQ((std::vector<std::string>{"linked"}), spi.Events());
    // The answer stalls mid-frame: the same.
    server.SendRaw(BuildDcFrame(83, SuccessAnswer(login)).substr(0, 200));
    FakeClock::AdvanceMs(15000);
    ASSERT_TRUE(server.WaitForFrame(0, nullptr));
    EXPECT_EQ((std::vector<std::string>{"linked"}), spi.Events());
    TimedRelease();
    EXPECT_EQ(1, spi.Count("lost:0"));
}

TEST_F(DCFaults, CloseOrResetMidFrameReportsAndReconnects) {
    StartAndLink();
    for (bool reset : {false, true}) {
        if (reset) {
            FakeClock::AdvanceMs(10000);
            ASSERT_TRUE(spi.WaitFor("linked", 2));
            ASSERT_TRUE(server.WaitForAccepted(2));
        }
        server.SendRaw(BuildDcFrame(82, std::string(492, '\0')).substr(0, 100));
        usleep(20 * 1000);
        server.CloseClient(reset);
        ASSERT_TRUE(spi.WaitFor(reset ? "lost:4097" : "lost:0"));
    }
    EXPECT_EQ(0, spi.Count("login:0"));
}

TEST_F(DCFaults, GarbageNeverCrashesAndEndsInAResetOrIsSkipped) {
    std::mt19937 rng(12345);
    StartAndLink();
    for (int round = 0; round < 20; ++round) {
        std::string junk(1 + rng() % 3000, '\0');
        for (char& c : junk) c = static_cast<char>(rng());
        // Keep the announced length within the limit half the time so that
        // handlers see garbage bodies too.
        if (round % 2 == 0 && junk.size() >= 4) {
            uint16_t len = static_cast<uint16_t>(junk.size() - 4);
            std::memcpy(&junk[2], &len, 2);
        }
        server.SendRaw(junk);
        usleep(5 * 1000);
        if (!api->IsConnected()) {
            FakeClock::AdvanceMs(10000);
            ASSERT_TRUE(WaitUntil([&] { return api->IsConnected(); }));
            ASSERT_TRUE(server.WaitForAccepted(server.Accepted()));
        }
    }
    for (int reason : spi.Copy(spi.lost)) EXPECT_TRUE(reason == 8195 || reason == 0) << reason;
    TimedRelease();
}

TEST_F(DCFaults, ValidFrameThenGarbageHandlesTheFrameThenResets) {
    StartAndLink();
    Login();
    DcFrame login;
    ASSERT_TRUE(server.WaitForFrame(83, &login));
    server.SendRaw(BuildDcFrame(83, SuccessAnswer(login)) + std::string("\x40\x02\xFF\xFF garbage", 12));
    ASSERT_TRUE(spi.WaitFor("lost:8195"));
    std::vector<std::string> ev = spi.Events();
    ASSERT_GE(ev.size(), 3u);
    EXPECT_EQ("login:0", ev[1]);
    EXPECT_EQ("lost:8195", ev[2]);
}

TEST_F(DCFaults, FrontThatNeverAcceptsDoesNotHangRelease) {
    // A listener with a full backlog drops further connection attempts, so
    // the connect neither succeeds nor fails.
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(lfd, 0));
    socklen_t len = sizeof(addr);
    getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &len);
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        fillers.push_back(c);
    }
    usleep(50 * 1000);
    Start("tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)));
    usleep(300 * 1000);
    TimedRelease();
    for (int c : fillers) close(c);
    close(lfd);
}

TEST_F(DCFaults, HundredsOfReconnectionsLeakNoDescriptorOrThread) {
    StartAndLink();
    server.CloseClient(false);
    ASSERT_TRUE(spi.WaitFor("lost:0"));
    const int fds = CountEntries("/proc/self/fd");
    const int threads = CountEntries("/proc/self/task");
    const int cycles = 200;
    for (int i = 2; i <= cycles + 1; ++i) {
        FakeClock::AdvanceMs(10000);
        ASSERT_TRUE(server.WaitForAccepted(i));
        ASSERT_TRUE(spi.WaitFor("linked", i));
        server.CloseClient(i % 2 == 0);
        ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.lost).size() == static_cast<size_t>(i); }));
    }
    EXPECT_EQ(fds, CountEntries("/proc/self/fd"));
    EXPECT_EQ(threads, CountEntries("/proc/self/task"));
    for (int reason : spi.Copy(spi.lost)) EXPECT_TRUE(reason == 0 || reason == 4097) << reason;
}

TEST_F(DCFaults, ReleaseBeforeInitAndBeforeAnyConnection) {
    api = new CDCThread("", false);
    api->RegisterSpi(&spi);
    TimedRelease();
    Start("tcp://127.0.0.1:1");
    TimedRelease();
    EXPECT_EQ(0, spi.Count("linked"));
}

TEST_F(DCFaults, ReleaseWhileTheSnapshotIsLoading) {
    StartAndLink();
    Login();
    DcFrame login;
    ASSERT_TRUE(server.WaitForFrame(83, &login));
    // First-form answer naming one market: the model is rebuilt and the
    // market status is requested.
    server.Send(82, LoginAnswerBody(1, 0, {2001}));
    ASSERT_TRUE(server.WaitForFrame(2, nullptr));
    server.Send(2, MarketStatusBody(1, 0, {{2001, 20240102, 1, 0, 20240102, 93000000}}));
    ASSERT_TRUE(server.WaitForFrame(3, nullptr));
    std::vector<NameRow> names;
    std::vector<QuoteRow> rows;
    for (int i = 0; i < 40; ++i) {
        const std::string code = "cu25" + std::to_string(10 + i);
        names.push_back({"copper", code, code, 10, 0, 0});
        if (i >= 10) continue;
        rows.emplace_back();
        rows.back().market = 2001;
        rows.back().code = code;
        rows.back().date = 20240102;
        rows.back().last = 700000;
    }
    server.Send(1, NameTableBody(2001, 40, 0, names));
    // Packet 0 of 4: the snapshot stays incomplete.
    server.Send(3, QuotationBody(4, 0, 2001, 40, 0, rows));
    ASSERT_TRUE(spi.WaitFor("login:0"));
    ASSERT_TRUE(WaitUntil([&] { return spi.Copy(spi.depths).size() == 10; }));
    // The first-form answer's handle maps back to the caller's request id.
    ASSERT_EQ(1u, spi.Copy(spi.logins).size());
    EXPECT_EQ(5, spi.Copy(spi.logins)[0].requestId);
    TimedRelease();
    EXPECT_EQ(1, spi.Count("lost:0"));
}

}  // namespace
