// Wire format of the QXSF file service.
//
// Every package is a 7-byte head (_MainPkgHead) followed by BodyLength body
// bytes, optionally zlib-compressed (bit 0 of Flags). Integers travel in the
// machine's own (little-endian) byte order, text as fixed-width NUL-padded
// fields. In memory every text field is one byte longer than on the wire so
// that it always holds a terminator; binary digests and data are not.
//
// Writers (to_stream) assume the caller's buffer is large enough for size().
// Readers (from_stream) are given the number of bytes available and consume
// nothing (return 0) when that is fewer than the structure's wire size.
#ifndef ORVEX_SF_QXSF_WIRE_H
#define ORVEX_SF_QXSF_WIRE_H

#include <cstdint>

// Command codes.
enum {
    QXSF_CMD_ERROR = 1,      // server: error notice, body not read
    QXSF_CMD_LOGIN = 2,      // client: _LoginReq; server: login accepted
    QXSF_CMD_FILE = 3,       // client: _GetFileReq; server: file transfer
    QXSF_CMD_MKTLIST = 90,   // client: market list; server: file list page
};

// Parts of a file transfer (_FileTransfer::Part).
enum {
    QXSF_PART_INFO = 0,
    QXSF_PART_BLOCK = 1,
    QXSF_PART_END = 2,
};

const char QXSF_MARK = '@';
const char QXSF_FLAG_COMPRESSED = 0x01;
const int QXSF_HEAD_SIZE = 7;
const int QXSF_BLOCK_DATA = 4096;
// Bodies of this many bytes or more are offered to compress2.
const int QXSF_COMPRESS_THRESHOLD = 128;

struct _MainPkgHead {
    char Mark;
    unsigned short Handle;
    char Command;
    char Flags;
    unsigned short BodyLength;
};

struct UPDFILETIME {
    int LowTime;
    int HighTime;
};

// Client to server.
struct _LoginReq {
    char UserId[33];
    char Password[33];
    int LoginFlag;
    char ClientVersion[9];
    char ClientName[9];
    char LoginType;
    char ClientKind;
    char ClientAddress[21];
    short ClientPort;
    char ClientMac[19];
};

struct _MktSize {
    int Count;
};

struct _MarketInfo2 {
    char MarketCode[12];
};

struct _GetFileReq {
    char RequestType;
    char FilePath[257];
    unsigned char Md5[16];
    int FileSize;
    int Offset;
};

// Server to client.
struct _TaskHead {
    char Path[129];
};

struct _ItemListHead {
    short Total;
    short Start;
    short Count;
};

struct _TaskFileInfo {
    char FileName[129];
    unsigned char Md5[16];
    UPDFILETIME FileTime;
    int FileSize;
};

struct _FileTransfer {
    char Part;
};

struct _FileTransferInfo {
    int TransferId;
    char TransferKind;
    char FilePath[257];
    unsigned char Md5[16];
    int Param1;
    int Param2;
    int FileSize;
    int StartPos;
};

struct _FileTransferBlock {
    int BlockNo;
    int Offset;
    short DataLength;
    unsigned char Data[QXSF_BLOCK_DATA];
};

struct _FileTransferEnd {
    int Result;
};

// The wire size of a field: an integer of N bytes takes N, a text field
// declared with N characters takes N - 1 (the terminator is not sent).
template <typename T>
constexpr int len(const T&) { return static_cast<int>(sizeof(T)); }
template <int N>
constexpr int len(const char (&)[N]) { return N - 1; }
template <int N>
constexpr int len(const unsigned char (&)[N]) { return N; }

