// The DC worker against a fake quote server: connecting, framing, login,
// heartbeats, the daily reconnect and every reason handed to OnFrontLost.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "dc/DCThread.h"
#include "support/FakeQuoteServer.h"
#include "support/RecordingSpi.h"

using namespace orvex_test;

namespace {

// The descriptor of this process's TCP connection to 127.0.0.1:port (the
// library's socket, seen from the test), or -1.
int ConnectionTo(int port) {
    for (int fd = 3; fd < 1024; ++fd) {
        sockaddr_in peer{};
        socklen_t len = sizeof(peer);
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port)
            return fd;
    }
    return -1;
}

// Bytes that have arrived on fd and not been received yet.
int Unread(int fd) {
    int n = -1;
    return ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

std::string LoginAnswer1(uint16_t handle, uint16_t code, const std::string& message = "") {
    std::string body(512, '\0');
    std::memcpy(&body[0], &handle, 2);
    std::memcpy(&body[2], &code, 2);
    std::memcpy(&body[12], message.data(), message.size() < 80 ? message.size() : 80);
    return body;
}

COrvexWiraReqUserLoginField MakeLogin() {
    COrvexWiraReqUserLoginField req{};
    std::strcpy(req.BrokerID, "9999");
    std::strcpy(req.UserID, "trader01");
    std::strcpy(req.Password, "pa55word");
    return req;
}

class DCConnection : public ::testing::Test {
protected:
    void SetUp() override { FakeClock::SetRandom({0}); }
    void TearDown() override {
        if (api) api->Release();
        api = nullptr;
    }
    void Start(std::vector<std::string> fronts = {}) {
        api = new CDCThread("flow", true);
        api->RegisterSpi(&spi);
        if (fronts.empty()) fronts.push_back(server.FrontAddress());
        for (std::string& f : fronts) api->RegisterFront(&f[0]);
        api->Init();
    }
    // Starts on the fake server, waits for the link, sends the login and
    // waits for its frame.
    void StartAndLogin(DcFrame* sent) {
        Start();
        ASSERT_TRUE(spi.WaitFor("linked"));
        COrvexWiraReqUserLoginField req = MakeLogin();
        ASSERT_EQ(0, api->ReqUserLogin(&req, 42));
        ASSERT_TRUE(server.WaitForFrame(83, sent));
    }
    // Lets the 10 s retry delay pass and waits for the n-th connection.
    void Reconnect(int n) {
        FakeClock::AdvanceMs(10000);
        ASSERT_TRUE(spi.WaitFor("linked", n));
        ASSERT_TRUE(server.WaitForAccepted(n));
    }

    ScopedTempDir dir;
    FakeClock clock;
    FakeQuoteServer server;
    RecordingSpi spi;
    CDCThread* api = nullptr;
};

TEST_F(DCConnection, LinkedAfterInitAndLoginFrameIsByteExact) {
    DcFrame f;
    ASSERT_NO_FATAL_FAILURE(StartAndLogin(&f));
    EXPECT_FALSE(f.compressed);
    // No access file: all markets, so no list follows the 256 bytes.
    std::string expect(256, '\0');
    // Handle 1, user, password, u16 2, then 1 "1.2.0", 1 "TAPI" and u32 1.
    const std::pair<size_t, std::string> parts[] = {{0, {"\x01\x00", 2}}, {2, "trader01"},    {34, "pa55word"},
                                                    {66, {"\x02\x00", 2}}, {80, "\x01" "1.2.0"}, {97, "\x01TAPI"},
                                                    {106, {"\x01\x00\x00\x00", 4}}};
    for (const auto& [offset, bytes] : parts) expect.replace(offset, bytes.size(), bytes);
    EXPECT_EQ(expect, f.body);

    // A second login on the same connection sends nothing.
    COrvexWiraReqUserLoginField req = MakeLogin();
    EXPECT_EQ(0, api->ReqUserLogin(&req, 43));
    usleep(100 * 1000);
    EXPECT_EQ(1, server.CountFrames(83));
}

TEST_F(DCConnection, LoginCarriesTheAccessListFromTheAccessFile) {
    ScopedTempDir::Write("qxmktaccess.xml",
                         "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<qxmkts>\n"
                         "  <qxmkt family=\"2001\" groups=\"3\"/>\n  <qxmkt family=\"2101\"/>\n</qxmkts>\n");
    DcFrame f;
    ASSERT_NO_FATAL_FAILURE(StartAndLogin(&f));
    ASSERT_EQ(256u + 4 + 12, f.body.size());
    // Count 2, then 2001 with groups 3 and 2101 with all groups.
    EXPECT_EQ(std::string("\x02\0\0\0" "\xD1\x07\x03\0\0\0" "\x35\x08\xFF\xFF\xFF\xFF", 16), f.body.substr(256));
}

struct LoginErrorCase {
    uint16_t code;
    int reason;
    bool retry;   // also follow the single front's retry round (needs a wait)
};

class DCLoginError : public DCConnection, public ::testing::WithParamInterface<LoginErrorCase> {};

TEST_P(DCLoginError, AnswerThenLostWithTheCodesReasonThenTheSingleFrontsRetryRound) {
    DcFrame f;
    ASSERT_NO_FATAL_FAILURE(StartAndLogin(&f));
    uint16_t handle;
    std::memcpy(&handle, f.body.data(), 2);
    server.Send(83, LoginAnswer1(handle, GetParam().code, "refused"));
    ASSERT_TRUE(spi.WaitFor("lost:" + std::to_string(GetParam().reason)));
    std::vector<std::string> ev = spi.Events();
    ASSERT_GE(ev.size(), 3u);
    EXPECT_EQ("login:" + std::to_string(GetParam().code) + " lost:" + std::to_string(GetParam().reason),
              ev[1] + " " + ev[2]);
    std::vector<LoginAnswer> logins = spi.Copy(spi.logins);
    ASSERT_EQ(1u, logins.size());
    const COrvexWiraRspUserLoginField& rsp = logins[0].rsp;
    EXPECT_EQ(std::make_tuple(42, true, 0), std::make_tuple(logins[0].requestId, logins[0].isLast, rsp.FrontID));
    // Message, broker, user, system name, trading day, login time, SHFE time.
    EXPECT_EQ((std::vector<std::string>{"refused", "9999", "trader01", "QXDC", "", "", ""}),
              (std::vector<std::string>{logins[0].info.ErrorMsg, rsp.BrokerID, rsp.UserID, rsp.SystemName,
                                        rsp.TradingDay, rsp.LoginTime, rsp.SHFETime}));
    // With one front: nothing before 10 s, a round without a front, then a
    // new connection.
    if (!GetParam().retry) return;
    usleep(100 * 1000);
    EXPECT_EQ(1, server.Accepted());

    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("lost:4099"));
    EXPECT_EQ(1, server.Accepted());

    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 2));
    // The client may see its connect complete before the server's accept
    // loop has counted it.
    EXPECT_TRUE(server.WaitForAccepted(2));
    EXPECT_EQ(2, server.Accepted());
}

