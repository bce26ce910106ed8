#include "protocol/QxsfServerCodec.h"

#include <cstring>

#include <zlib.h>

#include "base/Md5.h"

namespace qxsfsim {

namespace {

// Sequential writer and bounded reader built on the library's primitives.
struct Writer {
    char* p;
    char* start;
    template <typename T>
    void Put(T v) { p += ::to_stream(v, p); }
    void Text(const char* text, int n) { p += ::to_stream(text, n, p); }
    void Bytes(const unsigned char* data, int n) { p += ::to_stream(data, n, p); }
    int Written() const { return static_cast<int>(p - start); }
};

struct Reader {
    const char* p;
    int left;
    template <typename T>
    void Get(T& v) { Advance(::from_stream(v, p, left)); }
    void Text(char* text, int n) { Advance(::from_stream(text, n, p, left)); }
    void Bytes(unsigned char* data, int n) { Advance(::from_stream(data, n, p, left)); }
    void Advance(int n) { p += n; left -= n; }
};

template <typename T>
std::vector<char> Encode(const T& v) {
    std::vector<char> out(static_cast<size_t>(::size(v)));
    to_stream(v, out.data());
    return out;
}

}  // namespace

int to_stream(const _TaskHead& v, char* out) {
    Writer w{out, out};
    w.Text(v.Path, len(v.Path));
    return w.Written();
}

int to_stream(const _ItemListHead& v, char* out) {
    Writer w{out, out};
    w.Put(v.Total);
    w.Put(v.Start);
    w.Put(v.Count);
    return w.Written();
}

int to_stream(const _TaskFileInfo& v, char* out) {
    Writer w{out, out};
    w.Text(v.FileName, len(v.FileName));
    w.Bytes(v.Md5, len(v.Md5));
    w.Put(v.FileTime.LowTime);
    w.Put(v.FileTime.HighTime);
    w.Put(v.FileSize);
    return w.Written();
}

int to_stream(const _FileTransfer& v, char* out) {
    Writer w{out, out};
    w.Put(v.Part);
    return w.Written();
}

int to_stream(const _FileTransferInfo& v, char* out) {
    Writer w{out, out};
    w.Put(v.TransferId);
    w.Put(v.TransferKind);
    w.Text(v.FilePath, len(v.FilePath));
    w.Bytes(v.Md5, len(v.Md5));
    w.Put(v.Param1);
    w.Put(v.Param2);
    w.Put(v.FileSize);
    w.Put(v.StartPos);
    return w.Written();
}

int to_stream(const _FileTransferBlock& v, char* out) {
    Writer w{out, out};
    w.Put(v.BlockNo);
    w.Put(v.Offset);
    w.Put(v.DataLength);
    w.Bytes(v.Data, len(v.Data));
    return w.Written();
}

int to_stream(const _FileTransferEnd& v, char* out) {
    Writer w{out, out};
    w.Put(v.Result);
    return w.Written();
}

int from_stream(_LoginReq& v, const char* in, int avail) {
    if (avail < ::size(v)) return 0;
    Reader r{in, avail};
    r.Text(v.UserId, len(v.UserId));
    r.Text(v.Password, len(v.Password));
    r.Get(v.LoginFlag);
    r.Text(v.ClientVersion, len(v.ClientVersion));
    r.Text(v.ClientName, len(v.ClientName));
    r.Get(v.LoginType);
    r.Get(v.ClientKind);
    r.Text(v.ClientAddress, len(v.ClientAddress));
    r.Get(v.ClientPort);
    r.Text(v.ClientMac, len(v.ClientMac));
    return avail - r.left;
}

int from_stream(_MktSize& v, const char* in, int avail) {
    if (avail < ::size(v)) return 0;
    return ::from_stream(v.Count, in, avail);
}

int from_stream(_MarketInfo2& v, const char* in, int avail) {
    if (avail < ::size(v)) return 0;
    return ::from_stream(v.MarketCode, len(v.MarketCode), in, avail);
}

int from_stream(_GetFileReq& v, const char* in, int avail) {
    if (avail < ::size(v)) return 0;
    Reader r{in, avail};
    r.Get(v.RequestType);
    r.Text(v.FilePath, len(v.FilePath));
    r.Bytes(v.Md5, len(v.Md5));
    r.Get(v.FileSize);
    r.Get(v.Offset);
    return avail - r.left;
}

std::vector<char> EncodePackage(unsigned short handle, char command, const std::vector<char>& body,
                                bool compress) {
    _MainPkgHead head;
    head.Mark = QXSF_MARK;
    head.Handle = handle;
    head.Command = command;
    head.Flags = 0;
    head.BodyLength = static_cast<unsigned short>(body.size());
    std::vector<char> wire = body;
    if (compress && !body.empty()) {
        uLongf packedLength = compressBound(static_cast<uLong>(body.size()));
        std::vector<char> packed(packedLength);
        if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packedLength,
                      reinterpret_cast<const Bytef*>(body.data()), static_cast<uLong>(body.size()),
                      Z_DEFAULT_COMPRESSION) == Z_OK &&
            packedLength < body.size()) {
            packed.resize(packedLength);
            wire = packed;
            head.Flags = QXSF_FLAG_COMPRESSED;
            head.BodyLength = static_cast<unsigned short>(packedLength);
        }
    }
    std::vector<char> out(QXSF_HEAD_SIZE);
    ::to_stream(head, out.data());
    out.insert(out.end(), wire.begin(), wire.end());
    return out;
}

