// The file-service worker against a fake file server: login and upload,
// list handling, downloads into the cache, failures, contract loading and
// cache pruning. Each test runs in a fresh temporary working directory,
// because the worker uses paths relative to it (./cache/, ./qxsfc_login.ini).
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sf/QXSFThread.h"
#include "support/FakeFileServer.h"
#include "support/RecordingSpi.h"

using orvex_test::ScopedTempDir;
using orvex_test::WaitUntil;
using qxsfsim::FakeFileServer;
using qxsfsim::Misbehaviour;
using qxsfsim::Package;
using qxsfsim::ServedFile;
using qxsfsim::ServerScript;

namespace {

const char kColon[] = "\xA3\xBA";   // full-width colon of the server's messages

struct WorkerDeleter {
    void operator()(CQXSFThread* worker) const { worker->Release(); }
};
typedef std::unique_ptr<CQXSFThread, WorkerDeleter> WorkerPtr;

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// Writes ./cache/<name> for each pair.
void Cache(const std::vector<std::pair<std::string, std::string>>& files) {
    std::filesystem::create_directory("cache");
    for (const auto& f : files) ScopedTempDir::Write("cache/" + f.first, f.second);
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

// Hands out the verified file names not handed out before.
std::vector<std::string> HandOut(CQXSFThread& worker) {
    std::vector<std::string> names;
    worker.GetFiles(names);
    return names;
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
        ASSERT_TRUE(std::filesystem::is_empty("."));   // inside the fresh directory
        ScopedTempDir::Write("qxsfc_login.ini", "[LoginInfo]\nUser=trader\nPassword=pw123\n");
        CQXSFThread::ClearFronts();
        m_query.nRequestID = 42;
    }

    void TearDown() override {
        m_server.reset();
        CQXSFThread::ClearFronts();
    }

    FakeFileServer& Serve(const std::vector<ServedFile>& files, const ServerScript& script = ServerScript()) {
        m_server.reset(new FakeFileServer());
        m_server->SetScript(script);
        for (const ServedFile& f : files) m_server->AddFile(f);
        EXPECT_TRUE(m_server->Start());
        AddFront(m_server->Port());
        return *m_server;
    }

    static void AddFront(uint16_t port) { CQXSFThread::AddFront(_FrontInfo{true, "127.0.0.1", port, true}); }

    WorkerPtr Start(const std::vector<std::string>& markets) {
        WorkerPtr worker(new CQXSFThread("", &m_query, markets));
        worker->RegisterSpi(&m_spi);
        worker->Init();
        return worker;
    }

    // Runs a worker to its end; over: whether it is to have fetched everything.
    WorkerPtr Run(bool over, const std::vector<std::string>& markets = {"SHFE"}) {
        WorkerPtr worker = Start(markets);
        EXPECT_TRUE(WaitUntil([&] { return worker->IsExit(); }, 10000)) << "worker did not end";
        EXPECT_EQ(over, worker->IsOver());
        return worker;
    }

    // Runs a worker against a server that misbehaves at one step.
    void RunAgainst(Misbehaviour ServerScript::*step, Misbehaviour what, const std::vector<ServedFile>& files,
                    bool over) {
        ServerScript script;
        script.*step = what;
        Serve(files, script);
        Run(over);
    }

    std::vector<orvex_test::InstrumentAnswer> Answers() { return m_spi.Copy(m_spi.instruments); }

    std::vector<_GetFileReq> FileRequests() const {
        std::vector<_GetFileReq> out;
        for (const Package& p : m_server->ReceivedWithCommand(QXSF_CMD_FILE)) {
            out.emplace_back();
            qxsfsim::from_stream(out.back(), p.body.data(), static_cast<int>(p.body.size()));
        }
        return out;
    }

    // Paths of the file requests, sorted.
    std::vector<std::string> RequestedNames() const {
        std::vector<std::string> names;
        for (const _GetFileReq& req : FileRequests()) names.push_back(req.FilePath);
        std::sort(names.begin(), names.end());
        return names;
    }

    void ExpectOnlyError(int code, const std::string& message) {
        auto answers = Answers();
        ASSERT_EQ(1u, answers.size());
        EXPECT_FALSE(answers[0].hasRecord);
        EXPECT_EQ(code, answers[0].info.ErrorID);
        EXPECT_EQ(message.substr(0, 80), answers[0].info.ErrorMsg);   // the record holds 80 characters
        EXPECT_EQ(42, answers[0].requestId);
        EXPECT_TRUE(answers[0].isLast);
    }

    ScopedTempDir m_tmp;   // first member: left last, after the server has stopped
    _QryInstrumentInfo m_query{};
    orvex_test::RecordingSpi m_spi;
    std::unique_ptr<FakeFileServer> m_server;
};

// ---- session: login and upload ---------------------------------------------

TEST_F(QxsfWorkerTest, LogsInAndUploadsTheMarketsOfTheQuery) {
    // A JSON array stands for several codes; an entry that is not an array
    // is left out with a message; a name without an entry is sent as it is,
    // cut to 11 bytes.
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[MARKET]\nDCE={\"a\":1}\nSHFE=[\"shfe\",\"ine\"]\nCZCE=not json\n");
    FakeFileServer& server = Serve({});
    testing::internal::CaptureStderr();
    Run(true, {"DCE", "SHFE", "CZCE", "CFFEX", "GFEX_LONG_NAME_X"});
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("get qxsfmkt data err!"));
    EXPECT_TRUE(Answers().empty());