INSTANTIATE_TEST_SUITE_P(Codes, DCLoginError,
                         ::testing::Values(LoginErrorCase{9, 8197, true}, LoginErrorCase{8, 8198, false},
                                           LoginErrorCase{5, 8196, false}));

TEST_F(DCConnection, SuccessfulAnswerSplitOverTwoReadsAfterAnUnknownFrame) {
    ASSERT_NO_FATAL_FAILURE(StartAndLogin(nullptr));
    std::string bytes = BuildDcFrame(77, "ignored") + BuildDcFrame(83, LoginAnswer1(1, 0));
    server.SendRaw(bytes.substr(0, 100));
    usleep(50 * 1000);
    EXPECT_EQ(0, spi.Count("login:0"));
    server.SendRaw(bytes.substr(100));
    ASSERT_TRUE(spi.WaitFor("login:0"));
    // The quick path of a first connection refreshes the quotation.
    DcFrame sub, quote;
    ASSERT_TRUE(server.WaitForFrame(100, &sub));
    EXPECT_EQ(std::string("\xFF\xFF\xFF\xFF", 4), sub.body);
    ASSERT_TRUE(server.WaitForFrame(3, &quote));
    EXPECT_EQ(std::string(6, '\0'), quote.body);
    std::vector<LoginAnswer> logins = spi.Copy(spi.logins);
    ASSERT_EQ(1u, logins.size());
    EXPECT_EQ(42, logins[0].requestId);
    EXPECT_EQ(8u, std::strlen(logins[0].rsp.LoginTime));
    EXPECT_EQ("02", std::string(logins[0].rsp.LoginTime + 6));   // day of the month
    EXPECT_EQ(0, spi.Count("lost:8195"));
}

