// The file-service worker against a fake file server: login and upload,
// list handling, downloads into the cache, failures, contract loading and
// cache pruning. Each test runs in a fresh temporary working directory,
// because the worker uses paths relative to it (./cache/, ./qxsfc_login.ini).
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sf/QXSFThread.h"
#include "support/FakeFileServer.h"

using qxsfsim::FakeFileServer;
using qxsfsim::Misbehaviour;
using qxsfsim::Package;
using qxsfsim::ServedFile;
using qxsfsim::ServerScript;

namespace {

const char kColon[] = "\xA3\xBA";   // full-width colon of the server's messages

class RecordingSpi : public COrvexWiraMdSpi {
public:
    struct Answer {
        bool hasRecord;
        int errorId;
        std::string message;
        int requestId;
        bool isLast;
    };

    void OnInstrumentAnswer(COrvexWiraInstrumentField* instrument, COrvexWiraRspInfoField* info, int requestId,
                            bool isLast) override {
        std::lock_guard<std::mutex> lock(m_lock);
        m_answers.push_back(Answer{instrument != nullptr, info ? info->ErrorID : -1,
                                   info ? std::string(info->ErrorMsg) : std::string(), requestId, isLast});
    }

    std::vector<Answer> Answers() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_answers;
    }

private:
    std::mutex m_lock;
    std::vector<Answer> m_answers;
};

struct WorkerDeleter {
    void operator()(CQXSFThread* worker) const { worker->Release(); }
};
typedef std::unique_ptr<CQXSFThread, WorkerDeleter> WorkerPtr;