    auto received = server.Received();
    ASSERT_EQ(2u, received.size());
    const Package& login = received[0];
    EXPECT_EQ(QXSF_CMD_LOGIN, login.head.Command);
    EXPECT_EQ(0, login.head.Flags);
    ASSERT_EQ(126u, login.wireBody.size());
    // User, password, flag 0, version, name, type 0, kind 1, then zeros;
    // only the client port (bytes 106-107) is left unchecked.
    std::string expected(126, '\0');
    expected.replace(0, 6, "trader").replace(32, 5, "pw123").replace(68, 7, "1.0.0.1").replace(76, 5, "QXSFC");
    expected[85] = 1;
    std::string sent(login.wireBody.data(), 126);
    sent.replace(106, 2, 2, '\0');
    EXPECT_EQ(expected, sent);

    EXPECT_EQ(QXSF_CMD_MKTLIST, received[1].head.Command);
    qxsfsim::MarketList markets;
    ASSERT_TRUE(qxsfsim::DecodeMarketList(received[1].body, markets));
    EXPECT_EQ((std::vector<std::string>{"shfe", "ine", "CFFEX", "GFEX_LONG_N"}), markets.codes);
}

// ---- downloads and the cache ----------------------------------------------

TEST_F(QxsfWorkerTest, InstantServerDeliversEveryQueuedFileAndRecordsStamps) {
    // The server answers each request at once, so a request completes before
    // the next one is sent; the worker must still fetch them all.
    ServerScript script;
    script.compress = true;
    const std::string big = Filler(10000, 1);
    FakeFileServer& server = Serve({File("shfe_base_1.json", big, {7, 8}), File("shfe_base_2.json", "{}"),
                                    File("ine_base_1.json", Filler(4096, 2), {0x11, 0x22}),
                                    File("shfe_base_3.json", "")},
                                   script);
    WorkerPtr worker = Run(true);
    EXPECT_TRUE(Answers().empty());
    // Every request takes the next handle: login, list, then the files.
    std::vector<unsigned short> handles;
    for (const Package& p : server.Received()) handles.push_back(p.head.Handle);
    EXPECT_EQ((std::vector<unsigned short>{1, 2, 3, 4, 5, 6}), handles);
    EXPECT_EQ((std::vector<std::string>{"contract\\ine_base_1.json", "contract\\shfe_base_1.json",
                                        "contract\\shfe_base_2.json", "contract\\shfe_base_3.json"}),
              RequestedNames());
    for (const _GetFileReq& req : FileRequests()) {
        EXPECT_EQ(2, req.RequestType);
        EXPECT_EQ(0, req.Offset);
    }
    EXPECT_EQ(big, ReadText("cache/shfe_base_1.json"));
    EXPECT_EQ("{}", ReadText("cache/shfe_base_2.json"));
    EXPECT_EQ(Filler(4096, 2), ReadText("cache/ine_base_1.json"));
    EXPECT_TRUE(Exists("cache/shfe_base_3.json"));
    EXPECT_EQ(0u, ReadText("cache/shfe_base_3.json").size());

    // A verified download records its stamp under its market.
    UPDFILETIME stamp = worker->GetFileTime("ine");
    EXPECT_EQ(0x11, stamp.LowTime);
    EXPECT_EQ(0x22, stamp.HighTime);
    EXPECT_EQ(0, worker->GetFileTime("").LowTime);

    EXPECT_EQ((std::vector<std::string>{"ine_base_1.json", "shfe_base_1.json", "shfe_base_2.json",
                                        "shfe_base_3.json"}),
              HandOut(*worker));
    EXPECT_TRUE(HandOut(*worker).empty());
}

