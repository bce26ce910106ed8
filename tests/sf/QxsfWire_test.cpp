// Byte layout of the QXSF packages, the compression rule and the handles.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sf/QxsfWire.h"
#include "protocol/QxsfServerCodec.h"

namespace {

template <typename T>
T Zeroed() {
    T v;
    std::memset(&v, 0, sizeof(v));
    return v;
}

short ReadShort(const char* p) {
    short v;
    std::memcpy(&v, p, 2);
    return v;
}

// A text field of n bytes: text padded with NULs.
std::string Pad(const std::string& text, size_t n) { return text + std::string(n - text.size(), '\0'); }

std::string Le32(int v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

std::vector<unsigned char> RandomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> out(n);
    for (auto& b : out) b = static_cast<unsigned char>(gen());
    return out;
}

}  // namespace

TEST(QxsfWireLayout, WireSizesOfEveryStructure) {
    EXPECT_EQ(7, size(_MainPkgHead{}));
    EXPECT_EQ(126, size(_LoginReq{}));
    EXPECT_EQ(4, size(_MktSize{}));
    EXPECT_EQ(11, size(_MarketInfo2{}));
    EXPECT_EQ(281, size(_GetFileReq{}));
    EXPECT_EQ(128, size(_TaskHead{}));
    EXPECT_EQ(6, size(_ItemListHead{}));
    EXPECT_EQ(156, size(_TaskFileInfo{}));
    EXPECT_EQ(1, size(_FileTransfer{}));
    EXPECT_EQ(293, size(Zeroed<_FileTransferInfo>()));
    EXPECT_EQ(4106, size(Zeroed<_FileTransferBlock>()));
    EXPECT_EQ(4, size(_FileTransferEnd{}));
}

TEST(QxsfWireLayout, HeadIsMarkHandleCommandFlagsLength) {
    _MainPkgHead head{'@', 0x1234, 3, 1, 0x0102};
    char out[8] = {};
    ASSERT_EQ(7, to_stream(head, out));
    const unsigned char expect[7] = {0x40, 0x34, 0x12, 0x03, 0x01, 0x02, 0x01};
    EXPECT_EQ(0, std::memcmp(expect, out, 7));

    _MainPkgHead back{};
    EXPECT_EQ(0, from_stream(back, out, 6));
    ASSERT_EQ(7, from_stream(back, out, 7));
    EXPECT_EQ(0x1234, back.Handle);
    EXPECT_EQ(0x0102, back.BodyLength);
    EXPECT_EQ(1, back.Flags);
}

TEST(QxsfWireLayout, LoginRequestFieldOffsets) {
    _LoginReq req = Zeroed<_LoginReq>();
    std::memset(req.UserId, 'u', 32);   // a full-width name leaves no terminator on the wire
    std::strcpy(req.Password, "secret");
    req.LoginFlag = 0x01020304;
    std::strcpy(req.ClientVersion, "1.0.0.1");
    std::strcpy(req.ClientName, "QXSFC");
    req.LoginType = 5;
    req.ClientKind = 1;
    req.ClientPort = 0x0A0B;
    req.ClientMac[17] = 'm';
    char out[200];
    std::memset(out, 0x7E, sizeof(out));
    ASSERT_EQ(126, to_stream(req, out));
    // Every byte, plus one past the structure that must stay untouched.
    EXPECT_EQ(std::string(32, 'u') + Pad("secret", 32) + Le32(0x01020304) + Pad("1.0.0.1", 8) + Pad("QXSFC", 8) +
                  "\x05\x01" + Pad("", 20) + "\x0B\x0A" + Pad("", 17) + "m\x7E",
              std::string(out, 127));
}

TEST(QxsfWireLayout, FileRequestFieldOffsets) {
    _GetFileReq req = Zeroed<_GetFileReq>();
    req.RequestType = 2;
    std::strcpy(req.FilePath, "contract\\shfe_base_1.json");
    for (int i = 0; i < 16; ++i) req.Md5[i] = static_cast<unsigned char>(0xF0 + i);
    req.FileSize = 4097;
    req.Offset = 0;
    char out[300];
    ASSERT_EQ(281, to_stream(req, out));
    EXPECT_EQ("\x02" + Pad("contract\\shfe_base_1.json", 256) +
                  std::string(reinterpret_cast<const char*>(req.Md5), 16) + Le32(4097) + Le32(0),
              std::string(out, 281));
}