TEST_F(DCConnection, ServerCloseResetAndBadFramesGiveTheirReasons) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    ASSERT_TRUE(server.WaitForAccepted(1));
    server.CloseClient(false);
    ASSERT_TRUE(spi.WaitFor("lost:0"));
    ASSERT_NO_FATAL_FAILURE(Reconnect(2));
    server.CloseClient(true);
    ASSERT_TRUE(spi.WaitFor("lost:4097"));
    ASSERT_NO_FATAL_FAILURE(Reconnect(3));
    std::string header = "@\xA6\xFD\x0F";   // body of 4093 bytes announced
    server.SendRaw(header);
    ASSERT_TRUE(spi.WaitFor("lost:8195"));
    ASSERT_NO_FATAL_FAILURE(Reconnect(4));
    server.Send(101, std::string(5000, 'z'), true);   // inflates past 4092
    ASSERT_TRUE(spi.WaitFor("lost:8195", 2));
    EXPECT_EQ(0, spi.Count("login:0"));
}

TEST_F(DCConnection, HeartBeatAfterFifteenSeconds) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    FakeClock::AdvanceMs(14999);
    usleep(50 * 1000);
    EXPECT_EQ(0, server.CountFrames(0));
    FakeClock::AdvanceMs(2);
    DcFrame hb;
    ASSERT_TRUE(server.WaitForFrame(0, &hb));
    EXPECT_TRUE(hb.body.empty());
    usleep(50 * 1000);
    EXPECT_EQ(1, server.CountFrames(0));
}

TEST_F(DCConnection, DailyReconnectAtTheDrawnMomentWithReasonZero) {
    FakeClock::SetRandom({7, 30});   // 05:07:30
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    FakeClock::SetLocalTime(2024, 1, 3, 5, 7, 29);
    usleep(100 * 1000);
    EXPECT_EQ(0, spi.Count("lost:0"));
    FakeClock::SetLocalTime(2024, 1, 3, 5, 7, 30);
    ASSERT_TRUE(spi.WaitFor("lost:0"));
    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 2));
    // Connected on the new day: no further reconnect that day.
    usleep(100 * 1000);
    EXPECT_EQ(1, spi.Count("lost:0"));
}

TEST_F(DCConnection, ExceptionInAStepResetsWith65535) {
    bool first = true;
    spi.onLinked = [&first] {
        if (first) {
            first = false;
            throw std::runtime_error("callback failed");
        }
    };
    Start();
    ASSERT_TRUE(spi.WaitFor("lost:65535"));
}