TEST_F(QxsfWorkerTest, OnlyBaseFilesOfTheLastListPageAreFetched) {
    ServerScript script;
    script.pageSize = 3;                // pages: three base files, then the rest
    script.directory = "srv/data/";     // a trailing '/' becomes a backslash
    Serve({File("shfe_base_1.json", "a"), File("shfe_base_2.json", "b"), File("shfe_base_3.json", "c"),
           File("shfe_option_1.json", "x"), File("readme.txt", "y"), File("shfe_base_4.json", "z")},
          script);
    Run(true);
    EXPECT_EQ(std::vector<std::string>{"srv/data\\shfe_base_4.json"}, RequestedNames());
    EXPECT_FALSE(Exists("cache/shfe_option_1.json"));
}

TEST_F(QxsfWorkerTest, CachedFilesAreFetchedAgainUnlessStampSizeAndDigestAllMatch) {
    const std::string content = "{\"ContractData\":[]}";
    Cache({{"shfe_base_1.json", content},                       // up to date
           {"ine_base_1.json", "same bytes"},                   // another stamp
           {"dce_base_1.json", "old contents, longer than new"},   // another size
           {"dce_base_2.json", "XYZ"},                          // another digest
           {"cache.ini", "[shfe]\nlowtime=100\nhightime=200\n[ine]\nlowtime=99\nhightime=200\n"
                         "[dce]\nlowtime=100\nhightime=200\n"}});
    const std::vector<ServedFile> served = {File("shfe_base_1.json", content), File("ine_base_1.json", "same bytes"),
                                            File("dce_base_1.json", "new"), File("dce_base_2.json", "abc")};
    const std::vector<std::string> all = {"dce_base_1.json", "dce_base_2.json", "ine_base_1.json", "shfe_base_1.json"};
    Serve(served);
    WorkerPtr worker = Run(true);
    EXPECT_EQ((std::vector<std::string>{"contract\\dce_base_1.json", "contract\\dce_base_2.json",
                                        "contract\\ine_base_1.json"}),
              RequestedNames());
    EXPECT_EQ(100, worker->GetFileTime("ine").LowTime);
    EXPECT_EQ(content, ReadText("cache/shfe_base_1.json"));
    EXPECT_EQ("same bytes", ReadText("cache/ine_base_1.json"));
    EXPECT_EQ("new", ReadText("cache/dce_base_1.json"));
    EXPECT_EQ("abc", ReadText("cache/dce_base_2.json"));
    EXPECT_EQ(all, HandOut(*worker));

    // A second worker finds everything current: login and list only.
    CQXSFThread::ClearFronts();
    Serve(served);
    worker = Run(true);
    EXPECT_EQ(2u, m_server->Received().size());
    EXPECT_EQ(all, HandOut(*worker));
}

TEST_F(QxsfWorkerTest, SplitOutOfOrderBlocksAndPathNamesLandInsideTheCache) {
    ServerScript script;
    script.splitSends = true;   // packages also arrive split over reads
    ServedFile f = File("shfe_base_1.json", Filler(3 * 4096 + 10, 5));
    f.blockOrder = {3, 1, 0, 2};   // placed by offset
    Serve({f, File("../../escape_base_1.json", "e"), File("sub\\dir\\deep_base_1.json", "d")}, script);
    Run(true);
    EXPECT_EQ(f.content, ReadText("cache/shfe_base_1.json"));
    EXPECT_EQ("e", ReadText("cache/escape_base_1.json"));
    EXPECT_EQ("d", ReadText("cache/deep_base_1.json"));
    EXPECT_FALSE(Exists("escape_base_1.json"));
    EXPECT_FALSE(Exists("../escape_base_1.json"));
}

