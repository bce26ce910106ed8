// The quote and file sessions of the simulator, without sockets: the bytes a
// client would send go in, the answers are cut into frames and packages and
// read field by field.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <set>

#include "FileSession.h"
#include "Market.h"
#include "SimClock.h"
#include "QuoteSession.h"
#include "codec/DataPackage.h"
#include "codec/PackageRecord.h"
#include "protocol/DcFrames.h"
#include "protocol/SampleTemplates.h"
#include "protocol/QxsfServerCodec.h"

using namespace qxsim;
using orvex_test::BuildDcFrame;
using orvex_test::CutDcFrames;
using orvex_test::DcFrame;

namespace {

template <class T>
T Rd(const std::string& s, size_t offset) {
    T v{};
    if (offset + sizeof(T) <= s.size()) std::memcpy(&v, s.data() + offset, sizeof(T));
    return v;
}

// Values of one width at several offsets.
template <class T>
std::vector<T> Rds(const std::string& s, std::initializer_list<size_t> offsets) {
    std::vector<T> out;
    for (size_t offset : offsets) out.push_back(Rd<T>(s, offset));
    return out;
}

std::string LoginBody(uint16_t handle, const std::string& user, const std::string& password) {
    std::string body(256, '\0');
    std::memcpy(&body[0], &handle, 2);
    std::memcpy(&body[2], user.data(), user.size());
    std::memcpy(&body[34], password.data(), password.size());
    return body;
}

std::string MarketRequest(uint16_t market, size_t length) {
    std::string body(length, '\0');
    std::memcpy(&body[2], &market, 2);
    return body;
}

class QuoteSessionTest : public ::testing::Test {
protected:
    QuoteSessionTest() : market(Config(), Morning()) {}
    static MarketConfig Config() {
        MarketConfig c;
        c.instruments = 150;
        c.rate = 1000;
        return c;
    }
    std::vector<DcFrame> Exchange(QuoteSession& s, int command, const std::string& body) {
        const std::string frame = BuildDcFrame(command, body);
        s.OnReceive(frame.data(), frame.size());
        std::string out = s.TakeOutput();
        // Every frame the library can take: body and inflated body within 4092 bytes.
        for (size_t pos = 0; pos + 4 <= out.size();) {
            const uint16_t length = Rd<uint16_t>(out, pos + 2);
            EXPECT_EQ('@', out[pos]);
            EXPECT_LE(length, 4092);
            pos += 4u + length;
        }
        std::vector<DcFrame> frames = CutDcFrames(out);
        EXPECT_TRUE(out.empty());
        for (const DcFrame& f : frames) EXPECT_LE(f.body.size(), 4092u);
        return frames;
    }
    void Login(QuoteSession& s) {
        std::vector<DcFrame> f = Exchange(s, 83, LoginBody(7, "trader", "secret"));
        ASSERT_EQ(1u, f.size());
        ASSERT_TRUE(s.LoggedIn());
    }

    Market market;
    QuoteSession s{market, QuoteOptions()};   // a session with the default options
};

}  // namespace

TEST_F(QuoteSessionTest, SecondFormLoginAnswerCarriesTheAccessList) {
    std::vector<DcFrame> f = Exchange(s, 83, LoginBody(7, "trader", "secret"));
    ASSERT_EQ(1u, f.size());
    EXPECT_EQ(83, f[0].command);
    const std::string& b = f[0].body;
    ASSERT_EQ(512u + 4 + 4 * 6, b.size());
    // Handle, code, the first and the last market of the list; flags, count.
    EXPECT_EQ(Rds<uint16_t>(b, {0, 2, 516, 516 + 18}), (std::vector<uint16_t>{7, 0, 2001, 2301}));
    EXPECT_EQ(Rds<uint32_t>(b, {268, 512}), (std::vector<uint32_t>{1, 4}));
    EXPECT_EQ(-1, Rd<int32_t>(b, 518));   // all groups of the first
    EXPECT_EQ("trader", s.User());
}

TEST_F(QuoteSessionTest, FirstFormLoginAnswerListsTheMarkets) {
    QuoteOptions options;
    options.loginForm = 1;
    QuoteSession first(market, options);
    std::vector<DcFrame> f = Exchange(first, 83, LoginBody(3, "trader", "x"));
    ASSERT_EQ(1u, f.size());
    EXPECT_EQ(82, f[0].command);
    ASSERT_EQ(492u, f[0].body.size());
    // Handle, then the markets and an empty slot.
    EXPECT_EQ(Rds<uint16_t>(f[0].body, {0, 12, 14, 16, 18, 20}), (std::vector<uint16_t>{3, 2001, 2101, 2201, 2301, 0}));
}