template <typename Pred>
bool WaitUntil(Pred pred, int timeoutMs = 10000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string Filler(size_t n, unsigned seed) {
    std::string s(n, '\0');
    unsigned x = seed;
    for (char& c : s) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    return s;
}

ServedFile File(const std::string& name, const std::string& content, UPDFILETIME time = {100, 200}) {
    ServedFile f;
    f.name = name;
    f.content = content;
    f.time = time;
    return f;
}

class QxsfWorkerTest : public ::testing::Test {
protected:
    void SetUp() override {
        char cwd[4096];
        ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
        m_oldDir = cwd;
        std::string pattern = (std::filesystem::temp_directory_path() / "qxsf_test_XXXXXX").string();
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        ASSERT_NE(nullptr, mkdtemp(buf.data()));
        m_dir = buf.data();
        ASSERT_EQ(0, chdir(m_dir.c_str()));
        WriteText("qxsfc_login.ini", "[LoginInfo]\nUser=trader\nPassword=pw123\n");
        CQXSFThread::ClearFronts();
        m_query.nRequestID = 42;
    }

    void TearDown() override {
        m_server.reset();
        CQXSFThread::ClearFronts();
        ASSERT_EQ(0, chdir(m_oldDir.c_str()));
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }

    FakeFileServer& Serve(const ServerScript& script, const std::vector<ServedFile>& files) {
        m_server.reset(new FakeFileServer());
        m_server->SetScript(script);
        for (const ServedFile& f : files) m_server->AddFile(f);
        EXPECT_TRUE(m_server->Start());
        AddFront(m_server->Port());
        return *m_server;
    }

    static void AddFront(uint16_t port) {
        _FrontInfo front;
        std::memset(&front, 0, sizeof(front));
        front.isFtp = true;
        std::strcpy(front.host, "127.0.0.1");
        front.port = port;
        front.usable = true;
        CQXSFThread::AddFront(front);
    }

    WorkerPtr Start(const std::vector<std::string>& markets) {
        WorkerPtr worker(new CQXSFThread("", &m_query, markets));
        worker->RegisterSpi(&m_spi);
        worker->Init();
        return worker;
    }

    // Runs a worker to its end.
    WorkerPtr Run(const std::vector<std::string>& markets = {"SHFE"}) {
        WorkerPtr worker = Start(markets);
        EXPECT_TRUE(WaitUntil([&] { return worker->IsExit(); })) << "worker did not end";
        return worker;
    }

    std::vector<Package> FileRequests() const { return m_server->ReceivedWithCommand(QXSF_CMD_FILE); }

    std::vector<std::string> RequestedNames() const {
        std::vector<std::string> names;
        for (const Package& p : FileRequests()) {
            _GetFileReq req;
            qxsfsim::from_stream(req, p.body.data(), static_cast<int>(p.body.size()));
            names.push_back(req.FilePath);
        }
        return names;
    }

    void ExpectOnlyError(int code, const std::string& message) {
        auto answers = m_spi.Answers();
        ASSERT_EQ(1u, answers.size());
        EXPECT_FALSE(answers[0].hasRecord);
        EXPECT_EQ(code, answers[0].errorId);
        EXPECT_EQ(message.substr(0, 80), answers[0].message);   // the record holds 80 characters
        EXPECT_EQ(42, answers[0].requestId);
        EXPECT_TRUE(answers[0].isLast);
    }

    std::string m_oldDir;
    std::string m_dir;
    _QryInstrumentInfo m_query{};
    RecordingSpi m_spi;
    std::unique_ptr<FakeFileServer> m_server;
};

// ---- session: login, upload, handles -------------------------------------

TEST_F(QxsfWorkerTest, LogsInAndUploadsTheMarketsOfTheQuery) {
    WriteText("OrvexWiraMdApi.def", "[MARKET]\nSHFE=[\"shfe\",\"ine\"]\n");
    FakeFileServer& server = Serve(ServerScript(), {});
    WorkerPtr worker = Run({"SHFE", "CZCE_LONG_NAME_X"});
    EXPECT_TRUE(worker->IsOver());
    EXPECT_TRUE(m_spi.Answers().empty());

    auto received = server.Received();
    ASSERT_EQ(2u, received.size());
    const Package& login = received[0];
    EXPECT_EQ(QXSF_CMD_LOGIN, login.head.Command);
    EXPECT_EQ(1, login.head.Handle);
    EXPECT_EQ(0, login.head.Flags);
    ASSERT_EQ(126u, login.wireBody.size());
    _LoginReq req;
    ASSERT_EQ(126, qxsfsim::from_stream(req, login.body.data(), 126));
    EXPECT_STREQ("trader", req.UserId);
    EXPECT_STREQ("pw123", req.Password);
    EXPECT_EQ(0, req.LoginFlag);
    EXPECT_STREQ("1.0.0.1", req.ClientVersion);
    EXPECT_STREQ("QXSFC", req.ClientName);
    EXPECT_EQ(0, req.LoginType);
    EXPECT_EQ(1, req.ClientKind);
    EXPECT_EQ(std::string(20, '\0'), std::string(login.body.data() + 86, 20));
    EXPECT_EQ(std::string(18, '\0'), std::string(login.body.data() + 108, 18));

    const Package& list = received[1];
    EXPECT_EQ(QXSF_CMD_MKTLIST, list.head.Command);
    EXPECT_EQ(2, list.head.Handle);
    qxsfsim::MarketList markets;
    ASSERT_TRUE(qxsfsim::DecodeMarketList(list.body, markets));
    // A JSON array stands for several codes; a name without an entry is sent
    // as it is, cut to 11 bytes.
    EXPECT_EQ((std::vector<std::string>{"shfe", "ine", "CZCE_LONG_N"}), markets.codes);
}

TEST_F(QxsfWorkerTest, MarketEntryThatIsNotAnArrayIsLeftOut) {
    WriteText("OrvexWiraMdApi.def", "[MARKET]\nSHFE={\"a\":1}\nDCE=not json\n");
    FakeFileServer& server = Serve(ServerScript(), {});
    testing::internal::CaptureStderr();
    WorkerPtr worker = Run({"SHFE", "DCE", "CFFEX"});
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("get qxsfmkt data err!"));
    auto lists = server.ReceivedWithCommand(static_cast<char>(QXSF_CMD_MKTLIST));
    ASSERT_EQ(1u, lists.size());
    qxsfsim::MarketList markets;
    ASSERT_TRUE(qxsfsim::DecodeMarketList(lists[0].body, markets));
    EXPECT_EQ(std::vector<std::string>{"CFFEX"}, markets.codes);
}