TEST(QxsfNames, LocalNameAndMarketOfAFileName) {
    // The last path component; empty when that is empty, "." or "..".
    const std::pair<const char*, const char*> local[] = {
        {"dir\\a_base_1.json", "a_base_1.json"}, {"x/y\\a_base_1.json", "a_base_1.json"},
        {"dir\\..", ""}, {".", ""}, {"dir/", ""}, {"...", "..."}};
    for (const auto& c : local) EXPECT_EQ(c.second, CQXSFThread::LocalFileName(c.first)) << "case " << c.first;
    // The lower-cased market of a "base" file; empty for any other name.
    const std::pair<const char*, const char*> market[] = {
        {"SHFE_base_12.json", "shfe"}, {"SHFE_option_12.json", ""}, {"SHFE_base.json", ""}, {"_base_1.json", ""}};
    for (const auto& c : market) EXPECT_EQ(c.second, CQXSFThread::GetMkt(c.first)) << "case " << c.first;
    EXPECT_EQ("", CQXSFThread::GetMkt(nullptr));
}

// ---- failures ---------------------------------------------------------------

// Descriptors this process has open.
int OpenDescriptors() {
    int n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++n;
    }
    return n;
}

TEST_F(QxsfWorkerTest, EveryEndOfATransferClosesItsFiles) {
    // Worker and server of each ending are gone before the count.
    const int before = OpenDescriptors();
    struct Ending {
        Misbehaviour onFile;
        bool corrupt;
    } endings[] = {{Misbehaviour::None, false},
                   {Misbehaviour::None, true},   // digest mismatch
                   {Misbehaviour::UnknownPart, false},
                   {Misbehaviour::HugeFile, false}};
    for (const Ending& e : endings) {
        ServedFile f = File("shfe_base_1.json", std::string(9000, 'c'));
        f.corrupt = e.corrupt;
        CQXSFThread::ClearFronts();
        ServerScript script;
        script.onFileRequest = e.onFile;
        Serve({f}, script);
        {
            WorkerPtr worker = Start({"SHFE"});
            ASSERT_TRUE(WaitUntil([&] { return worker->IsExit(); }, 10000));
        }
        m_server.reset();
        EXPECT_EQ(before, OpenDescriptors()) << "ending " << static_cast<int>(e.onFile) << (e.corrupt ? " corrupt" : "");
    }
}

TEST_F(QxsfWorkerTest, DigestMismatchEndsTheWorkerAndLeavesTheFile) {
    ServedFile f = File("shfe_base_1.json", "expected contents");
    f.corrupt = true;
    Serve({f, File("shfe_base_2.json", "never reached")});
    Run(false);
    ExpectOnlyError(65535, std::string("Client QXSF loadfile md5 error, load file") + kColon +
                               "./cache/shfe_base_1.json failed.");
    EXPECT_EQ(std::string("expected contents").size(), ReadText("cache/shfe_base_1.json").size());
    EXPECT_NE("expected contents", ReadText("cache/shfe_base_1.json"));
}

TEST_F(QxsfWorkerTest, ServerCloseEndsTheWorkerWithoutReconnecting) {
    RunAgainst(&ServerScript::onLogin, Misbehaviour::Close, {}, false);
    ExpectOnlyError(4098, "isset error!");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1, m_server->Connections());
}

TEST_F(QxsfWorkerTest, PackageWithoutMarkIsAFramingError) {
    RunAgainst(&ServerScript::onMarketList, Misbehaviour::BadHeadByte, {}, false);
    ExpectOnlyError(8195, "Client QXSF an error packet head appeard.");
}

TEST_F(QxsfWorkerTest, AnswerThatInflatesBeyondItsBufferFails) {
    RunAgainst(&ServerScript::onMarketList, Misbehaviour::OversizedBody, {}, false);
    ExpectOnlyError(8195, "Client QXSF uncompress packet error.");
}

TEST_F(QxsfWorkerTest, UnknownTransferPartFails) {
    RunAgainst(&ServerScript::onFileRequest, Misbehaviour::UnknownPart, {File("shfe_base_1.json", "x")}, false);
    ExpectOnlyError(8195, std::string("Client QXSF An exception packet appears when the file is downloaded") + kColon +
                              "./cache/shfe_base_1.json");
}

TEST_F(QxsfWorkerTest, ErrorNoticeIsReportedAndTheWorkGoesOn) {
    RunAgainst(&ServerScript::onLogin, Misbehaviour::ErrorNotice, {File("shfe_base_1.json", "x")}, true);
    ExpectOnlyError(8195, "Client QXSF An reqerror packet appears");
}

