// Frame cutting of the quote server's stream, without a socket.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "dc/FrameCutter.h"
#include "support/FakeQuoteServer.h"

using orvex_test::BuildDcFrame;

namespace {

struct Recorder : IDCFrameSink {
    std::vector<std::pair<int, std::string>> frames;
    int stopAfter = -1;
    bool OnFrame(int command, const char* body, int length) override {
        frames.emplace_back(command, std::string(body, static_cast<size_t>(length)));
        return stopAfter < 0 || static_cast<int>(frames.size()) < stopAfter;
    }
};

std::string Header(int command, uint16_t length, bool compressed = false) {
    std::string h(4, '\0');
    h[0] = '@';
    h[1] = static_cast<char>((command << 1) | (compressed ? 1 : 0));
    std::memcpy(&h[2], &length, 2);
    return h;
}

TEST(FrameCutter, SplitFrameIsHandledOnceTheRestArrives) {
    CDCFrameCutter cutter;
    Recorder sink;
    std::string frame = BuildDcFrame(82, std::string(600, 'x'));
    EXPECT_EQ(CDCFrameCutter::kNeedMore, cutter.Feed(frame.data(), 3, sink));
    EXPECT_EQ(CDCFrameCutter::kNeedMore, cutter.Feed(frame.data() + 3, 300, sink));
    EXPECT_TRUE(sink.frames.empty());
    EXPECT_EQ(CDCFrameCutter::kNeedMore, cutter.Feed(frame.data() + 303, frame.size() - 303, sink));
    ASSERT_EQ(1u, sink.frames.size());
    EXPECT_EQ(82, sink.frames[0].first);
    EXPECT_EQ(std::string(600, 'x'), sink.frames[0].second);
    EXPECT_EQ(0, cutter.Fill());
}

TEST(FrameCutter, SeveralFramesInOneReadComeInOrderAndTheMarkIsNotChecked) {
    CDCFrameCutter cutter;
    Recorder sink;
    std::string bytes = BuildDcFrame(1, "abc") + BuildDcFrame(0, "") + BuildDcFrame(101, "zz");
    bytes[4 + 3] = '#';   // second frame's mark
    bytes += BuildDcFrame(3, "q").substr(0, 2);
    cutter.Feed(bytes.data(), bytes.size(), sink);
    ASSERT_EQ(3u, sink.frames.size());
    EXPECT_EQ(1, sink.frames[0].first);
    EXPECT_EQ(0, sink.frames[1].first);
    EXPECT_EQ(101, sink.frames[2].first);
    EXPECT_EQ("zz", sink.frames[2].second);
    EXPECT_EQ(2, cutter.Fill());   // the partial fourth frame waits
}

TEST(FrameCutter, CompressedBodyIsInflated) {
    CDCFrameCutter cutter;
    Recorder sink;
    std::string body(3000, 'a');
    for (size_t i = 0; i < body.size(); i += 7) body[i] = static_cast<char>('a' + i % 26);
    std::string frame = BuildDcFrame(3, body, true);
    ASSERT_LT(frame.size(), body.size());
    cutter.Feed(frame.data(), frame.size(), sink);
    ASSERT_EQ(1u, sink.frames.size());
    EXPECT_EQ(3, sink.frames[0].first);
    EXPECT_EQ(body, sink.frames[0].second);
}

TEST(FrameCutter, BodyOverLimitIsRejectedWithoutWaitingForIt) {
    CDCFrameCutter cutter;
    Recorder sink;
    std::string h = Header(82, 4093);
    EXPECT_EQ(CDCFrameCutter::kProtocolError, cutter.Feed(h.data(), h.size(), sink));
    EXPECT_TRUE(sink.frames.empty());
    EXPECT_EQ(0, cutter.Fill());

    std::string ok = Header(82, 4092) + std::string(4092, 'b');
    EXPECT_EQ(CDCFrameCutter::kNeedMore, cutter.Feed(ok.data(), ok.size(), sink));
    EXPECT_EQ(1u, sink.frames.size());
}

TEST(FrameCutter, BodyInflatingPastLimitOrBrokenIsRejected) {
    CDCFrameCutter cutter;
    Recorder sink;
    std::string big = BuildDcFrame(101, std::string(4093, 'c'), true);
    EXPECT_EQ(CDCFrameCutter::kProtocolError, cutter.Feed(big.data(), big.size(), sink));
    std::string garbage = Header(101, 5, true) + "hello";
    EXPECT_EQ(CDCFrameCutter::kProtocolError, cutter.Feed(garbage.data(), garbage.size(), sink));
    EXPECT_TRUE(sink.frames.empty());
}

TEST(FrameCutter, SinkStopDropsTheRest) {
    CDCFrameCutter cutter;
    Recorder sink;
    sink.stopAfter = 1;
    std::string bytes = BuildDcFrame(82, "a") + BuildDcFrame(83, "b");
    EXPECT_EQ(CDCFrameCutter::kStopped, cutter.Feed(bytes.data(), bytes.size(), sink));
    EXPECT_EQ(1u, sink.frames.size());
    EXPECT_EQ(0, cutter.Fill());
}

}  // namespace
