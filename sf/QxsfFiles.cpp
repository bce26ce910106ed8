// CQXSFThread: contract file list, downloads and the local cache.
//
// Cache layout: ./cache/<market>_base_<number>.json plus the index
// ./cache/cache.ini, which keeps one time stamp per market (not per file):
// a market with several base files stores the stamp of the one verified
// last, so its other files count as changed at the next check.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/IniFile.h"
#include "base/Md5.h"
#include "sf/QXSFThread.h"

namespace {

const char* const kCacheDir = "./cache/";
const int kPiece = 4096;

// A cache file, closed by its owner on every path.
struct FileCloser {
    void operator()(FILE* f) const {
        if (f) std::fclose(f);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

File Open(const std::string& path, const char* mode) { return File(std::fopen(path.c_str(), mode)); }

// Splits a name as "%[^_]_%[^_]_%d.json" does; returns the number of parts
// converted (the ".json" tail itself is not checked, as with sscanf).
int SplitFileName(const char* name, std::string* market, std::string* kind, int* number) {
    const size_t n = std::strlen(name);
    std::vector<char> a(n + 1, '\0');
    std::vector<char> b(n + 1, '\0');
    int num = 0;
    int parts = std::sscanf(name, "%[^_]_%[^_]_%d.json", a.data(), b.data(), &num);
    if (parts < 0) parts = 0;
    if (market) *market = a.data();
    if (kind) *kind = b.data();
    if (number) *number = num;
    return parts;
}

bool IsBaseFile(const char* name) {
    std::string kind;
    return SplitFileName(name, nullptr, &kind, nullptr) == 3 && kind == "base";
}

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// MD5 of up to `bytes` bytes read from f in pieces of at most 4096; a
// non-positive count leaves the digest all zero. A file shorter than the
// count is digested as far as it goes.
void DigestFile(FILE* f, long long bytes, unsigned char digest[16]) {
    std::memset(digest, 0, 16);
    if (bytes <= 0) return;
    MD5_CTX ctx;
    MD5Init(&ctx, 0);
    unsigned char piece[kPiece];
    while (bytes > 0) {
        size_t want = static_cast<size_t>(std::min<long long>(bytes, kPiece));
        size_t got = std::fread(piece, 1, want, f);
        if (got == 0) break;
        MD5Update(&ctx, piece, static_cast<unsigned int>(got));
        bytes -= static_cast<long long>(got);
    }
    MD5Final(&ctx);
    std::memcpy(digest, ctx.digest, 16);
}

bool SameRecord(const _TaskFileInfo2& a, const _TaskFileInfo2& b) {
    return a.FileSize == b.FileSize && std::memcmp(&a.FileTime, &b.FileTime, sizeof(UPDFILETIME)) == 0 &&
           std::memcmp(a.Md5, b.Md5, sizeof(a.Md5)) == 0;
}

}  // namespace

std::string CQXSFThread::GetMkt(const char* fileName) {
    if (fileName == nullptr) return std::string();
    std::string market;
    std::string kind;
    if (SplitFileName(fileName, &market, &kind, nullptr) != 3 || kind != "base") return std::string();
    return Lower(market);
}

std::string CQXSFThread::LocalFileName(const char* path) {
    if (path == nullptr) return std::string();
    const char* name = path;
    for (const char* p = path; *p != '\0'; ++p)
        if (*p == '/' || *p == '\\') name = p + 1;
    std::string result(name);
    if (result == "." || result == "..") return std::string();
    return result;
}

UPDFILETIME CQXSFThread::GetFileTime(const char* market) {
    UPDFILETIME time = {0, 0};
    if (market == nullptr || market[0] == '\0') return time;
    CIniFile index(m_strCacheIndex);
    time.LowTime = index.GetValueI(market, "lowtime", 0);
    time.HighTime = index.GetValueI(market, "hightime", 0);
    return time;
}

void CQXSFThread::SetFileTime(const char* market, UPDFILETIME& time) {
    if (market == nullptr || market[0] == '\0') return;
    CIniFile index(m_strCacheIndex);
    index.SetValueI(market, "lowtime", time.LowTime);
    index.SetValueI(market, "hightime", time.HighTime);
    index.WriteFile();
}

void CQXSFThread::GetFiles(std::vector<std::string>& names) {
    std::lock_guard<std::mutex> lock(m_FilesLock);
    for (const auto& known : m_mapKnownFiles) {
        if (m_mapHandedOut.count(known.first) != 0) continue;
        names.push_back(known.first);
        m_mapHandedOut[known.first] = true;
    }
}

void CQXSFThread::UpdateOver() {
    if (m_vDownloadQueue.empty() && m_mapRequested.empty()) m_bOver = true;
}

bool CQXSFThread::ProcessMktFileList(char* body, int length) {
    static const char* const kShort = "Client QXSF exception packet length when the filelist load.";
    _TaskHead task{};
    _ItemListHead items{};
    if (length < size(task) + size(items)) {
        DumpLog(kShort);
        OnRspInstrument(8195, kShort, true);
        return false;
    }
    int pos = from_stream(task, body, length);
    std::string directory(task.Path);
    if (!directory.empty() && (directory.back() == '/' || directory.back() == '\\'))
        directory.back() = '\\';
    else
        directory += '\\';

    // Every page starts the list afresh: a list sent in several pages keeps
    // only the files of its last page.
    m_vPendingList.clear();
    m_vCurrentList.clear();

    pos += from_stream(items, body + pos, length - pos);
    _TaskFileInfo file{};
    if (items.Count < 0 || length < pos + size(file) * items.Count) {
        OnRspInstrument(8195, kShort, true);
        return false;
    }
    for (int i = 0; i < items.Count; ++i) {
        pos += from_stream(file, body + pos, length - pos);
        _TaskFileInfo2 record;
        std::memset(&record, 0, sizeof(record));
        std::snprintf(record.FilePath, sizeof(record.FilePath), "%s%s", directory.c_str(), file.FileName);
        std::memcpy(record.Md5, file.Md5, sizeof(record.Md5));
        record.FileTime = file.FileTime;
        record.FileSize = file.FileSize;
        if (IsBaseFile(file.FileName)) m_vPendingList.push_back(record);
    }
    if (items.Start + items.Count == items.Total) {
        m_vCurrentList = m_vPendingList;
        CheckMktFileList();
    }
    return true;
}

void CQXSFThread::CheckMktFileList() {
    std::lock_guard<std::mutex> lock(m_FilesLock);
    m_vDownloadQueue.clear();
    std::map<std::string, _TaskFileInfo2> verified;
    for (const _TaskFileInfo2& record : m_vCurrentList) {
        if (record.FilePath[0] == '\0') continue;
        const std::string name = LocalFileName(record.FilePath);
        if (name.empty()) continue;   // never a name outside the cache
        bool upToDate = false;
        auto known = m_mapKnownFiles.find(name);
        if (known != m_mapKnownFiles.end()) {
            upToDate = SameRecord(known->second, record);
        } else {
            if (File f = Open(kCacheDir + name, "rb")) {
                std::fseek(f.get(), 0, SEEK_END);
                long fileSize = std::ftell(f.get());
                std::fseek(f.get(), 0, SEEK_SET);
                UPDFILETIME cached = GetFileTime(GetMkt(name.c_str()).c_str());
                unsigned char digest[16];
                DigestFile(f.get(), fileSize, digest);
                upToDate = fileSize == record.FileSize &&
                           std::memcmp(&cached, &record.FileTime, sizeof(UPDFILETIME)) == 0 &&
                           std::memcmp(digest, record.Md5, sizeof(digest)) == 0;
            }
        }
        if (upToDate)
            verified[name] = record;
        else
            m_vDownloadQueue.push_back(record);
    }
    m_mapKnownFiles = verified;
    UpdateOver();
}

bool CQXSFThread::DownloadFile() {
    if (m_vDownloadQueue.empty()) return true;
    _TaskFileInfo2 record = m_vDownloadQueue.front();
    m_vDownloadQueue.erase(m_vDownloadQueue.begin());
    if (record.FilePath[0] == '\0') return true;
    const std::string name = LocalFileName(record.FilePath);
    if (name.empty()) return true;
    // The local copy is always rebuilt from scratch.
    std::remove((kCacheDir + name).c_str());

    m_nHandle = QxsfNextHandle(m_nHandle);
    _MainPkgHead head;
    head.Mark = QXSF_MARK;
    head.Handle = m_nHandle;
    head.Command = QXSF_CMD_FILE;
    head.Flags = 0;
    head.BodyLength = 0;
    _GetFileReq req;
    std::memset(&req, 0, sizeof(req));
    req.RequestType = 2;
    std::memcpy(req.FilePath, record.FilePath, sizeof(req.FilePath) - 1);
    std::memcpy(req.Md5, record.Md5, sizeof(req.Md5));
    req.FileSize = record.FileSize;
    req.Offset = 0;
    char body[sizeof(_GetFileReq) + 8];
    int length = to_stream(req, body);
    if (!SendRequest(head, reinterpret_cast<unsigned char*>(body), length, 5)) {
        OnRspInstrument(8195, "Client QXSF send package error when upload file.", true);
        return false;
    }
    m_mapRequested[m_nHandle] = record;
    return true;
}

bool CQXSFThread::ProcessMktFile(int handle, char* body, int length) {
    static const char* const kShortPart =
        "Client QXSF exception packet length when the file is downloaded\xA3\xBA%s";
    const unsigned short key = static_cast<unsigned short>(handle);
    auto requested = m_mapRequested.find(key);
    if (requested == m_mapRequested.end()) {
        char text[128];
        std::snprintf(text, sizeof(text), "Client QXSF an exception hanle not found\xA3\xBA%d", handle);
        OnRspInstrument(8195, text, true);
        return false;
    }
    _FileTransfer transfer{};
    if (length < size(transfer)) {
        OnRspInstrument(8195, "Client QXSF exception packet length when the file is downloaded", true);
        return false;
    }
    from_stream(transfer, body, length);
    const char* rest = body + size(transfer);
    const int restLength = length - size(transfer);
    const std::string name = LocalFileName(requested->second.FilePath);
    if (name.empty()) return true;
    const std::string path = kCacheDir + name;

    switch (transfer.Part) {
        case QXSF_PART_INFO: {
            _FileTransferInfo info{};
            if (restLength < size(info)) {
                ReportFile(8195, kShortPart, path);
                return false;
            }
            from_stream(info, rest, restLength);
            if (info.FileSize < 0 || info.StartPos < 0) {
                ReportFile(8195, kShortPart, path);
                return false;
            }
            // The server decides how much is zero-filled: more than any
            // contract file could need is refused before anything is written.
            if (static_cast<long long>(info.FileSize) > m_nMaxFileSize) {
                char text[512];
                std::snprintf(text, sizeof(text), "Client QXSF file %s too large: %d bytes (limit %lld).",
                              path.c_str(), info.FileSize, m_nMaxFileSize);
                OnRspInstrument(8195, text, true);
                DumpLog(text);
                return false;
            }
            std::remove(path.c_str());
            File f = Open(path, "wb+");
            if (!f) {
                ReportFile(65535, "Client QXSF create file\xA3\xBA%s failed.", path);
                return false;
            }
            // The file was just made empty: fill it to its size.
            static const char zeros[kPiece] = {0};
            long left = info.FileSize;
            // A worker being released stops filling at once.
            while (left > 0 && m_bRunning) {
                size_t piece = static_cast<size_t>(std::min<long>(left, kPiece));
                if (std::fwrite(zeros, 1, piece, f.get()) != piece) break;
                left -= static_cast<long>(piece);
            }
            m_mapWriting[key] = requested->second;
            return true;
        }
        case QXSF_PART_BLOCK: {
            File f = Open(path, "rb+");
            if (!f) {
                ReportFile(65535, "Client QXSF write file\xA3\xBA%s failed.", path);
                return false;
            }
            _FileTransferBlock block{};
            if (restLength < size(block)) {
                ReportFile(8195, kShortPart, path);
                return false;
            }
            from_stream(block, rest, restLength);
            if (block.Offset < 0) {
                ReportFile(8195, kShortPart, path);
                return false;
            }
            int count = std::max<int>(0, std::min<int>(block.DataLength, QXSF_BLOCK_DATA));
            std::fseek(f.get(), block.Offset, SEEK_SET);
            std::fwrite(block.Data, 1, static_cast<size_t>(count), f.get());
            return true;
        }
        case QXSF_PART_END: {
            auto writing = m_mapWriting.find(key);
            if (writing == m_mapWriting.end()) {
                OnRspInstrument(8195, "Client QXSF  loadfile end hanle not found!", true);
                return false;
            }
            File f = Open(path, "rb");
            if (!f) {
                ReportFile(65535, "Client QXSF loadfile end open file\xA3\xBA%s failed.", path);
                return false;
            }
            _FileTransferEnd end{};
            if (restLength < size(end)) {
                OnRspInstrument(8195, "Client QXSF pack error!", true);
                return false;
            }
            from_stream(end, rest, restLength);
            _TaskFileInfo2 record = writing->second;
            unsigned char digest[16];
            DigestFile(f.get(), record.FileSize, digest);
            f.reset();
            if (std::memcmp(digest, record.Md5, sizeof(digest)) != 0) {
                ReportFile(65535, "Client QXSF loadfile md5 error, load file\xA3\xBA%s failed.", path);
                return false;
            }
            SetFileTime(GetMkt(name.c_str()).c_str(), record.FileTime);
            {
                std::lock_guard<std::mutex> lock(m_FilesLock);
                m_mapKnownFiles[name] = record;
            }
            m_mapWriting.erase(writing);
            m_mapRequested.erase(key);
            // Over only when nothing is queued either: with a fast server the
            // last request can complete before the next one is sent.
            UpdateOver();
            char line[512];
            std::snprintf(line, sizeof(line), "Client QXSF load file success\xA3\xBA%s.", path.c_str());
            DumpLog(line);
            return true;
        }
        default:
            ReportFile(8195, "Client QXSF An exception packet appears when the file is downloaded\xA3\xBA%s",
                       path);
            return false;
    }
}

void CQXSFThread::CheckLocalFile() {
    DIR* dir = opendir(kCacheDir);
    if (dir == nullptr) return;
    std::map<std::string, int> highest;
    while (struct dirent* entry = readdir(dir)) {
        std::string market;
        std::string kind;
        int number = 0;
        if (SplitFileName(entry->d_name, &market, &kind, &number) != 3) continue;
        const std::string path = std::string(kCacheDir) + entry->d_name;
        if (kind != "base") {
            std::remove(path.c_str());
            continue;
        }
        // Order-dependent on purpose: an older file met before a newer one
        // of the same market survives this pass.
        auto it = highest.find(market);
        if (it != highest.end() && it->second > number) {
            std::remove(path.c_str());
        } else {
            highest[market] = number;
        }
    }
    closedir(dir);
}