TEST_F(QxsfWorkerTest, UnknownCommandIsSkippedSilently) {
    RunAgainst(&ServerScript::onMarketList, Misbehaviour::UnknownCommand, {File("shfe_base_1.json", "x")}, true);
    EXPECT_TRUE(Answers().empty());
}

TEST_F(QxsfWorkerTest, WithoutFileFrontTheWorkerReportsAndEnds) {
    Run(false);
    ExpectOnlyError(4099, "qxsf connected faild!");
}

TEST_F(QxsfWorkerTest, FileLargerThanTheLimitIsRefusedAndNothingIsWritten) {
    RunAgainst(&ServerScript::onFileRequest, Misbehaviour::HugeFile, {File("shfe_base_1.json", "x")}, false);
    ASSERT_EQ(1u, Answers().size());
    EXPECT_EQ(8195, Answers()[0].info.ErrorID);
    EXPECT_NE(std::string::npos, std::string(Answers()[0].info.ErrorMsg).find("too large")) << Answers()[0].info.ErrorMsg;
    EXPECT_NE(0, access("cache/shfe_base_1.json", F_OK));

    // The limit is a setting: a file of 100 bytes against a limit of 10.
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[config]\nmaxfilesize=10\n");
    m_spi.instruments.clear();
    CQXSFThread::ClearFronts();
    RunAgainst(&ServerScript::onFileRequest, Misbehaviour::None, {File("shfe_base_1.json", std::string(100, 'y'))},
               false);
    ASSERT_EQ(1u, Answers().size());
    EXPECT_NE(std::string::npos, std::string(Answers()[0].info.ErrorMsg).find("limit 10")) << Answers()[0].info.ErrorMsg;
    EXPECT_NE(0, access("cache/shfe_base_1.json", F_OK));
}

TEST_F(QxsfWorkerTest, FrontWhoseHostDoesNotResolveIsAFailedAttempt) {
    // The server listens on the port the front names; a connect to the zero
    // address would reach it.
    m_server.reset(new FakeFileServer());
    ASSERT_TRUE(m_server->Start());
    CQXSFThread::AddFront(_FrontInfo{true, "no-such-host.invalid", m_server->Port(), true});
    Run(false);
    ExpectOnlyError(4099, "qxsf connected faild!");
    EXPECT_EQ(0, m_server->Connections());
}

TEST_F(QxsfWorkerTest, ConnectsToTheOnlyListeningFrontOfThree) {
    AddFront(FakeFileServer::UnusedPort());
    AddFront(FakeFileServer::UnusedPort());
    Serve({});   // third front
    ASSERT_EQ(3u, CQXSFThread::FrontCount());
    Run(true);
    EXPECT_TRUE(Answers().empty());
    EXPECT_TRUE(CQXSFThread::Fronts()[2].usable);
}

TEST_F(QxsfWorkerTest, ReleaseDuringADownloadStopsPromptly) {
    ServerScript script;
    script.onFileRequest = Misbehaviour::Stall;
    FakeFileServer& server = Serve({File("shfe_base_1.json", Filler(9000, 3))}, script);
    WorkerPtr worker = Start({"SHFE"});
    ASSERT_TRUE(server.WaitFor(
        [](const std::vector<Package>& r) { return !r.empty() && r.back().head.Command == QXSF_CMD_FILE; }, 10000));
    EXPECT_FALSE(worker->IsExit());
    auto before = std::chrono::steady_clock::now();
    worker.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_TRUE(WaitUntil([&] { return server.ClientClosed(); }, 5000));
    EXPECT_TRUE(Answers().empty());
}

// ---- contract files -----------------------------------------------------------

