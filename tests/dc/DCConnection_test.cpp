// The DC worker against a fake quote server: connecting, framing, login,
// heartbeats, the daily reconnect and every reason handed to OnFrontLost.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "dc/DCThread.h"
#include "support/FakeQuoteServer.h"
#include "support/RecordingSpi.h"

using namespace orvex_test;

namespace {

std::string LoginAnswer1(uint16_t handle, uint16_t code, const std::string& message = "") {
    std::string body(512, '\0');
    std::memcpy(&body[0], &handle, 2);
    std::memcpy(&body[2], &code, 2);
    std::memcpy(&body[12], message.data(), message.size() < 80 ? message.size() : 80);
    return body;
}

COrvexWiraReqUserLoginField MakeLogin() {
    COrvexWiraReqUserLoginField req;
    std::memset(&req, 0, sizeof(req));
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
    void Start(std::initializer_list<std::string> fronts = {}) {
        api = new CDCThread("flow", true);
        api->RegisterSpi(&spi);
        if (fronts.size() == 0) {
            std::string f = server.FrontAddress();
            api->RegisterFront(&f[0]);
        }
        for (std::string f : fronts) api->RegisterFront(&f[0]);
        api->Init();
    }
    void Login() {
        COrvexWiraReqUserLoginField req = MakeLogin();
        ASSERT_EQ(0, api->ReqUserLogin(&req, 42));
    }

    ScopedTempDir dir;
    FakeClock clock;
    FakeQuoteServer server;
    RecordingSpi spi;
    CDCThread* api = nullptr;
};

TEST_F(DCConnection, LinkedAfterInitAndLoginFrameIsByteExact) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    Login();
    DcFrame f;
    ASSERT_TRUE(server.WaitForFrame(83, &f));
    EXPECT_FALSE(f.compressed);
    // No access file: all markets, so no list follows the 256 bytes.
    ASSERT_EQ(256u, f.body.size());
    std::string expect(256, '\0');
    uint16_t handle = 1, two = 2;
    uint32_t one = 1;
    std::memcpy(&expect[0], &handle, 2);
    std::memcpy(&expect[2], "trader01", 8);
    std::memcpy(&expect[34], "pa55word", 8);
    std::memcpy(&expect[66], &two, 2);
    expect[80] = 1;
    std::memcpy(&expect[81], "1.2.0", 5);
    expect[97] = 1;
    std::memcpy(&expect[98], "TAPI", 4);
    std::memcpy(&expect[106], &one, 4);
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
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    Login();
    DcFrame f;
    ASSERT_TRUE(server.WaitForFrame(83, &f));
    ASSERT_EQ(256u + 4 + 12, f.body.size());
    uint32_t count;
    std::memcpy(&count, &f.body[256], 4);
    EXPECT_EQ(2u, count);
    const unsigned char entries[12] = {0xD1, 0x07, 3, 0, 0, 0, 0x35, 0x08, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(0, std::memcmp(&f.body[260], entries, 12));
}

struct LoginErrorCase {
    uint16_t code;
    int reason;
};

class DCLoginError : public DCConnection, public ::testing::WithParamInterface<LoginErrorCase> {};

TEST_P(DCLoginError, AnswerThenLostWithTheCodesReason) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    Login();
    DcFrame f;
    ASSERT_TRUE(server.WaitForFrame(83, &f));
    uint16_t handle;
    std::memcpy(&handle, f.body.data(), 2);
    server.Send(83, LoginAnswer1(handle, GetParam().code, "refused"));
    ASSERT_TRUE(spi.WaitFor("lost:" + std::to_string(GetParam().reason)));
    std::vector<std::string> ev = spi.Events();
    ASSERT_GE(ev.size(), 3u);
    EXPECT_EQ("login:" + std::to_string(GetParam().code), ev[1]);
    EXPECT_EQ("lost:" + std::to_string(GetParam().reason), ev[2]);
    std::vector<LoginAnswer> logins = spi.Copy(spi.logins);
    ASSERT_EQ(1u, logins.size());
    EXPECT_EQ(42, logins[0].requestId);
    EXPECT_TRUE(logins[0].isLast);
    EXPECT_STREQ("refused", logins[0].info.ErrorMsg);
    EXPECT_STREQ("9999", logins[0].rsp.BrokerID);
    EXPECT_STREQ("trader01", logins[0].rsp.UserID);
    EXPECT_STREQ("QXDC", logins[0].rsp.SystemName);
    EXPECT_EQ(0, logins[0].rsp.FrontID);
    EXPECT_STREQ("", logins[0].rsp.TradingDay);
    EXPECT_STREQ("", logins[0].rsp.LoginTime);
    EXPECT_STREQ("", logins[0].rsp.SHFETime);
}