TEST_F(QuoteSessionTest, WrongPasswordIsRefusedWithCode9AndNothingElseIsAnswered) {
    QuoteOptions options;
    options.user = "trader";
    options.password = "right";
    QuoteSession guarded(market, options);
    std::vector<DcFrame> f = Exchange(guarded, 83, LoginBody(1, "trader", "wrong"));
    ASSERT_EQ(1u, f.size());
    EXPECT_EQ(9, Rd<uint16_t>(f[0].body, 2));
    EXPECT_EQ(0u, Rd<uint32_t>(f[0].body, 268));
    EXPECT_FALSE(guarded.LoggedIn());
    EXPECT_TRUE(Exchange(guarded, 2, MarketRequest(0, 4)).empty());
}

TEST_F(QuoteSessionTest, MarketStatusComesInPacketsThatAddUp) {
    Login(s);
    std::vector<DcFrame> f = Exchange(s, 2, MarketRequest(0, 4));
    ASSERT_EQ(2u, f.size());
    std::set<uint16_t> ids;
    for (const DcFrame& p : f) {
        EXPECT_EQ(2, p.command);
        EXPECT_EQ(4, Rd<uint16_t>(p.body, 2));
        const uint16_t rows = Rd<uint16_t>(p.body, 4);
        ASSERT_EQ(8u + 16u * rows, p.body.size());
        for (uint16_t r = 0; r < rows; ++r) {
            ids.insert(Rd<uint16_t>(p.body, 8 + 16 * r));
            EXPECT_EQ(20241203u, Rd<uint32_t>(p.body, 8 + 16 * r + 2));
            EXPECT_EQ(kStatusTrading, Rd<uint8_t>(p.body, 8 + 16 * r + 6));
        }
    }
    EXPECT_EQ(std::make_pair(0, 2), std::make_pair(int{Rd<uint16_t>(f[0].body, 6)}, int{Rd<uint16_t>(f[1].body, 6)}));
    EXPECT_EQ((std::set<uint16_t>{2001, 2101, 2201, 2301}), ids);
}

TEST_F(QuoteSessionTest, NameTablesAndSnapshotsCoverEveryInstrument) {
    Login(s);
    std::map<uint16_t, std::set<std::string>> names;
    std::vector<DcFrame> f = Exchange(s, 1, MarketRequest(0, 14));
    for (const DcFrame& p : f) {
        ASSERT_EQ(1, p.command);
        const uint16_t id = Rd<uint16_t>(p.body, 6);
        const uint16_t rows = Rd<uint16_t>(p.body, 18);
        EXPECT_LE(rows, 40);
        ASSERT_EQ(22u + 84u * rows, p.body.size());
        EXPECT_EQ(market.FindMarket(id)->instruments.size(), Rd<uint16_t>(p.body, 16));
        for (uint16_t r = 0; r < rows; ++r) {
            const char* row = p.body.data() + 22 + 84 * r;
            names[id].insert(std::string(row + 33, strnlen(row + 33, 21)));
            EXPECT_GT(Rd<int32_t>(p.body, 22 + 84 * r + 76), 0);
        }
    }
    size_t named = 0;
    for (const auto& kv : names) named += kv.second.size();
    EXPECT_EQ(market.Instruments().size(), named);
    EXPECT_TRUE(names[2001].count("cu2501"));

    f = Exchange(s, 3, MarketRequest(0, 6));
    ASSERT_GT(f.size(), 10u);
    size_t rows = 0;
    for (size_t i = 0; i < f.size(); ++i) {
        const DcFrame& p = f[i];
        ASSERT_EQ(3, p.command);
        EXPECT_EQ(f.size(), Rd<uint16_t>(p.body, 2));
        EXPECT_EQ(i, Rd<uint16_t>(p.body, 4));
        EXPECT_EQ(market.Instruments().size(), Rd<uint16_t>(p.body, 8));
        EXPECT_EQ(rows, Rd<uint16_t>(p.body, 12));
        const uint16_t n = Rd<uint16_t>(p.body, 10);
        ASSERT_EQ(14u + 263u * n, p.body.size());
        for (uint16_t r = 0; r < n; ++r) {
            const std::string code(p.body.data() + 14 + 263 * r + 2);
            EXPECT_TRUE(names[Rd<uint16_t>(p.body, 6)].count(code)) << code;
            EXPECT_EQ(20241203u, Rd<uint32_t>(p.body, 14 + 263 * r + 23));
        }
        rows += n;
    }
    EXPECT_EQ(market.Instruments().size(), rows);
}