// Primitive encoders; each returns the bytes written or read. Readers
// return 0 when fewer bytes than needed are available.
int to_stream(int v, char* out);
int to_stream(short v, char* out);
int to_stream(unsigned short v, char* out);
int to_stream(char v, char* out);
int to_stream(const char* text, int n, char* out);            // exactly n bytes
int to_stream(const unsigned char* data, int n, char* out);   // exactly n bytes
int from_stream(int& v, const char* in, int avail);
int from_stream(short& v, const char* in, int avail);
int from_stream(unsigned short& v, const char* in, int avail);
int from_stream(char& v, const char* in, int avail);
int from_stream(char* text, int n, const char* in, int avail);  // n bytes, then NUL at [n]
int from_stream(unsigned char* data, int n, const char* in, int avail);

// Wire sizes: 7, 126, 4, 11, 281, 128, 6, 156, 1, 293, 4106, 4. Only the
// field types are looked at, never the values.
inline int size(const _MainPkgHead& v) {
    return len(v.Mark) + len(v.Handle) + len(v.Command) + len(v.Flags) + len(v.BodyLength);
}
inline int size(const _LoginReq& v) {
    return len(v.UserId) + len(v.Password) + len(v.LoginFlag) + len(v.ClientVersion) +
           len(v.ClientName) + len(v.LoginType) + len(v.ClientKind) + len(v.ClientAddress) +
           len(v.ClientPort) + len(v.ClientMac);
}
inline int size(const _MktSize& v) { return len(v.Count); }
inline int size(const _MarketInfo2& v) { return len(v.MarketCode); }
inline int size(const _GetFileReq& v) {
    return len(v.RequestType) + len(v.FilePath) + len(v.Md5) + len(v.FileSize) + len(v.Offset);
}
inline int size(const _TaskHead& v) { return len(v.Path); }
inline int size(const _ItemListHead& v) { return len(v.Total) + len(v.Start) + len(v.Count); }
inline int size(const _TaskFileInfo& v) {
    return len(v.FileName) + len(v.Md5) + len(v.FileTime.LowTime) + len(v.FileTime.HighTime) +
           len(v.FileSize);
}
inline int size(const _FileTransfer& v) { return len(v.Part); }
inline int size(const _FileTransferInfo& v) {
    return len(v.TransferId) + len(v.TransferKind) + len(v.FilePath) + len(v.Md5) +
           len(v.Param1) + len(v.Param2) + len(v.FileSize) + len(v.StartPos);
}
inline int size(const _FileTransferBlock& v) {
    return len(v.BlockNo) + len(v.Offset) + len(v.DataLength) + len(v.Data);
}
inline int size(const _FileTransferEnd& v) { return len(v.Result); }

int to_stream(const _MainPkgHead& v, char* out);
int to_stream(const _LoginReq& v, char* out);
int to_stream(const _MktSize& v, char* out);
int to_stream(const _MarketInfo2& v, char* out);
int to_stream(const _GetFileReq& v, char* out);

int from_stream(_MainPkgHead& v, const char* in, int avail);
int from_stream(_TaskHead& v, const char* in, int avail);
int from_stream(_ItemListHead& v, const char* in, int avail);
int from_stream(_TaskFileInfo& v, const char* in, int avail);
int from_stream(_FileTransfer& v, const char* in, int avail);
int from_stream(_FileTransferInfo& v, const char* in, int avail);
int from_stream(_FileTransferBlock& v, const char* in, int avail);
int from_stream(_FileTransferEnd& v, const char* in, int avail);

// The handle that follows h: h + 1, except that 0 is skipped.
unsigned short QxsfNextHandle(unsigned short h);

// Builds a whole package (head and body) into out, which holds capacity
// bytes. A body of 128 bytes or more is compressed with compress2 at the
// default level when that makes it shorter. Flags bit 0 and BodyLength of
// head are set here. Returns the package length, or -1 when it does not fit.
int QxsfEncodePackage(_MainPkgHead head, const unsigned char* body, int length,
                      char* out, int capacity);

// Inflates a compressed body into out (capacity bytes). Returns the inflated
// length, or -1 when the body is not valid zlib data or does not fit.
int QxsfInflateBody(const char* in, int length, char* out, int capacity);

#endif