TEST_F(QxsfWorkerTest, EveryRequestTakesTheNextHandleAndAnswersCarryIt) {
    FakeFileServer& server = Serve(ServerScript(), {File("shfe_base_1.json", "one"), File("shfe_base_2.json", "two"),
                                                    File("shfe_base_3.json", "three")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    std::vector<unsigned short> handles;
    for (const Package& p : server.Received()) handles.push_back(p.head.Handle);
    EXPECT_EQ((std::vector<unsigned short>{1, 2, 3, 4, 5}), handles);
    for (const Package& p : FileRequests()) {
        _GetFileReq req;
        qxsfsim::from_stream(req, p.body.data(), static_cast<int>(p.body.size()));
        EXPECT_EQ(2, req.RequestType);
        EXPECT_EQ(0, req.Offset);
        EXPECT_EQ(0, std::strncmp(req.FilePath, "contract\\shfe_base_", 19));
    }
}

// ---- downloads and the cache ----------------------------------------------

TEST_F(QxsfWorkerTest, InstantServerDeliversEveryQueuedFile) {
    // The server answers each request at once, so a request completes before
    // the next one is sent; the worker must still fetch them all.
    ServerScript script;
    script.compress = true;
    const std::string big = Filler(10000, 1);
    Serve(script, {File("shfe_base_1.json", big, {7, 8}), File("shfe_base_2.json", "{}"),
                   File("ine_base_1.json", Filler(4096, 2)), File("shfe_base_3.json", "")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    EXPECT_TRUE(m_spi.Answers().empty());
    EXPECT_EQ(4u, FileRequests().size());
    EXPECT_EQ(big, ReadText("cache/shfe_base_1.json"));
    EXPECT_EQ("{}", ReadText("cache/shfe_base_2.json"));
    EXPECT_EQ(Filler(4096, 2), ReadText("cache/ine_base_1.json"));
    EXPECT_TRUE(Exists("cache/shfe_base_3.json"));
    EXPECT_EQ(0u, ReadText("cache/shfe_base_3.json").size());

    std::vector<std::string> names;
    worker->GetFiles(names);
    EXPECT_EQ((std::vector<std::string>{"ine_base_1.json", "shfe_base_1.json", "shfe_base_2.json",
                                        "shfe_base_3.json"}),
              names);
    std::vector<std::string> again;
    worker->GetFiles(again);
    EXPECT_TRUE(again.empty());
}

TEST_F(QxsfWorkerTest, VerifiedDownloadRecordsItsStampPerMarket) {
    Serve(ServerScript(), {File("shfe_base_1.json", "abc", {0x11, 0x22})});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    UPDFILETIME stamp = worker->GetFileTime("shfe");
    EXPECT_EQ(0x11, stamp.LowTime);
    EXPECT_EQ(0x22, stamp.HighTime);
    UPDFILETIME none = worker->GetFileTime("");
    EXPECT_EQ(0, none.LowTime);
}

TEST_F(QxsfWorkerTest, ListInSeveralPagesKeepsOnlyTheLastPage) {
    ServerScript script;
    script.pageSize = 2;
    Serve(script, {File("shfe_base_1.json", "a"), File("shfe_base_2.json", "b"), File("shfe_base_3.json", "c")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    EXPECT_EQ(std::vector<std::string>{"contract\\shfe_base_3.json"}, RequestedNames());
}

TEST_F(QxsfWorkerTest, OnlyBaseFilesOfTheListAreFetched) {
    ServerScript script;
    script.directory = "srv/data/";   // a trailing '/' becomes a backslash
    Serve(script, {File("shfe_option_1.json", "x"), File("readme.txt", "y"), File("shfe_base_4.json", "z")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    EXPECT_EQ(std::vector<std::string>{"srv/data\\shfe_base_4.json"}, RequestedNames());
    EXPECT_FALSE(Exists("cache/shfe_option_1.json"));
}

TEST_F(QxsfWorkerTest, UpToDateCacheSendsNoRequest) {
    const std::string content = "{\"ContractData\":[]}";
    mkdir("cache", 0775);
    WriteText("cache/shfe_base_1.json", content);
    WriteText("cache/cache.ini", "[shfe]\nlowtime=100\nhightime=200\n");
    FakeFileServer& server = Serve(ServerScript(), {File("shfe_base_1.json", content, {100, 200})});
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    EXPECT_TRUE(FileRequests().empty());
    EXPECT_EQ(2u, server.Received().size());
    std::vector<std::string> names;
    worker->GetFiles(names);
    EXPECT_EQ(std::vector<std::string>{"shfe_base_1.json"}, names);
}

TEST_F(QxsfWorkerTest, CachedFileWithAnotherStampIsFetchedAgain) {
    const std::string content = "same bytes";
    mkdir("cache", 0775);
    WriteText("cache/shfe_base_1.json", content);
    WriteText("cache/cache.ini", "[shfe]\nlowtime=99\nhightime=200\n");
    Serve(ServerScript(), {File("shfe_base_1.json", content, {100, 200})});
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    EXPECT_EQ(1u, FileRequests().size());
    EXPECT_EQ(100, worker->GetFileTime("shfe").LowTime);
    EXPECT_EQ(content, ReadText("cache/shfe_base_1.json"));
}

TEST_F(QxsfWorkerTest, CachedFileOfAnotherSizeOrDigestIsReplaced) {
    mkdir("cache", 0775);
    WriteText("cache/shfe_base_1.json", "old contents, longer than new");
    WriteText("cache/shfe_base_2.json", "XYZ");
    WriteText("cache/cache.ini", "[shfe]\nlowtime=100\nhightime=200\n");
    Serve(ServerScript(), {File("shfe_base_1.json", "new"), File("shfe_base_2.json", "abc")});
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    EXPECT_EQ(2u, FileRequests().size());
    EXPECT_EQ("new", ReadText("cache/shfe_base_1.json"));
    EXPECT_EQ("abc", ReadText("cache/shfe_base_2.json"));
}

TEST_F(QxsfWorkerTest, BlocksArrivingOutOfOrderArePlacedByOffset) {
    ServerScript script;
    script.splitSends = true;   // packages also arrive split over reads
    ServedFile f = File("shfe_base_1.json", Filler(3 * 4096 + 10, 5));
    f.blockOrder = {3, 1, 0, 2};
    Serve(script, {f});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    EXPECT_EQ(f.content, ReadText("cache/shfe_base_1.json"));
}

TEST_F(QxsfWorkerTest, NamesWithDirectoriesStayInsideTheCache) {
    Serve(ServerScript(), {File("../../escape_base_1.json", "e"), File("sub\\dir\\deep_base_1.json", "d")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    EXPECT_EQ("e", ReadText("cache/escape_base_1.json"));
    EXPECT_EQ("d", ReadText("cache/deep_base_1.json"));
    EXPECT_FALSE(Exists("escape_base_1.json"));
    EXPECT_FALSE(Exists("../escape_base_1.json"));
}

TEST(QxsfNames, LocalNameIsTheLastPathComponent) {
    EXPECT_EQ("a_base_1.json", CQXSFThread::LocalFileName("dir\\a_base_1.json"));
    EXPECT_EQ("a_base_1.json", CQXSFThread::LocalFileName("x/y\\a_base_1.json"));
    EXPECT_EQ("", CQXSFThread::LocalFileName("dir\\.."));
    EXPECT_EQ("", CQXSFThread::LocalFileName("."));
    EXPECT_EQ("", CQXSFThread::LocalFileName("dir/"));
    EXPECT_EQ("...", CQXSFThread::LocalFileName("..."));
}

TEST(QxsfNames, MarketOfABaseFileIsLowerCased) {
    EXPECT_EQ("shfe", CQXSFThread::GetMkt("SHFE_base_12.json"));
    EXPECT_EQ("", CQXSFThread::GetMkt("SHFE_option_12.json"));
    EXPECT_EQ("", CQXSFThread::GetMkt("SHFE_base.json"));
    EXPECT_EQ("", CQXSFThread::GetMkt("_base_1.json"));
    EXPECT_EQ("", CQXSFThread::GetMkt(nullptr));
}

// ---- failures ---------------------------------------------------------------

TEST_F(QxsfWorkerTest, DigestMismatchEndsTheWorkerAndLeavesTheFile) {
    ServedFile f = File("shfe_base_1.json", "expected contents");
    f.corrupt = true;
    Serve(ServerScript(), {f, File("shfe_base_2.json", "never reached")});
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(65535, std::string("Client QXSF loadfile md5 error, load file") + kColon +
                               "./cache/shfe_base_1.json failed.");
    EXPECT_EQ(std::string("expected contents").size(), ReadText("cache/shfe_base_1.json").size());
    EXPECT_NE("expected contents", ReadText("cache/shfe_base_1.json"));
}

TEST_F(QxsfWorkerTest, ServerCloseEndsTheWorkerWithoutReconnecting) {
    ServerScript script;
    script.onLogin = Misbehaviour::Close;
    FakeFileServer& server = Serve(script, {});
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(4098, "isset error!");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1, server.Connections());
}

TEST_F(QxsfWorkerTest, PackageWithoutMarkIsAFramingError) {
    ServerScript script;
    script.onMarketList = Misbehaviour::BadHeadByte;
    Serve(script, {});
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(8195, "Client QXSF an error packet head appeard.");
}

TEST_F(QxsfWorkerTest, AnswerThatInflatesBeyondItsBufferFails) {
    ServerScript script;
    script.onMarketList = Misbehaviour::OversizedBody;
    Serve(script, {});
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(8195, "Client QXSF uncompress packet error.");
}

TEST_F(QxsfWorkerTest, UnknownTransferPartFails) {
    ServerScript script;
    script.onFileRequest = Misbehaviour::UnknownPart;
    Serve(script, {File("shfe_base_1.json", "x")});
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(8195, std::string("Client QXSF An exception packet appears when the file is downloaded") + kColon +
                              "./cache/shfe_base_1.json");
}

TEST_F(QxsfWorkerTest, ErrorNoticeIsReportedAndTheWorkGoesOn) {
    ServerScript script;
    script.onLogin = Misbehaviour::ErrorNotice;
    Serve(script, {File("shfe_base_1.json", "x")});
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    ExpectOnlyError(8195, "Client QXSF An reqerror packet appears");
}

TEST_F(QxsfWorkerTest, UnknownCommandIsSkippedSilently) {
    ServerScript script;
    script.onMarketList = Misbehaviour::UnknownCommand;
    Serve(script, {File("shfe_base_1.json", "x")});
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    EXPECT_TRUE(m_spi.Answers().empty());
}

TEST_F(QxsfWorkerTest, WithoutFileFrontTheWorkerReportsAndEnds) {
    WorkerPtr worker = Run();
    EXPECT_FALSE(worker->IsOver());
    ExpectOnlyError(4099, "qxsf connected faild!");
}

TEST_F(QxsfWorkerTest, ConnectsToTheOnlyListeningFrontOfThree) {
    AddFront(FakeFileServer::UnusedPort());
    AddFront(FakeFileServer::UnusedPort());
    Serve(ServerScript(), {});   // third front
    ASSERT_EQ(3u, CQXSFThread::FrontCount());
    WorkerPtr worker = Run();
    EXPECT_TRUE(worker->IsOver());
    EXPECT_TRUE(m_spi.Answers().empty());
    EXPECT_TRUE(CQXSFThread::Fronts()[2].usable);
}

TEST_F(QxsfWorkerTest, ReleaseDuringADownloadStopsPromptly) {
    ServerScript script;
    script.onFileRequest = Misbehaviour::Stall;
    FakeFileServer& server = Serve(script, {File("shfe_base_1.json", Filler(9000, 3))});
    WorkerPtr worker = Start({"SHFE"});
    ASSERT_TRUE(server.WaitFor(
        [](const std::vector<Package>& r) { return !r.empty() && r.back().head.Command == QXSF_CMD_FILE; }, 10000));
    EXPECT_FALSE(worker->IsExit());
    auto before = std::chrono::steady_clock::now();
    worker.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_TRUE(WaitUntil([&] { return server.ClientClosed(); }, 5000));
    EXPECT_TRUE(m_spi.Answers().empty());
}

// ---- contract files -----------------------------------------------------------

TEST_F(QxsfWorkerTest, ContractFilesBecomeInstrumentRecords) {
    WriteText("OrvexWiraMdApi.def", "[MARKET]\nSHFE=[\"shfe\",\"ine\"]\n");
    const std::string shfe =
        "{\"ContractData\":[{\"2\":\"cu1705\",\"4\":20170315,\"5\":0,\"13\":5.5,\"2017\":1,\"2018\":-3,\"99\":\"x\"},"
        "{\"2\":\"cu1705\",\"4\":1},"
        "{\"2\":\"al1705\"},"
        "7]}";
    const std::string ine = "{\"ContractData\":[{\"2\":\"sc1801\",\"13\":2}]}";
    Serve(ServerScript(), {File("shfe_base_1.json", shfe), File("ine_base_1.json", ine),
                           File("dce_base_1.json", "{\"ContractData\":[{\"2\":\"m1705\"}]}")});
    WorkerPtr worker = Run({"SHFE"});
    ASSERT_TRUE(worker->IsOver());

    QxsfContractMap out;
    worker->LoadMktField(out);
    EXPECT_TRUE(m_spi.Answers().empty());
    ASSERT_EQ(1u, out.size());   // the unrequested market is skipped
    const auto& records = out["SHFE"];
    ASSERT_EQ(3u, records.size());
    const COrvexWiraInstrumentField& cu = records.at("cu1705");
    EXPECT_STREQ("cu1705", cu.InstrumentID);
    EXPECT_STREQ("20170315", cu.Text4);   // the first record of a code wins
    EXPECT_STREQ("", cu.Text5);
    EXPECT_DOUBLE_EQ(5.5, cu.Number13);
    EXPECT_STREQ("1", cu.Text2017);
    EXPECT_STREQ("-3", cu.Text2018);
    EXPECT_STREQ("", cu.ExchangeID);
    const COrvexWiraInstrumentField& al = records.at("al1705");
    EXPECT_DOUBLE_EQ(0.0, al.Number13);
    EXPECT_STREQ("", al.Text4);
    EXPECT_DOUBLE_EQ(2.0, records.at("sc1801").Number13);

    QxsfContractMap again;
    worker->LoadMktField(again);
    EXPECT_TRUE(again.empty());   // each file is handed out once
}

TEST_F(QxsfWorkerTest, ContractFileThatIsNotJsonIsReported) {
    Serve(ServerScript(), {File("shfe_base_1.json", "this is not json"),
                           File("shfe_base_2.json", "{\"ContractData\":{\"2\":\"cu1705\"}}"),
                           File("shfe_base_3.json", "{\"Other\":[]}")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    QxsfContractMap out;
    worker->LoadMktField(out);
    auto answers = m_spi.Answers();
    ASSERT_EQ(2u, answers.size());   // not JSON, and no "ContractData"; an object is skipped quietly
    for (const auto& a : answers) {
        EXPECT_EQ(0, a.errorId);
        EXPECT_EQ("read file error!", a.message);
        EXPECT_TRUE(a.isLast);
        EXPECT_FALSE(a.hasRecord);
    }
    ASSERT_EQ(1u, out.size());
    EXPECT_TRUE(out["SHFE"].empty());
}

TEST_F(QxsfWorkerTest, ContractFileThatVanishedIsReportedWithoutLastFlag) {
    Serve(ServerScript(), {File("shfe_base_1.json", "{}")});
    WorkerPtr worker = Run();
    ASSERT_TRUE(worker->IsOver());
    ASSERT_EQ(0, std::remove("cache/shfe_base_1.json"));
    QxsfContractMap out;
    worker->LoadMktField(out);
    auto answers = m_spi.Answers();
    ASSERT_EQ(1u, answers.size());
    EXPECT_EQ(1, answers[0].errorId);
    EXPECT_EQ("open ./cache/shfe_base_1.json error!", answers[0].message);
    EXPECT_FALSE(answers[0].isLast);
}

// ---- cache pruning --------------------------------------------------------------

TEST_F(QxsfWorkerTest, PruningDependsOnDirectoryOrder) {
    mkdir("cache", 0775);
    const int kMarkets = 12;
    for (int m = 0; m < kMarkets; ++m) {
        WriteText("cache/m" + std::to_string(m) + "_base_1.json", "1");
        WriteText("cache/m" + std::to_string(m) + "_base_2.json", "2");
    }
    WriteText("cache/m0_option_5.json", "o");
    WriteText("cache/cache.ini", "[m0]\n");
    WriteText("cache/notes.txt", "n");

    // The outcome follows the order in which the directory lists the files:
    // file 1 goes only when it is met after file 2.
    std::vector<std::string> order;
    DIR* dir = opendir("cache");
    ASSERT_NE(nullptr, dir);
    while (dirent* e = readdir(dir)) order.push_back(e->d_name);
    closedir(dir);
    auto position = [&](const std::string& name) {
        for (size_t i = 0; i < order.size(); ++i)
            if (order[i] == name) return i;
        return order.size();
    };

    CQXSFThread::CheckLocalFile();

    for (int m = 0; m < kMarkets; ++m) {
        std::string one = "m" + std::to_string(m) + "_base_1.json";
        std::string two = "m" + std::to_string(m) + "_base_2.json";
        EXPECT_TRUE(Exists("cache/" + two)) << two;
        EXPECT_EQ(position(one) < position(two), Exists("cache/" + one)) << one;
    }
    EXPECT_FALSE(Exists("cache/m0_option_5.json"));
    EXPECT_TRUE(Exists("cache/cache.ini"));
    EXPECT_TRUE(Exists("cache/notes.txt"));
}

}  // namespace