INSTANTIATE_TEST_SUITE_P(Codes, DCLoginError,
                         ::testing::Values(LoginErrorCase{9, 8197}, LoginErrorCase{8, 8198},
                                           LoginErrorCase{5, 8196}));

TEST_F(DCConnection, SingleFrontRefusedLoginLeadsToANoFrontRoundThenReconnects) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    Login();
    DcFrame f;
    ASSERT_TRUE(server.WaitForFrame(83, &f));
    server.Send(83, LoginAnswer1(1, 9));
    ASSERT_TRUE(spi.WaitFor("lost:8197"));
    usleep(100 * 1000);
    EXPECT_EQ(1, server.Accepted());   // nothing before 10 s

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

TEST_F(DCConnection, SuccessfulAnswerSplitOverTwoReadsAfterAnUnknownFrame) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    Login();
    ASSERT_TRUE(server.WaitForFrame(83, nullptr));
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

    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 2));
    ASSERT_TRUE(server.WaitForAccepted(2));
    server.CloseClient(true);
    ASSERT_TRUE(spi.WaitFor("lost:4097"));

    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 3));
    ASSERT_TRUE(server.WaitForAccepted(3));
    std::string header = "@\xA6\xFD\x0F";   // body of 4093 bytes announced
    server.SendRaw(header);
    ASSERT_TRUE(spi.WaitFor("lost:8195"));

    FakeClock::AdvanceMs(10000);
    ASSERT_TRUE(spi.WaitFor("linked", 4));
    ASSERT_TRUE(server.WaitForAccepted(4));
    server.Send(101, std::string(5000, 'z'), true);   // inflates past 4092
    ASSERT_TRUE(spi.WaitFor("lost:8195", 2));
    EXPECT_EQ(0, spi.Count("login:0"));
}

TEST_F(DCConnection, HeartBeatAfterFifteenSeconds) {
    Start();
    ASSERT_TRUE(spi.WaitFor("linked"));
    usleep(50 * 1000);
    EXPECT_EQ(0, server.CountFrames(0));
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
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    close(pair[1]);
    api.m_socket = pair[0];
    EXPECT_EQ(0, api.ReqMarketStatus(0));
    EXPECT_EQ(std::vector<int>{4098}, spi.Copy(spi.lost));
    EXPECT_FALSE(api.IsConnected());

    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    close(pair[1]);
    api.m_socket = pair[0];
    COrvexWiraReqUserLoginField req = MakeLogin();
    EXPECT_EQ(-1, api.ReqUserLogin(&req, 1));
    EXPECT_EQ((std::vector<int>{4098, 4098}), spi.Copy(spi.lost));
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
    api.m_socket = pair[0];
    EXPECT_EQ(1, api.HeartBeat());
    EXPECT_EQ(1, api.ReqMarketNametable(0x12345));
    EXPECT_EQ(1, api.ReqMarketStatus(2001));
    EXPECT_EQ(1, api.ReqQuotation(2101));
    api.m_nDynainfoSelector = 7;
    EXPECT_EQ(1, api.SubscribeDynainfo());
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
        EXPECT_FALSE(a.LogEnabled());
        EXPECT_FALSE(a.SubscribeEnabled());
        EXPECT_FALSE(a.DeltaEnabled());
        EXPECT_FALSE(a.DomesticExchanges());
        EXPECT_EQ(0, a.LevelSetting());
        CDCThread b("logs", false);
        EXPECT_STREQ("logs/", b.FlowPath());
        CDCThread c("logs/", false);
        EXPECT_STREQ("logs/", c.FlowPath());
    }
    ScopedTempDir::Write("OrvexWiraMdApi.def",
                         "[config]\nLOG=1\nSubscribe=true\nDeltaQuot=2\nlevel=3\nDomesticExchanges=-1\n");
    CDCThread d("", false);
    EXPECT_TRUE(d.LogEnabled());
    EXPECT_FALSE(d.SubscribeEnabled());   // only numbers count
    EXPECT_TRUE(d.DeltaEnabled());
    EXPECT_EQ(3, d.LevelSetting());
    EXPECT_TRUE(d.DomesticExchanges());
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
    EXPECT_EQ(7000, api.Front(0).port);
    EXPECT_FALSE(api.Front(0).isFtp);
    EXPECT_TRUE(api.Front(0).usable);
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