TEST_F(DCConnection, NoFrontReachableGives4099AndAllFrontsAgain) {
    // A port bound but not listening refuses every connection.
    int dead = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(dead, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    socklen_t len = sizeof(addr);
    getsockname(dead, reinterpret_cast<sockaddr*>(&addr), &len);
    FakeClock::SetRandom({0, 1});
    std::string a = "tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
    Start({a, a});
    ASSERT_TRUE(spi.WaitFor("lost:4099"));
    EXPECT_EQ(0, spi.Count("linked"));
    ASSERT_EQ(2u, api->FrontCount());
    EXPECT_TRUE(WaitUntil([&] { return api->Front(0).usable && api->Front(1).usable; }));
    api->Release();
    api = nullptr;
    close(dead);
}

TEST_F(DCConnection, NoFrontRegisteredOnlySleeps) {
    api = new CDCThread("", false);
    api->RegisterSpi(&spi);
    api->Init();
    usleep(150 * 1000);
    api->Release();
    api = nullptr;
    EXPECT_TRUE(spi.Events().empty());
}

// An application that, inside OnFrontLost, waits for another of its threads
// that is logging in: no lock of the library is held during the callback, so
// the login returns and the callback ends.
TEST_F(DCConnection, OnFrontLostMayWaitForALoginOnAnotherThread) {
    struct WaitingSpi : RecordingSpi {
        void OnFrontLost(int reason) override {
            RecordingSpi::OnFrontLost(reason);
            std::unique_lock<std::mutex> lock(mutex);
            lostCalled = true;
            changed.notify_all();
            loginReturned = changed.wait_for(lock, std::chrono::seconds(5), [this] { return loginDone; });
        }
        std::mutex mutex;
        std::condition_variable changed;
        bool lostCalled = false;
        bool loginDone = false;
        std::atomic<bool> loginReturned{false};
    } waiting;
    api = new CDCThread("flow", true);
    api->RegisterSpi(&waiting);
    std::string front = server.FrontAddress();
    api->RegisterFront(&front[0]);
    api->Init();
    ASSERT_TRUE(waiting.WaitFor("linked"));

    std::thread login([&] {
        {
            std::unique_lock<std::mutex> lock(waiting.mutex);
            waiting.changed.wait_for(lock, std::chrono::seconds(10), [&] { return waiting.lostCalled; });
        }
        COrvexWiraReqUserLoginField req = MakeLogin();
        api->ReqUserLogin(&req, 7);   // no connection: nothing is sent
        std::lock_guard<std::mutex> lock(waiting.mutex);
        waiting.loginDone = true;
        waiting.changed.notify_all();
    });
    ASSERT_TRUE(server.WaitForAccepted(1));
    server.CloseClient();
    login.join();
    ASSERT_TRUE(waiting.WaitFor("lost:0"));
    EXPECT_TRUE(WaitUntil([&] { return waiting.loginReturned.load(); }, 5000));
    EXPECT_EQ(0, server.CountFrames(83));
    api->RegisterSpi(&spi);
}

TEST_F(DCConnection, FrontWhoseHostDoesNotResolveIsAFailedAttempt) {
    // The fake server listens on the port the front names: a connect to the
    // zero address would reach it.
    Start({"tcp://no-such-host.invalid:" + std::to_string(server.Port())});
    ASSERT_TRUE(spi.WaitFor("lost:4099"));
    usleep(100 * 1000);
    EXPECT_EQ(0, server.Accepted());
    EXPECT_EQ(0, spi.Count("linked"));
}

TEST_F(DCConnection, SilentConnectionIsDroppedAfterTheReceiveTimeout) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[CONFIG]\nRecvTimeout=2\nLog=1\n");
    FakeClock::SetLocalTime(2024, 1, 2, 9, 8, 7);
    ASSERT_EQ(0, mkdir("flow", 0775));
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    FakeClock::AdvanceMs(1999);
    usleep(300 * 1000);
    EXPECT_EQ(0, spi.Count("lost:4097"));
    FakeClock::AdvanceMs(1);
    ASSERT_TRUE(spi.WaitFor("lost:4097"));
    EXPECT_EQ(std::vector<int>{4097}, spi.Copy(spi.lost));
    std::ifstream log("flow/Orvex_20240102.log");
    std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, text.find("09:08:07 Recv Timeout : no data for 2000 ms\n")) << text;
    // The usual reconnect rounds follow.
    Reconnect(2);
}

TEST_F(DCConnection, ConnectionThatKeepsReceivingIsNeverDropped) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[CONFIG]\nRecvTimeout=2\n");
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    const int library = ConnectionTo(server.Port());
    ASSERT_GE(library, 0);
    // Six seconds of the clock, with data every half second; the clock
    // moves on only once the worker has received the data.
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(server.Send(kCmdHeartBeat, ""));
        ASSERT_TRUE(WaitUntil([&] { return Unread(library) == 0; }, 5000));
        FakeClock::AdvanceMs(500);
    }
    usleep(200 * 1000);
    EXPECT_TRUE(spi.Copy(spi.lost).empty());
}

