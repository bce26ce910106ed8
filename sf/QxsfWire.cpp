#include "sf/QxsfWire.h"

#include <cstring>

#include <zlib.h>

namespace {

template <typename T>
int PutRaw(const T& v, char* out) {
    std::memcpy(out, &v, sizeof(T));
    return static_cast<int>(sizeof(T));
}

template <typename T>
int GetRaw(T& v, const char* in, int avail) {
    if (avail < static_cast<int>(sizeof(T))) return 0;
    std::memcpy(&v, in, sizeof(T));
    return static_cast<int>(sizeof(T));
}

// Sequential reader over a bounded buffer; the caller has already checked
// that the whole structure is available, so every step succeeds.
struct Reader {
    const char* p;
    int left;
    template <typename T>
    void Get(T& v) { Advance(from_stream(v, p, left)); }
    void Text(char* text, int n) { Advance(from_stream(text, n, p, left)); }
    void Bytes(unsigned char* data, int n) { Advance(from_stream(data, n, p, left)); }
    void Advance(int n) { p += n; left -= n; }
};

}  // namespace

int to_stream(int v, char* out) { return PutRaw(v, out); }
int to_stream(short v, char* out) { return PutRaw(v, out); }
int to_stream(unsigned short v, char* out) { return PutRaw(v, out); }
int to_stream(char v, char* out) { return PutRaw(v, out); }

int to_stream(const char* text, int n, char* out) {
    std::memcpy(out, text, n);
    return n;
}

int to_stream(const unsigned char* data, int n, char* out) {
    std::memcpy(out, data, n);
    return n;
}

int from_stream(int& v, const char* in, int avail) { return GetRaw(v, in, avail); }
int from_stream(short& v, const char* in, int avail) { return GetRaw(v, in, avail); }
int from_stream(unsigned short& v, const char* in, int avail) { return GetRaw(v, in, avail); }
int from_stream(char& v, const char* in, int avail) { return GetRaw(v, in, avail); }

int from_stream(char* text, int n, const char* in, int avail) {
    if (n < 0 || avail < n) return 0;
    std::memcpy(text, in, n);
    text[n] = '\0';
    return n;
}

int from_stream(unsigned char* data, int n, const char* in, int avail) {
    if (n < 0 || avail < n) return 0;
    std::memcpy(data, in, n);
    return n;
}

int to_stream(const _MainPkgHead& v, char* out) {
    char* p = out;
    p += to_stream(v.Mark, p);
    p += to_stream(v.Handle, p);
    p += to_stream(v.Command, p);
    p += to_stream(v.Flags, p);
    p += to_stream(v.BodyLength, p);
    return static_cast<int>(p - out);
}

int to_stream(const _LoginReq& v, char* out) {
    char* p = out;
    p += to_stream(v.UserId, len(v.UserId), p);
    p += to_stream(v.Password, len(v.Password), p);
    p += to_stream(v.LoginFlag, p);
    p += to_stream(v.ClientVersion, len(v.ClientVersion), p);
    p += to_stream(v.ClientName, len(v.ClientName), p);
    p += to_stream(v.LoginType, p);
    p += to_stream(v.ClientKind, p);
    p += to_stream(v.ClientAddress, len(v.ClientAddress), p);
    p += to_stream(v.ClientPort, p);
    p += to_stream(v.ClientMac, len(v.ClientMac), p);
    return static_cast<int>(p - out);
}

int to_stream(const _MktSize& v, char* out) { return to_stream(v.Count, out); }

int to_stream(const _MarketInfo2& v, char* out) {
    return to_stream(v.MarketCode, len(v.MarketCode), out);
}

int to_stream(const _GetFileReq& v, char* out) {
    char* p = out;
    p += to_stream(v.RequestType, p);
    p += to_stream(v.FilePath, len(v.FilePath), p);
    p += to_stream(v.Md5, len(v.Md5), p);
    p += to_stream(v.FileSize, p);
    p += to_stream(v.Offset, p);
    return static_cast<int>(p - out);
}