TEST_F(QxsfWorkerTest, ContractFilesBecomeInstrumentRecords) {
    ScopedTempDir::Write("OrvexWiraMdApi.def", "[MARKET]\nSHFE=[\"shfe\",\"ine\"]\n");
    const std::string shfe =
        "{\"ContractData\":[{\"2\":\"cu1705\",\"4\":20170315,\"5\":0,\"13\":5.5,\"2017\":1,\"2018\":-3,\"99\":\"x\"},"
        "{\"2\":\"cu1705\",\"4\":1},"
        "{\"2\":\"al1705\"},"
        "7]}";
    const std::string ine = "{\"ContractData\":[{\"2\":\"sc1801\",\"13\":2}]}";
    Serve({File("shfe_base_1.json", shfe), File("ine_base_1.json", ine),
           File("dce_base_1.json", "{\"ContractData\":[{\"2\":\"m1705\"}]}")});
    WorkerPtr worker = Run(true);

    QxsfContractMap out;
    worker->LoadMktField(out);
    EXPECT_TRUE(Answers().empty());
    ASSERT_EQ(1u, out.size());   // the unrequested market is skipped
    const auto& records = out["SHFE"];
    ASSERT_EQ(3u, records.size());
    // The first record of a code wins; a zero integer leaves its text empty.
    const COrvexWiraInstrumentField& cu = records.at("cu1705");
    EXPECT_EQ((std::vector<std::string>{"cu1705", "20170315", "", "1", "-3", ""}),
              (std::vector<std::string>{cu.InstrumentID, cu.Text4, cu.Text5, cu.Text2017, cu.Text2018, cu.ExchangeID}));
    EXPECT_DOUBLE_EQ(5.5, cu.Number13);
    const COrvexWiraInstrumentField& al = records.at("al1705");
    EXPECT_DOUBLE_EQ(0.0, al.Number13);
    EXPECT_STREQ("", al.Text4);
    EXPECT_DOUBLE_EQ(2.0, records.at("sc1801").Number13);

    QxsfContractMap again;
    worker->LoadMktField(again);
    EXPECT_TRUE(again.empty());   // each file is handed out once
}

TEST_F(QxsfWorkerTest, UnreadableContractFilesAreReported) {
    Serve({File("shfe_base_1.json", "this is not json"),
           File("shfe_base_2.json", "{\"ContractData\":{\"2\":\"cu1705\"}}"),
           File("shfe_base_3.json", "{\"Other\":[]}"), File("shfe_base_4.json", "{}")});
    WorkerPtr worker = Run(true);
    ASSERT_EQ(0, std::remove("cache/shfe_base_4.json"));   // vanished after the download
    QxsfContractMap out;
    worker->LoadMktField(out);
    auto answers = Answers();
    // Files load in name order: not JSON, an object (skipped quietly), no
    // "ContractData", then the vanished file, reported without the last flag.
    ASSERT_EQ(3u, answers.size());
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(0, answers[i].info.ErrorID);
        EXPECT_STREQ("read file error!", answers[i].info.ErrorMsg);
        EXPECT_TRUE(answers[i].isLast);
        EXPECT_FALSE(answers[i].hasRecord);
    }
    EXPECT_EQ(1, answers[2].info.ErrorID);
    EXPECT_STREQ("open ./cache/shfe_base_4.json error!", answers[2].info.ErrorMsg);
    EXPECT_FALSE(answers[2].isLast);
    ASSERT_EQ(1u, out.size());
    EXPECT_TRUE(out["SHFE"].empty());
}

// ---- cache pruning --------------------------------------------------------------

TEST_F(QxsfWorkerTest, PruningDependsOnDirectoryOrder) {
    const int kMarkets = 12;
    auto base = [](int m, int n) { return "m" + std::to_string(m) + "_base_" + std::to_string(n) + ".json"; };
    for (int m = 0; m < kMarkets; ++m) Cache({{base(m, 1), "1"}, {base(m, 2), "2"}});
    Cache({{"m0_option_5.json", "o"}, {"cache.ini", "[m0]\n"}, {"notes.txt", "n"}});

    // The outcome follows the order in which the directory lists the files:
    // file 1 goes only when it is met after file 2.
    std::vector<std::string> order;
    DIR* dir = opendir("cache");
    ASSERT_NE(nullptr, dir);
    while (dirent* e = readdir(dir)) order.push_back(e->d_name);
    closedir(dir);
    auto position = [&](const std::string& name) { return std::find(order.begin(), order.end(), name); };

    CQXSFThread::CheckLocalFile();

    for (int m = 0; m < kMarkets; ++m) {
        EXPECT_TRUE(Exists("cache/" + base(m, 2))) << base(m, 2);
        EXPECT_EQ(position(base(m, 1)) < position(base(m, 2)), Exists("cache/" + base(m, 1))) << base(m, 1);
    }
    EXPECT_FALSE(Exists("cache/m0_option_5.json"));
    EXPECT_TRUE(Exists("cache/cache.ini"));
    EXPECT_TRUE(Exists("cache/notes.txt"));
}

}  // namespace
