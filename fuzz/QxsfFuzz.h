// File-service pieces shared by the fuzz targets and the seed generator:
// the files a fuzzed worker has asked for before the input arrives, MD5 of
// a text, and encoders of the server's answers.
#ifndef ORVEX_FUZZ_QXSF_FUZZ_H
#define ORVEX_FUZZ_QXSF_FUZZ_H

#include <cstring>
#include <string>
#include <vector>

#include "base/Md5.h"
#include "sf/QxsfWire.h"

namespace orvex_fuzz {

// The digest a file is checked against; the client keeps an all-zero
// digest for an empty file, so the server lists it that way.
inline void Md5Of(const std::string& data, unsigned char digest[16]) {
    std::memset(digest, 0, 16);
    if (data.empty()) return;
    MD5_CTX ctx;
    MD5Init(&ctx, 0);
    MD5Update(&ctx, reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned>(data.size()));
    MD5Final(&ctx);
    std::memcpy(digest, ctx.digest, 16);
}

// A download the worker has requested under a handle.
struct RequestedFile {
    unsigned short handle;
    const char* path;      // as the list gave it: directory, backslash, name
    const char* content;   // what the server will send
    UPDFILETIME time;
};

inline const std::vector<RequestedFile>& RequestedFiles() {
    static const std::vector<RequestedFile> files = {
        {1, "contract\\shfe_base_1.json",
         R"({"ContractData":[{"2":"cu2401","13":10.5,"4":5,"5":1,"2017":20240115,"2018":20240116},)"
         R"({"2":"cu2402","13":0,"4":0},{"2":"cu2401","13":1}]})",
         {100, 200}},
        {2, "contract\\dce_base_2.json", "", {1, 2}},
        {3, "contract\\..", "x", {0, 0}},
        {4, "srv/data\\shfe_base_3.json", "{\"ContractData\":[{\"2\":\"al2405\"}]}", {7, 8}},
    };
    return files;
}

// ---- server answers ---------------------------------------------------------

class WireWriter {
public:
    template <class T>
    WireWriter& Put(T v) {
        const char* p = reinterpret_cast<const char*>(&v);
        bytes.insert(bytes.end(), p, p + sizeof v);
        return *this;
    }
    // Fixed-width text, cut and NUL-padded.
    WireWriter& Text(const std::string& s, size_t width) {
        for (size_t i = 0; i < width; ++i) bytes.push_back(i < s.size() ? s[i] : '\0');
        return *this;
    }
    WireWriter& Raw(const std::string& s) {
        bytes.insert(bytes.end(), s.begin(), s.end());
        return *this;
    }
    std::vector<char> bytes;
};

// Head and body, uncompressed unless a compressed body is given.
inline std::vector<char> Package(unsigned short handle, char command, const std::vector<char>& body,
                                 bool compressed = false) {
    WireWriter w;
    w.Put<char>(QXSF_MARK).Put<unsigned short>(handle).Put<char>(command);
    w.Put<char>(compressed ? QXSF_FLAG_COMPRESSED : 0).Put<unsigned short>(static_cast<unsigned short>(body.size()));
    w.bytes.insert(w.bytes.end(), body.begin(), body.end());
    return w.bytes;
}

struct ListedFile {
    std::string name;
    std::string content;
    UPDFILETIME time;
};

inline std::vector<char> ListPage(const std::string& directory, short total, short start,
                                  const std::vector<ListedFile>& files) {
    WireWriter w;
    w.Text(directory, 128);
    w.Put<short>(total).Put<short>(start).Put<short>(static_cast<short>(files.size()));
    for (const ListedFile& f : files) {
        unsigned char md5[16];
        Md5Of(f.content, md5);
        w.Text(f.name, 128);
        w.bytes.insert(w.bytes.end(), md5, md5 + 16);
        w.Put<int>(f.time.LowTime).Put<int>(f.time.HighTime).Put<int>(static_cast<int>(f.content.size()));
    }
    return w.bytes;
}

inline std::vector<char> TransferInfo(const std::string& path, int fileSize) {
    WireWriter w;
    w.Put<char>(QXSF_PART_INFO);
    w.Put<int>(1).Put<char>(2).Text(path, 256).Text("", 16).Put<int>(0).Put<int>(0).Put<int>(fileSize).Put<int>(0);
    return w.bytes;
}

inline std::vector<char> TransferBlock(int blockNo, int offset, const std::string& data) {
    WireWriter w;
    w.Put<char>(QXSF_PART_BLOCK);
    w.Put<int>(blockNo).Put<int>(offset).Put<short>(static_cast<short>(data.size()));
    w.Text(data, QXSF_BLOCK_DATA);
    return w.bytes;
}

inline std::vector<char> TransferEnd(int result) {
    WireWriter w;
    w.Put<char>(QXSF_PART_END).Put<int>(result);
    return w.bytes;
}

}  // namespace orvex_fuzz

#endif