bool ExtractPackages(std::vector<char>& buffer, std::vector<Package>& out) {
    while (buffer.size() >= static_cast<size_t>(QXSF_HEAD_SIZE)) {
        Package package;
        if (buffer[0] != QXSF_MARK ||
            ::from_stream(package.head, buffer.data(), static_cast<int>(buffer.size())) != QXSF_HEAD_SIZE)
            return false;
        const size_t total = QXSF_HEAD_SIZE + static_cast<size_t>(package.head.BodyLength);
        if (buffer.size() < total) break;
        package.wireBody.assign(buffer.begin() + QXSF_HEAD_SIZE, buffer.begin() + total);
        if ((package.head.Flags & QXSF_FLAG_COMPRESSED) != 0) {
            std::vector<char> inflated(65536);
            uLongf inflatedLength = inflated.size();
            if (uncompress(reinterpret_cast<Bytef*>(inflated.data()), &inflatedLength,
                           reinterpret_cast<const Bytef*>(package.wireBody.data()),
                           static_cast<uLong>(package.wireBody.size())) != Z_OK)
                return false;
            inflated.resize(inflatedLength);
            package.body = inflated;
        } else {
            package.body = package.wireBody;
        }
        out.push_back(package);
        buffer.erase(buffer.begin(), buffer.begin() + total);
    }
    return true;
}

std::vector<char> ListPageBody(const std::string& directory, short total, short start,
                               const std::vector<_TaskFileInfo>& files) {
    _TaskHead task;
    std::memset(&task, 0, sizeof(task));
    std::strncpy(task.Path, directory.c_str(), sizeof(task.Path) - 1);
    _ItemListHead items;
    items.Total = total;
    items.Start = start;
    items.Count = static_cast<short>(files.size());
    std::vector<char> body = Encode(task);
    std::vector<char> head = Encode(items);
    body.insert(body.end(), head.begin(), head.end());
    for (const _TaskFileInfo& file : files) {
        std::vector<char> entry = Encode(file);
        body.insert(body.end(), entry.begin(), entry.end());
    }
    return body;
}

std::vector<char> TransferPartOnlyBody(char part) {
    _FileTransfer transfer;
    transfer.Part = part;
    return Encode(transfer);
}

std::vector<char> TransferInfoBody(const _FileTransferInfo& info) {
    std::vector<char> body = TransferPartOnlyBody(QXSF_PART_INFO);
    std::vector<char> rest = Encode(info);
    body.insert(body.end(), rest.begin(), rest.end());
    return body;
}

std::vector<char> TransferBlockBody(const _FileTransferBlock& block) {
    std::vector<char> body = TransferPartOnlyBody(QXSF_PART_BLOCK);
    std::vector<char> rest = Encode(block);
    body.insert(body.end(), rest.begin(), rest.end());
    return body;
}

std::vector<char> TransferEndBody(int result) {
    std::vector<char> body = TransferPartOnlyBody(QXSF_PART_END);
    _FileTransferEnd end;
    end.Result = result;
    std::vector<char> rest = Encode(end);
    body.insert(body.end(), rest.begin(), rest.end());
    return body;
}

bool DecodeMarketList(const std::vector<char>& body, MarketList& out) {
    _MktSize count;
    int avail = static_cast<int>(body.size());
    int used = from_stream(count, body.data(), avail);
    if (used == 0 || count.Count < 0) return false;
    out.count = count.Count;
    out.codes.clear();
    for (int i = 0; i < count.Count; ++i) {
        _MarketInfo2 info;
        int n = from_stream(info, body.data() + used, avail - used);
        if (n == 0) return false;
        used += n;
        out.codes.push_back(info.MarketCode);
    }
    return used == avail;
}

void Md5Of(const std::string& data, unsigned char digest[16]) {
    MD5_CTX ctx;
    MD5Init(&ctx, 0);
    MD5Update(&ctx, reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned int>(data.size()));
    MD5Final(&ctx);
    std::memcpy(digest, ctx.digest, 16);
}

_TaskFileInfo MakeTaskFileInfo(const std::string& name, const std::string& content, UPDFILETIME time) {
    _TaskFileInfo info;
    std::memset(&info, 0, sizeof(info));
    std::strncpy(info.FileName, name.c_str(), sizeof(info.FileName) - 1);
    // The client keeps an all-zero digest for an empty file.
    if (!content.empty()) Md5Of(content, info.Md5);
    info.FileTime = time;
    info.FileSize = static_cast<int>(content.size());
    return info;
}

}  // namespace qxsfsim