TEST_F(DCConnection, WithoutAReceiveTimeoutASilentConnectionStays) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    EXPECT_EQ(0u, api->RecvTimeoutSeconds());
    FakeClock::AdvanceMs(600 * 1000);
    usleep(300 * 1000);
    EXPECT_TRUE(spi.Copy(spi.lost).empty());
}

TEST_F(DCConnection, ReleaseWhileConnectedReportsTheLossAndEndsTheWorker) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    api->Release();
    api = nullptr;
    EXPECT_EQ(1, spi.Count("lost:0"));
}

TEST(DCSend, FailedSendResetsWith4098) {
    ScopedTempDir dir;
    RecordingSpi spi;
    CDCThread api("", false);
    api.RegisterSpi(&spi);
    // Each request goes to a socket whose far end is closed.
    auto deadPeer = [&api] {
        int pair[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
        close(pair[1]);
        api.AttachSocketForTest(pair[0]);
    };
    ASSERT_NO_FATAL_FAILURE(deadPeer());
    EXPECT_EQ(0, api.ReqMarketStatus(0));
    EXPECT_EQ(std::vector<int>{4098}, spi.Copy(spi.lost));
    EXPECT_FALSE(api.IsConnected());
    ASSERT_NO_FATAL_FAILURE(deadPeer());
    COrvexWiraReqUserLoginField req = MakeLogin();
    EXPECT_EQ(-1, api.ReqUserLogin(&req, 1));
    EXPECT_EQ((std::vector<int>{4098, 4098}), spi.Copy(spi.lost));
}

// A reset on the caller's thread (a failed send) must not close the socket
// under the worker, which may be waiting on it or receiving from it: the
// number could go to another file of the process and the worker would read
// that. The peer sees the end at once; the worker closes the descriptor on
// its next pass, or the object does once the worker is gone.
TEST(DCSend, ACallersResetLeavesTheDescriptorToTheWorker) {
    ScopedTempDir dir;
    auto open = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    RecordingSpi spi;
    int pair[2];
    {
        CDCThread api("", false);
        api.RegisterSpi(&spi);
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
        api.AttachSocketForTest(pair[0]);
        ASSERT_EQ(0, shutdown(pair[1], SHUT_RD));   // sends to it fail
        EXPECT_EQ(0, api.ReqMarketStatus(0));
        EXPECT_EQ(std::vector<int>{4098}, spi.Copy(spi.lost));
        EXPECT_TRUE(open(pair[0]));   // no worker has let go of it yet
        char c;
        EXPECT_EQ(0, recv(pair[1], &c, 1, 0));   // the peer has seen the end
    }
    EXPECT_FALSE(open(pair[0]));
    close(pair[1]);

    // With the worker running and waiting on the socket.
    CDCThread api("", false);
    api.RegisterSpi(&spi);
    api.Init();
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    api.AttachSocketForTest(pair[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(0, shutdown(pair[1], SHUT_RD));
    EXPECT_EQ(0, api.ReqMarketStatus(0));
    for (int i = 0; i < 200 && open(pair[0]); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(open(pair[0]));
    // One loss for the second socket, whichever thread ended it first (the
    // worker's once-a-day reconnect may take an attached socket too).
    EXPECT_EQ(2u, spi.Copy(spi.lost).size());
    close(pair[1]);
}

TEST(DCHandles, WrapAndLookUp) {
    ScopedTempDir dir;
    CDCThread api("", false);
    EXPECT_EQ(0, api.GetRequestID(0));
    EXPECT_EQ(1, api.AssignReqHandle(100));
    EXPECT_EQ(100, api.GetRequestID(1));
    EXPECT_EQ(1, api.GetRequestID(1));   // removed by the first look-up
    for (int i = 2; i <= 65535; ++i) api.AssignReqHandle(i);
    EXPECT_EQ(0, api.AssignReqHandle(7));
    EXPECT_EQ(1, api.AssignReqHandle(8));
    EXPECT_EQ(7, api.GetRequestID(0));
    EXPECT_EQ(8, api.GetRequestID(1));
}

TEST(DCRequests, FramesAreByteExact) {
    ScopedTempDir dir;
    CDCThread api("", false);
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    api.AttachSocketForTest(pair[0]);
    EXPECT_EQ(1, api.HeartBeat());
    EXPECT_EQ(1, api.ReqMarketNametable(0x12345));
    EXPECT_EQ(1, api.ReqMarketStatus(2001));
    EXPECT_EQ(1, api.ReqQuotation(2101));
    EXPECT_EQ(1, api.SubscribeDynainfo(7));
    char buf[256];
    ssize_t n = recv(pair[1], buf, sizeof(buf), 0);
    std::string got(buf, static_cast<size_t>(n));
    std::string expect = std::string("@\x00\x00\x00", 4) +
                         std::string("@\x02\x0E\x00\x00\x00\x45\x23", 8) + std::string(10, '\0') +
                         std::string("@\x04\x04\x00\x00\x00\xD1\x07", 8) +
                         std::string("@\x06\x06\x00\x00\x00\x35\x08\x00\x00", 10) +
                         std::string("@\xC8\x04\x00\x07\x00\x00\x00", 8);
    EXPECT_EQ(expect, got);
    close(pair[1]);
}

TEST(DCConstruction, FlowPathAndConfiguration) {
    ScopedTempDir dir;
    {
        CDCThread a(nullptr, false);
        EXPECT_STREQ("./", a.FlowPath());
        // Without a configuration file: log, subscribe, delta, domestic exchanges, level.
        EXPECT_EQ(std::make_tuple(false, false, false, false, 0),
                  std::make_tuple(a.LogEnabled(), a.SubscribeEnabled(), a.DeltaEnabled(), a.DomesticExchanges(),
                                  a.LevelSetting()));
        EXPECT_STREQ("logs/", CDCThread("logs", false).FlowPath());
        EXPECT_STREQ("logs/", CDCThread("logs/", false).FlowPath());
    }
    ScopedTempDir::Write("OrvexWiraMdApi.def",
                         "[config]\nLOG=1\nSubscribe=true\nDeltaQuot=2\nlevel=3\nDomesticExchanges=-1\n");
    CDCThread d("", false);
    // Subscribe stays off: only numbers count.
    EXPECT_EQ(std::make_tuple(true, false, true, true, 3),
              std::make_tuple(d.LogEnabled(), d.SubscribeEnabled(), d.DeltaEnabled(), d.DomesticExchanges(),
                              d.LevelSetting()));
}

TEST(DCConstruction, RegisterFrontSortsAndParses) {
    ScopedTempDir dir;
    CDCThread api("", false);
    char tcp[] = "tcp://10.0.0.1:7000";
    char bare[] = "10.0.0.1:7000";
    api.RegisterFront(tcp);
    api.RegisterFront(bare);
    api.RegisterFront(nullptr);
    ASSERT_EQ(1u, api.FrontCount());
    EXPECT_STREQ("10.0.0.1", api.Front(0).host);
    EXPECT_EQ(std::make_tuple(7000, false, true), std::make_tuple(int{api.Front(0).port}, api.Front(0).isFtp,
                                                                  api.Front(0).usable));
}

TEST(DCLog, DailyFileNameAndLineFormat) {
    ScopedTempDir dir;
    FakeClock clock;
    FakeClock::SetLocalTime(2024, 1, 2, 9, 8, 7);
    ASSERT_EQ(0, mkdir("flow", 0775));
    CDCThread api("flow", false);
    api.DumpLog("hello");
    api.DumpLog(nullptr);
    FILE* f = fopen("flow/Orvex_20240102.log", "r");
    ASSERT_NE(nullptr, f);
    char line[64] = {0};
    ASSERT_NE(nullptr, fgets(line, sizeof(line), f));
    fclose(f);
    EXPECT_STREQ("09:08:07 hello\n", line);
}

}  // namespace