TEST(QxsfWireLayout, MarketListEntriesAreElevenBytes) {
    _MktSize count{2};
    _MarketInfo2 code = Zeroed<_MarketInfo2>();
    std::strcpy(code.MarketCode, "shfe");
    char out[32];
    ASSERT_EQ(4, to_stream(count, out));
    ASSERT_EQ(11, to_stream(code, out + 4));
    EXPECT_EQ(Le32(2) + Pad("shfe", 11), std::string(out, 15));
}

TEST(QxsfWireReaders, TransferInfoAtItsOffsets) {
    std::string md5;
    for (int i = 1; i <= 16; ++i) md5 += static_cast<char>(i);
    // Id, part, a path filling its field, digest, time, size, start.
    const std::string wire = Le32(77) + '\x09' + std::string(256, 'p') + md5 + Pad("", 8) + Le32(12345) + Le32(100);

    _FileTransferInfo info = Zeroed<_FileTransferInfo>();
    EXPECT_EQ(0, from_stream(info, wire.data(), 292));
    ASSERT_EQ(293, from_stream(info, wire.data(), 293));
    EXPECT_EQ(77, info.TransferId);
    EXPECT_EQ(256u, std::strlen(info.FilePath));   // terminated in memory
    EXPECT_EQ(16, info.Md5[15]);
    EXPECT_EQ(12345, info.FileSize);
    EXPECT_EQ(100, info.StartPos);
}

TEST(QxsfWireReaders, BlockNeedsItsFullDataAreaWhateverDataLength) {
    _FileTransferBlock block = Zeroed<_FileTransferBlock>();
    block.Offset = 8192;
    block.DataLength = 100;
    block.Data[99] = 'z';
    std::vector<char> wire(4106);
    ASSERT_EQ(4106, qxsfsim::to_stream(block, wire.data()));
    EXPECT_EQ(Le32(8192) + std::string("\x64\0", 2), std::string(&wire[4], 6));   // offset, data length

    _FileTransferBlock back = Zeroed<_FileTransferBlock>();
    EXPECT_EQ(0, from_stream(back, wire.data(), 10 + 100));
    ASSERT_EQ(4106, from_stream(back, wire.data(), 4106));
    EXPECT_EQ('z', back.Data[99]);
}

TEST(QxsfWireReaders, ListEntriesRoundTripThroughTheServerCodec) {
    _TaskFileInfo file = qxsfsim::MakeTaskFileInfo("shfe_base_3.json", "abc", UPDFILETIME{11, 22});
    std::vector<char> body = qxsfsim::ListPageBody("dir/", 5, 2, {file});
    ASSERT_EQ(128u + 6u + 156u, body.size());

    _TaskHead task{};
    _ItemListHead items{};
    _TaskFileInfo back{};
    int pos = from_stream(task, body.data(), static_cast<int>(body.size()));
    pos += from_stream(items, body.data() + pos, static_cast<int>(body.size()) - pos);
    EXPECT_EQ(0, from_stream(back, body.data() + pos, 155));
    ASSERT_EQ(156, from_stream(back, body.data() + pos, static_cast<int>(body.size()) - pos));
    EXPECT_STREQ("dir/", task.Path);
    EXPECT_EQ(5, items.Total);
    EXPECT_EQ(2, items.Start);
    EXPECT_EQ(1, items.Count);
    EXPECT_STREQ("shfe_base_3.json", back.FileName);
    EXPECT_EQ(0, std::memcmp(file.Md5, back.Md5, 16));
    EXPECT_EQ(22, back.FileTime.HighTime);
    EXPECT_EQ(3, back.FileSize);
}

