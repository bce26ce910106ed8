// The file server's byte stream cut into packages, however it arrives.
#include "sf/QxsfReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

struct Got {
    int handle;
    int command;
    std::string body;
};

class RecordingSink : public IQxsfPackageSink {
public:
    bool OnPackage(const _MainPkgHead& head, char* body, int length) override {
        got.push_back({head.Handle, static_cast<unsigned char>(head.Command), std::string(body, length)});
        return --stopAfter != 0;
    }
    std::vector<Got> got;
    int stopAfter = -1;   // stop at the n-th package (never when negative)
};

// A package as a server encodes it (bodies of 128 bytes or more deflated).
std::string Package(unsigned short handle, char command, const std::string& body) {
    _MainPkgHead head{QXSF_MARK, handle, command, 0, 0};
    char out[16384];
    const int n = QxsfEncodePackage(head, reinterpret_cast<const unsigned char*>(body.data()),
                                    static_cast<int>(body.size()), out, sizeof(out));
    return n < 0 ? std::string() : std::string(out, static_cast<size_t>(n));
}

std::string Stream() {
    std::string big(6000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 7);   // deflates well
    return Package(1, QXSF_CMD_LOGIN, "ok") + Package(2, QXSF_CMD_MKTLIST, std::string(3000, 'x')) +
           Package(3, QXSF_CMD_FILE, big) + Package(4, QXSF_CMD_ERROR, "");
}

TEST(QxsfReader, AnyChunkingYieldsTheSamePackages) {
    const std::string stream = Stream();
    RecordingSink whole;
    CQxsfReader reader;
    ASSERT_EQ(reader.Feed(stream.data(), stream.size(), whole), CQxsfReader::kNeedMore);
    ASSERT_EQ(whole.got.size(), 4u);
    EXPECT_EQ(whole.got[0].body, "ok");
    EXPECT_EQ(whole.got[2].handle, 3);
    EXPECT_EQ(whole.got[2].body.size(), 6000u);   // inflated
    EXPECT_EQ(reader.Fill(), 0);
    for (size_t step : {1u, 3u, 7u, 4096u, 10000u}) {
        RecordingSink sink;
        CQxsfReader r;
        for (size_t pos = 0; pos < stream.size(); pos += step)
            ASSERT_EQ(r.Feed(stream.data() + pos, std::min(step, stream.size() - pos), sink), CQxsfReader::kNeedMore);
        ASSERT_EQ(sink.got.size(), whole.got.size()) << step;
        for (size_t i = 0; i < sink.got.size(); ++i) {
            EXPECT_EQ(sink.got[i].handle, whole.got[i].handle) << step;
            EXPECT_EQ(sink.got[i].command, whole.got[i].command) << step;
            EXPECT_EQ(sink.got[i].body, whole.got[i].body) << step;
        }
    }
}

TEST(QxsfReader, ReceivingIntoTheFreeSpaceCutsLikeFeeding) {
    const std::string stream = Stream();
    RecordingSink sink;
    CQxsfReader reader;
    size_t pos = 0;
    while (pos < stream.size()) {
        const size_t n = std::min(stream.size() - pos, static_cast<size_t>(reader.FreeBytes()));
        std::copy(stream.data() + pos, stream.data() + pos + n, reader.FreeSpace());
        reader.Commit(static_cast<int>(n));
        pos += n;
        ASSERT_EQ(reader.Cut(sink), CQxsfReader::kNeedMore);
    }
    EXPECT_EQ(sink.got.size(), 4u);
}

TEST(QxsfReader, BrokenHeadsAndBodiesAreReported) {
    RecordingSink sink;
    CQxsfReader noMark;
    const std::string good = Package(1, QXSF_CMD_LOGIN, "ok");
    const std::string bad = "X" + good.substr(1);
    EXPECT_EQ(noMark.Feed((good + bad).data(), good.size() + bad.size(), sink), CQxsfReader::kBadHead);
    EXPECT_EQ(sink.got.size(), 1u);   // what came before is handed over

    // A head announcing a body that could never fit the buffer.
    _MainPkgHead head{QXSF_MARK, 9, QXSF_CMD_FILE, 0, 0};
    head.BodyLength = 0xFFFF;
    char raw[QXSF_HEAD_SIZE];
    ASSERT_EQ(to_stream(head, raw), QXSF_HEAD_SIZE);
    CQxsfReader tooLong;
    EXPECT_EQ(tooLong.Feed(raw, sizeof(raw), sink), CQxsfReader::kBadHead);

    // A "compressed" body that is not deflate data.
    _MainPkgHead packed{QXSF_MARK, 5, QXSF_CMD_FILE, QXSF_FLAG_COMPRESSED, 4};
    std::string junk(QXSF_HEAD_SIZE, '\0');
    to_stream(packed, &junk[0]);
    junk += "junk";
    CQxsfReader notDeflate;
    EXPECT_EQ(notDeflate.Feed(junk.data(), junk.size(), sink), CQxsfReader::kBadBody);
}

TEST(QxsfReader, ASinkThatStopsKeepsItsPackageForTheNextCut) {
    const std::string stream = Stream();
    RecordingSink sink;
    sink.stopAfter = 2;
    CQxsfReader reader;
    EXPECT_EQ(reader.Feed(stream.data(), stream.size(), sink), CQxsfReader::kStopped);
    ASSERT_EQ(sink.got.size(), 2u);
    EXPECT_GT(reader.Fill(), 0);
    sink.stopAfter = -1;
    EXPECT_EQ(reader.Cut(sink), CQxsfReader::kNeedMore);
    ASSERT_EQ(sink.got.size(), 5u);   // the second package again, then the rest
    EXPECT_EQ(sink.got[2].handle, 2);
}

}  // namespace
