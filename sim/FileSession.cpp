#include "FileSession.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "protocol/QxsfServerCodec.h"

namespace qxsim {

namespace {

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string BaseName(const std::string& path) {
    const size_t cut = path.find_last_of("/\\");
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

std::string PriceText(int32_t raw, int32_t divisor) {
    char text[32];
    int decimals = 0;
    for (int32_t d = divisor; d > 1; d /= 10) ++decimals;
    std::snprintf(text, sizeof(text), "%.*f", decimals, static_cast<double>(raw) / divisor);
    return text;
}

std::string ContractJson(const Market& market, const MarketInfo& m) {
    std::string json = "{\"ContractData\":[";
    bool first = true;
    for (int index : m.instruments) {
        const Instrument& inst = market.Instruments()[index];
        char item[512];
        std::snprintf(item, sizeof(item),
                      "%s\n{\"1\":\"%s\",\"2\":\"%s\",\"3\":\"%s\",\"4\":%u,\"5\":%u,\"13\":%s,\"2017\":%u,"
                      "\"2018\":%u}",
                      first ? "" : ",", ExchangeCode(inst.exchange), inst.code.c_str(), inst.nameUtf8.c_str(),
                      inst.listDate, inst.expireDate, PriceText(inst.tickRaw, inst.divisor).c_str(),
                      inst.deliveryStart, inst.deliveryEnd);
        json += item;
        first = false;
    }
    json += "\n]}\n";
    return json;
}

}  // namespace

UPDFILETIME FileTimeOf(int64_t epochMs) {
    const uint64_t ticks = (static_cast<uint64_t>(epochMs) + 11644473600000ULL) * 10000ULL;
    UPDFILETIME t;
    t.LowTime = static_cast<int>(static_cast<uint32_t>(ticks & 0xFFFFFFFFu));
    t.HighTime = static_cast<int>(static_cast<uint32_t>(ticks >> 32));
    return t;
}

void ContractStore::Build(const Market& market, int64_t nowMs) {
    m_files.clear();
    for (const MarketInfo& m : market.Markets()) {
        ContractFile f;
        f.market = ExchangeCode(m.exchange);
        f.name = Lower(f.market) + "_base_" + std::to_string(m.tradingDay) + ".json";
        f.content = ContractJson(market, m);
        f.time = FileTimeOf(nowMs);
        m_files.push_back(f);
    }
}

std::vector<const ContractFile*> ContractStore::ForMarket(const std::string& code) const {
    std::vector<const ContractFile*> out;
    for (const ContractFile& f : m_files)
        if (Lower(f.market) == Lower(code)) out.push_back(&f);
    return out;
}

const ContractFile* ContractStore::Find(const std::string& path) const {
    const std::string name = BaseName(path);
    for (const ContractFile& f : m_files)
        if (f.name == name) return &f;
    return nullptr;
}

FileSession::FileSession(const ContractStore& store, const FileOptions& options, LogFn log)
    : m_store(store), m_options(options), m_log(std::move(log)) {}

void FileSession::Log(const std::string& text) const {
    if (m_log) m_log(text);
}

std::string FileSession::TakeOutput() {
    std::string out;
    out.swap(m_out);
    return out;
}

void FileSession::Answer(unsigned short handle, char command, const std::vector<char>& body) {
    std::vector<char> package = qxsfsim::EncodePackage(handle, command, body, m_options.compress);
    m_out.append(package.data(), package.size());
}

void FileSession::OnReceive(const char* data, size_t length) {
    if (m_close) return;
    m_in.insert(m_in.end(), data, data + length);
    std::vector<qxsfsim::Package> packages;
    const bool framed = qxsfsim::ExtractPackages(m_in, packages);
    for (const qxsfsim::Package& p : packages) {
        if (m_close) break;
        const unsigned short handle = p.head.Handle;
        const int avail = static_cast<int>(p.body.size());
        switch (static_cast<unsigned char>(p.head.Command)) {
            case QXSF_CMD_LOGIN: {
                _LoginReq req;
                std::memset(&req, 0, sizeof(req));
                qxsfsim::from_stream(req, p.body.data(), avail);
                ++m_stats.logins;
                if ((!m_options.user.empty() && m_options.user != req.UserId) ||
                    (!m_options.password.empty() && m_options.password != req.Password)) {
                    Log(std::string("file login of \"") + req.UserId + "\" refused");
                    Answer(handle, QXSF_CMD_ERROR, std::vector<char>(4, 0));
                    m_close = true;
                    break;
                }
                m_loggedIn = true;
                Log(std::string("file login of \"") + req.UserId + "\" (" + req.ClientName + " " +
                    req.ClientVersion + ")");
                Answer(handle, QXSF_CMD_LOGIN, {});
                break;
            }
            case QXSF_CMD_MKTLIST: {
                qxsfsim::MarketList list;
                if (!m_loggedIn || !qxsfsim::DecodeMarketList(p.body, list)) {
                    Answer(handle, QXSF_CMD_ERROR, std::vector<char>(4, 0));
                    break;
                }
                ++m_stats.lists;
                std::vector<_TaskFileInfo> entries;
                std::string names;
                for (const std::string& code : list.codes) {
                    for (const ContractFile* f : m_store.ForMarket(code)) {
                        bool listed = false;
                        for (const _TaskFileInfo& e : entries) listed = listed || f->name == e.FileName;
                        if (listed) continue;
                        entries.push_back(qxsfsim::MakeTaskFileInfo(f->name, f->content, f->time));
                        names += (names.empty() ? "" : " ") + f->name;
                    }
                }
                Log("file list for " + std::to_string(list.codes.size()) + " market(s): " +
                    (names.empty() ? std::string("nothing") : names));
                const size_t total = entries.size();
                const size_t page = m_options.pageSize > 0 ? static_cast<size_t>(m_options.pageSize)
                                                           : std::max<size_t>(total, 1);
                size_t start = 0;
                do {
                    const size_t count = std::min(page, total - start);
                    std::vector<_TaskFileInfo> slice(entries.begin() + start, entries.begin() + start + count);
                    Answer(handle, static_cast<char>(QXSF_CMD_MKTLIST),
                           qxsfsim::ListPageBody(m_options.directory, static_cast<short>(total),
                                                 static_cast<short>(start), slice));
                    start += count;
                } while (start < total);
                break;
            }
            case QXSF_CMD_FILE: {
                _GetFileReq req;
                std::memset(&req, 0, sizeof(req));
                const ContractFile* file = nullptr;
                if (m_loggedIn && qxsfsim::from_stream(req, p.body.data(), avail) > 0) file = m_store.Find(req.FilePath);
                if (!file) {
                    Log(std::string("file request for unknown \"") + req.FilePath + "\"");
                    Answer(handle, QXSF_CMD_ERROR, std::vector<char>(4, 0));
                    break;
                }
                ++m_stats.files;
                const std::string& data = file->content;
                _FileTransferInfo info;
                std::memset(&info, 0, sizeof(info));
                info.TransferId = handle;
                info.TransferKind = 2;
                std::memcpy(info.FilePath, req.FilePath, sizeof(info.FilePath));
                qxsfsim::Md5Of(data, info.Md5);
                info.FileSize = static_cast<int>(data.size());
                Answer(handle, QXSF_CMD_FILE, qxsfsim::TransferInfoBody(info));
                for (size_t offset = 0; offset < data.size(); offset += QXSF_BLOCK_DATA) {
                    _FileTransferBlock block;
                    std::memset(&block, 0, sizeof(block));
                    block.BlockNo = static_cast<int>(offset / QXSF_BLOCK_DATA);
                    block.Offset = static_cast<int>(offset);
                    const size_t count = std::min<size_t>(QXSF_BLOCK_DATA, data.size() - offset);
                    block.DataLength = static_cast<short>(count);
                    std::memcpy(block.Data, data.data() + offset, count);
                    Answer(handle, QXSF_CMD_FILE, qxsfsim::TransferBlockBody(block));
                }
                Answer(handle, QXSF_CMD_FILE, qxsfsim::TransferEndBody(0));
                m_stats.bytes += data.size();
                Log("sent " + file->name + " (" + std::to_string(data.size()) + " bytes)");
                break;
            }
            default:
                Log("unknown file server command " + std::to_string(static_cast<unsigned char>(p.head.Command)));
                break;
        }
    }
    if (!framed) {
        Log("bad package head from the file client; closing");
        m_close = true;
    }
}

}  // namespace qxsim