TEST(QxsfWireReaders, PrimitivesRefuseShortInput) {
    const char in[4] = {1, 2, 3, 4};
    int i = -1;
    short s = -1;
    char text[8] = "xxxxxxx";
    EXPECT_EQ(0, from_stream(i, in, 3));
    EXPECT_EQ(-1, i);
    EXPECT_EQ(0, from_stream(s, in, 1));
    EXPECT_EQ(0, from_stream(text, 5, in, 4));
    EXPECT_STREQ("xxxxxxx", text);
    EXPECT_EQ(4, from_stream(text, 4, in, 4));
    EXPECT_EQ('\0', text[4]);
}

TEST(QxsfCompression, ShortIncompressibleAndEmptyBodiesGoOutRawWithFlagCleared) {
    const std::vector<unsigned char> login(126, 0), under128(127, 0), noise = RandomBytes(300, 7), none;
    const struct {
        const char* name;
        _MainPkgHead head;
        const std::vector<unsigned char>& body;
    } cases[] = {
        {"login body", {'@', 1, 2, 0, 0}, login},
        {"under 128 bytes", {'@', 1, 90, 0, 0}, under128},
        {"incompressible, the caller's stale flag set", {'@', 2, 3, QXSF_FLAG_COMPRESSED, 0}, noise},
        {"empty: the head alone", {'@', 9, 2, QXSF_FLAG_COMPRESSED, 55}, none},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("case ") + c.name);
        const int n = static_cast<int>(c.body.size());
        char out[4096];
        ASSERT_EQ(7 + n, QxsfEncodePackage(c.head, n ? c.body.data() : nullptr, n, out, sizeof(out)));
        EXPECT_EQ(0, out[4]);   // flags
        EXPECT_EQ(n, ReadShort(out + 5));
        EXPECT_EQ(std::string(c.body.begin(), c.body.end()), std::string(out + 7, n));
    }
}

TEST(QxsfCompression, CompressibleMarketListIsSentDeflated) {
    // 12 markets: 4 + 132 bytes.
    std::vector<unsigned char> body(136, 0);
    body[0] = 12;
    for (int i = 0; i < 12; ++i) std::memcpy(&body[4 + 11 * i], "shfe", 4);
    char out[4096];
    int total = QxsfEncodePackage(_MainPkgHead{'@', 2, 90, 0, 0}, body.data(), 136, out, sizeof(out));
    ASSERT_GT(total, 7);
    _MainPkgHead sent{};
    from_stream(sent, out, 7);
    EXPECT_EQ(QXSF_FLAG_COMPRESSED, sent.Flags);
    EXPECT_LT(sent.BodyLength, 136);
    EXPECT_EQ(7 + sent.BodyLength, total);
    char inflated[8192];
    ASSERT_EQ(136, QxsfInflateBody(out + 7, sent.BodyLength, inflated, sizeof(inflated)));
    EXPECT_EQ(0, std::memcmp(inflated, body.data(), 136));
}

TEST(QxsfCompression, BodyThatFitsNeitherWayIsRefusedAndInflateIsBounded) {
    std::vector<unsigned char> body = RandomBytes(5000, 3);
    char buffer[4096];
    EXPECT_EQ(-1, QxsfEncodePackage(_MainPkgHead{'@', 2, 90, 0, 0}, body.data(), 5000, buffer, sizeof(buffer)));
    std::vector<char> big(9000, 0);
    std::vector<char> wire = qxsfsim::EncodePackage(1, 90, big, true);
    ASSERT_EQ(QXSF_FLAG_COMPRESSED, wire[4]);
    std::vector<char> out(8192);
    EXPECT_EQ(-1, QxsfInflateBody(wire.data() + 7, static_cast<int>(wire.size()) - 7, out.data(), 8192));
    const char garbage[16] = "not zlib data!!";
    EXPECT_EQ(-1, QxsfInflateBody(garbage, 16, out.data(), 8192));
}

TEST(QxsfHandles, ZeroIsSkippedOnWrap) {
    EXPECT_EQ(1, QxsfNextHandle(0));
    EXPECT_EQ(2, QxsfNextHandle(1));
    EXPECT_EQ(1, QxsfNextHandle(65535));
    unsigned short h = 1;
    for (int i = 0; i < 65535; ++i) {
        h = QxsfNextHandle(h);
        ASSERT_NE(0, h);
    }
    EXPECT_EQ(1, h);
}