TEST_F(QuoteSessionTest, PushesStartAfterTheSubscriptionFirstInFullThenChanges) {
    Login(s);
    s.OnMarketEvents(market.Step(Morning() + 100));
    EXPECT_TRUE(s.TakeOutput().empty());   // not subscribed yet

    std::string sub(4, '\xff');
    EXPECT_TRUE(Exchange(s, 100, sub).empty());
    ASSERT_TRUE(s.Subscribed());
    // The snapshot makes the next rows of its instruments deltas.
    Exchange(s, 3, MarketRequest(0, 6));

    uint32_t lastSequence = 0;
    size_t pushed = 0, full = 0, packages = 0;
    for (int step = 2; step < 50; ++step) {
        s.OnMarketEvents(market.Step(Morning() + step * 20));
        std::string out = s.TakeOutput();
        for (const DcFrame& f : CutDcFrames(out)) {
            ASSERT_EQ(101, f.command);
            for (size_t pos = 0; pos + 7 <= f.body.size();) {
                const uint32_t sequence = Rd<uint32_t>(f.body, pos);
                EXPECT_EQ(lastSequence + 1, sequence);
                lastSequence = sequence;
                const uint16_t length = Rd<uint16_t>(f.body, pos + 5);
                if (Rd<uint8_t>(f.body, pos + 4) == 2) {   // the index packages among them
                    ++packages;
                    pos += 7u + length;
                    continue;
                }
                EXPECT_EQ(1, Rd<uint8_t>(f.body, pos + 4));
                const std::string row = f.body.substr(pos + 7, length);
                ASSERT_GE(row.size(), 39u);
                const std::string code(row.data() + 10, strnlen(row.data() + 10, 21));
                EXPECT_GE(market.FindInstrument(code), 0) << code;
                if (Rd<uint32_t>(row, 0) == kAllMainFields) ++full;
                ++pushed;
                pos += 7u + length;
            }
        }
    }
    EXPECT_GT(pushed, 200u);
    EXPECT_LT(full, pushed / 4);
    // One package per market, after each batch of events that brought the
    // rows since the last ones to 200.
    EXPECT_EQ(packages % 4, 0u);
    EXPECT_GE(packages, 4u);
    EXPECT_LE(packages, 4 * (pushed / 200));
}

// The index packages decode with the sample templates into the records an
// application receives.
TEST_F(QuoteSessionTest, IndexPackagesDecodeWithTheSampleTemplates) {
    const std::string path = "sample-templates.xml";
    FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(SampleTemplates(), f);
    std::fclose(f);
    ASSERT_TRUE(LoadPackageTemplate(path.c_str()));
    std::remove(path.c_str());
    const CQxDataPackage* tmpl = FindPackageTemplate(kExchangeIndexPackage);
    ASSERT_NE(tmpl, nullptr);
    ASSERT_EQ(tmpl->size, 100);

    QuoteOptions options;
    options.indexEvery = 50;
    QuoteSession session(market, options);
    Login(session);
    std::string sub(4, '\xff');
    Exchange(session, 100, sub);
    std::vector<std::string> records;
    for (int step = 2; step < 30 && records.size() < 8; ++step) {
        session.OnMarketEvents(market.Step(Morning() + step * 20));
        std::string out = session.TakeOutput();
        for (const DcFrame& frame : CutDcFrames(out)) {
            for (size_t pos = 0; pos + 7 <= frame.body.size();) {
                const uint16_t length = Rd<uint16_t>(frame.body, pos + 5);
                if (Rd<uint8_t>(frame.body, pos + 4) == 2) {
                    EXPECT_EQ(Rd<uint16_t>(frame.body, pos + 7), 0);   // the leading value
                    const std::string package = frame.body.substr(pos + 9, length - 2u);
                    std::vector<char> record;
                    auto name = [](void*, int id, char* out9) { std::snprintf(out9, 9, "M%d", id); };
                    EXPECT_TRUE(BuildPackageRecord(*tmpl, package.data(), static_cast<int>(package.size()), &record,
                                                   name, nullptr));
                    records.emplace_back(record.begin(), record.end());
                }
                pos += 7u + length;
            }
        }
    }
    ASSERT_EQ(records.size(), 8u);   // two rounds of the four markets
    std::set<std::string> markets;
    for (const std::string& r : records) {
        markets.insert(r.c_str());
        const double index = Rd<double>(r, 9);
        EXPECT_GT(index, 90000.0);
        EXPECT_LT(index, 110000.0);
        EXPECT_GT(Rd<int32_t>(r, 17), 90000);   // HHMMSS of the morning
        EXPECT_GT(Rd<int32_t>(r, 21), 0);
        // The top rows: codes of the market, volumes in descending order.
        EXPECT_GE(market.FindInstrument(std::string(r.c_str() + 25)), 0);
        EXPECT_GE(Rd<int32_t>(r, 25 + 21), Rd<int32_t>(r, 50 + 21));
        EXPECT_GE(Rd<int32_t>(r, 50 + 21), Rd<int32_t>(r, 75 + 21));
    }
    EXPECT_EQ(markets, (std::set<std::string>{"M2001", "M2101", "M2201", "M2301"}));
}