int from_stream(_MainPkgHead& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.Mark);
    r.Get(v.Handle);
    r.Get(v.Command);
    r.Get(v.Flags);
    r.Get(v.BodyLength);
    return avail - r.left;
}

int from_stream(_TaskHead& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Text(v.Path, len(v.Path));
    return avail - r.left;
}

int from_stream(_ItemListHead& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.Total);
    r.Get(v.Start);
    r.Get(v.Count);
    return avail - r.left;
}

int from_stream(_TaskFileInfo& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Text(v.FileName, len(v.FileName));
    r.Bytes(v.Md5, len(v.Md5));
    r.Get(v.FileTime.LowTime);
    r.Get(v.FileTime.HighTime);
    r.Get(v.FileSize);
    return avail - r.left;
}

int from_stream(_FileTransfer& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.Part);
    return avail - r.left;
}

int from_stream(_FileTransferInfo& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.TransferId);
    r.Get(v.TransferKind);
    r.Text(v.FilePath, len(v.FilePath));
    r.Bytes(v.Md5, len(v.Md5));
    r.Get(v.Param1);
    r.Get(v.Param2);
    r.Get(v.FileSize);
    r.Get(v.StartPos);
    return avail - r.left;
}

int from_stream(_FileTransferBlock& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.BlockNo);
    r.Get(v.Offset);
    r.Get(v.DataLength);
    r.Bytes(v.Data, len(v.Data));
    return avail - r.left;
}

int from_stream(_FileTransferEnd& v, const char* in, int avail) {
    if (avail < size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.Result);
    return avail - r.left;
}

unsigned short QxsfNextHandle(unsigned short h) {
    unsigned short next = static_cast<unsigned short>(h + 1);
    return next == 0 ? 1 : next;
}

int QxsfEncodePackage(_MainPkgHead head, const unsigned char* body, int length, char* out,
                      int capacity) {
    if (capacity < QXSF_HEAD_SIZE) return -1;
    char* bodyOut = out + QXSF_HEAD_SIZE;
    const int bodyCapacity = capacity - QXSF_HEAD_SIZE;
    if (length < 1 || body == nullptr) {
        head.Flags = static_cast<char>(head.Flags & ~QXSF_FLAG_COMPRESSED);
        head.BodyLength = 0;
    } else {
        bool compressed = false;
        if (length >= QXSF_COMPRESS_THRESHOLD) {
            uLongf packed = static_cast<uLongf>(bodyCapacity);
            if (compress2(reinterpret_cast<Bytef*>(bodyOut), &packed, body,
                          static_cast<uLong>(length), Z_DEFAULT_COMPRESSION) == Z_OK &&
                packed < static_cast<uLongf>(length)) {
                compressed = true;
                head.Flags = static_cast<char>(head.Flags | QXSF_FLAG_COMPRESSED);
                head.BodyLength = static_cast<unsigned short>(packed);
            }
        }
        if (!compressed) {
            if (length > bodyCapacity || length > 0xFFFF) return -1;
            std::memcpy(bodyOut, body, length);
            head.Flags = static_cast<char>(head.Flags & ~QXSF_FLAG_COMPRESSED);
            head.BodyLength = static_cast<unsigned short>(length);
        }
    }
    to_stream(head, out);
    return QXSF_HEAD_SIZE + head.BodyLength;
}

int QxsfInflateBody(const char* in, int length, char* out, int capacity) {
    if (length < 0 || capacity < 0) return -1;
    uLongf outLen = static_cast<uLongf>(capacity);
    if (uncompress(reinterpret_cast<Bytef*>(out), &outLen, reinterpret_cast<const Bytef*>(in),
                   static_cast<uLong>(length)) != Z_OK)
        return -1;
    return static_cast<int>(outLen);
}