TEST_F(QuoteSessionTest, ANameTableOfOneMarketIsFollowedByItsQuotesInFull) {
    Login(s);
    Exchange(s, 100, std::string(4, '\xff'));
    Exchange(s, 3, MarketRequest(0, 6));
    std::vector<DcFrame> f = Exchange(s, 1, MarketRequest(2201, 14));
    ASSERT_GE(f.size(), 2u);
    size_t rows = 0;
    for (const DcFrame& p : f) {
        if (p.command == 1) {
            EXPECT_EQ(2201, Rd<uint16_t>(p.body, 6));
            continue;
        }
        ASSERT_EQ(101, p.command);
        for (size_t pos = 0; pos + 7 <= p.body.size(); pos += 7u + Rd<uint16_t>(p.body, pos + 5)) {
            EXPECT_EQ(kAllMainFields, Rd<uint32_t>(p.body, pos + 7));
            EXPECT_EQ(2201, Rd<uint16_t>(p.body, pos + 7 + 8));
            ++rows;
        }
    }
    EXPECT_EQ(market.FindMarket(2201)->instruments.size(), rows);
}

TEST_F(QuoteSessionTest, BrokenFramingClosesTheSession) {
    const char junk[] = "#\x02\x00\x00";
    s.OnReceive(junk, 4);
    EXPECT_TRUE(s.WantsClose());
}

namespace {

std::vector<qxsfsim::Package> Ask(FileSession& s, char command, const std::vector<char>& body) {
    std::vector<char> request = qxsfsim::EncodePackage(5, command, body);
    s.OnReceive(request.data(), request.size());
    std::string out = s.TakeOutput();
    std::vector<char> buffer(out.begin(), out.end());
    std::vector<qxsfsim::Package> packages;
    EXPECT_TRUE(qxsfsim::ExtractPackages(buffer, packages));
    EXPECT_TRUE(buffer.empty());
    for (const qxsfsim::Package& p : packages) {
        EXPECT_EQ(5, p.head.Handle);
        EXPECT_LE(p.body.size(), 8192u);
    }
    return packages;
}

std::vector<char> LoginPackageBody(const char* user) {
    _LoginReq req;
    std::memset(&req, 0, sizeof(req));
    std::strcpy(req.UserId, user);
    std::strcpy(req.ClientName, "QXSFC");
    std::vector<char> body(size(req));
    to_stream(req, body.data());
    return body;
}

std::vector<char> MarketListBody(const std::vector<std::string>& codes) {
    _MktSize count;
    count.Count = static_cast<int>(codes.size());
    std::vector<char> body(4 + 11 * codes.size());
    char* p = body.data();
    p += to_stream(count, p);
    for (const std::string& code : codes) {
        _MarketInfo2 info;
        std::memset(&info, 0, sizeof(info));
        std::strncpy(info.MarketCode, code.c_str(), 11);
        p += to_stream(info, p);
    }
    return body;
}

// The contract files of a market of that many instruments.
ContractStore Store(int instruments) {
    MarketConfig config;
    config.instruments = instruments;
    ContractStore store;
    store.Build(Market(config, Morning()), Morning());
    return store;
}

}  // namespace

TEST(FileSessionTest, ListsAndSendsTheContractFilesWithTheirDigest) {
    const ContractStore store = Store(200);
    ASSERT_EQ(4u, store.Files().size());
    EXPECT_EQ("shfe_base_20241203.json", store.Files()[0].name);

    FileSession s(store, FileOptions());
    std::vector<qxsfsim::Package> answer = Ask(s, QXSF_CMD_LOGIN, LoginPackageBody("trader"));
    ASSERT_EQ(1u, answer.size());
    EXPECT_EQ(QXSF_CMD_LOGIN, answer[0].head.Command);

    answer = Ask(s, static_cast<char>(QXSF_CMD_MKTLIST), MarketListBody({"SHFE", "czce", "NYMEX"}));
    ASSERT_EQ(1u, answer.size());
    const std::vector<char>& list = answer[0].body;
    _TaskHead task;
    _ItemListHead items;
    int pos = from_stream(task, list.data(), static_cast<int>(list.size()));
    pos += from_stream(items, list.data() + pos, static_cast<int>(list.size()) - pos);
    EXPECT_STREQ("contract\\", task.Path);
    ASSERT_EQ(2, items.Count);
    EXPECT_EQ(2, items.Total);
    _TaskFileInfo shfe;
    from_stream(shfe, list.data() + pos, static_cast<int>(list.size()) - pos);
    EXPECT_STREQ("shfe_base_20241203.json", shfe.FileName);

    _GetFileReq req;
    std::memset(&req, 0, sizeof(req));
    req.RequestType = 2;
    std::strcpy(req.FilePath, "contract\\shfe_base_20241203.json");
    std::vector<char> body(size(req));
    to_stream(req, body.data());
    answer = Ask(s, QXSF_CMD_FILE, body);
    ASSERT_GE(answer.size(), 3u);
    _FileTransfer part;
    _FileTransferInfo info;
    from_stream(part, answer[0].body.data(), 1);
    EXPECT_EQ(QXSF_PART_INFO, part.Part);
    from_stream(info, answer[0].body.data() + 1, static_cast<int>(answer[0].body.size()) - 1);
    EXPECT_EQ(shfe.FileSize, info.FileSize);
    EXPECT_GT(info.FileSize, QXSF_BLOCK_DATA);   // more than one block
    std::string content(static_cast<size_t>(info.FileSize), '\0');
    for (size_t i = 1; i + 1 < answer.size(); ++i) {
        _FileTransferBlock block;
        from_stream(part, answer[i].body.data(), 1);
        ASSERT_EQ(QXSF_PART_BLOCK, part.Part);
        from_stream(block, answer[i].body.data() + 1, static_cast<int>(answer[i].body.size()) - 1);
        std::memcpy(&content[static_cast<size_t>(block.Offset)], block.Data, static_cast<size_t>(block.DataLength));
    }
    from_stream(part, answer.back().body.data(), 1);
    EXPECT_EQ(QXSF_PART_END, part.Part);
    unsigned char digest[16];
    qxsfsim::Md5Of(content, digest);
    EXPECT_EQ(0, std::memcmp(digest, shfe.Md5, 16));
    EXPECT_NE(std::string::npos, content.find("\"ContractData\""));
    EXPECT_NE(std::string::npos, content.find("\"2\":\"cu2501\""));
    EXPECT_EQ(1, s.Stats().files);
}

TEST(FileSessionTest, PagesTheListAndRefusesAWrongUser) {
    const ContractStore store = Store(40);
    FileOptions options;
    options.pageSize = 1;
    options.user = "trader";
    {
        FileSession s(store, options);
        Ask(s, QXSF_CMD_LOGIN, LoginPackageBody("trader"));
        std::vector<qxsfsim::Package> pages =
            Ask(s, static_cast<char>(QXSF_CMD_MKTLIST), MarketListBody({"SHFE", "DCE", "CZCE"}));
        ASSERT_EQ(3u, pages.size());
        for (size_t i = 0; i < pages.size(); ++i) {
            _ItemListHead items;
            from_stream(items, pages[i].body.data() + 128, 6);
            EXPECT_EQ(3, items.Total);
            EXPECT_EQ(static_cast<short>(i), items.Start);
            EXPECT_EQ(1, items.Count);
        }
    }
    FileSession s(store, options);
    std::vector<qxsfsim::Package> answer = Ask(s, QXSF_CMD_LOGIN, LoginPackageBody("intruder"));
    ASSERT_EQ(1u, answer.size());
    EXPECT_EQ(QXSF_CMD_ERROR, answer[0].head.Command);
    EXPECT_TRUE(s.WantsClose());
}
