#include "support/FakeFileServer.h"

#include "protocol/Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace qxsfsim {

namespace {

std::string BaseName(const std::string& path) {
    size_t cut = path.find_last_of("/\\");
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

}  // namespace

FakeFileServer::FakeFileServer()
    : m_listenFd(-1), m_port(0), m_stop(false), m_connections(0), m_clientClosed(false) {}

FakeFileServer::~FakeFileServer() { Stop(); }

void FakeFileServer::SetScript(const ServerScript& script) { m_script = script; }

void FakeFileServer::AddFile(const ServedFile& file) { m_files.push_back(file); }

bool FakeFileServer::Start() {
    m_listenFd = orvex_test::ListenLoopback(0, 8, &m_port);
    if (m_listenFd < 0) return false;
    m_stop = false;
    m_thread = std::thread(&FakeFileServer::Run, this);
    return true;
}

void FakeFileServer::Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_listenFd >= 0) close(m_listenFd);
    m_listenFd = -1;
}

uint16_t FakeFileServer::UnusedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addrLen = sizeof(addr);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &addrLen);
    close(fd);
    return ntohs(addr.sin_port);
}

std::vector<Package> FakeFileServer::Received() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_received;
}

std::vector<Package> FakeFileServer::ReceivedWithCommand(char command) const {
    std::vector<Package> out;
    for (const Package& p : Received())
        if (p.head.Command == command) out.push_back(p);
    return out;
}

bool FakeFileServer::WaitFor(const std::function<bool(const std::vector<Package>&)>& pred,
                             int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return pred(m_received); });
}

void FakeFileServer::Run() {
    while (!m_stop) {
        pollfd pfd = {m_listenFd, POLLIN, 0};
        if (poll(&pfd, 1, 10) <= 0) continue;
        int fd = accept(m_listenFd, nullptr, nullptr);
        if (fd < 0) continue;
        ++m_connections;
        m_clientClosed = false;
        Serve(fd);
        close(fd);
    }
}

void FakeFileServer::Serve(int fd) {
    std::vector<char> buffer;
    char chunk[8192];
    while (!m_stop) {
        pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, 10) <= 0) continue;
        ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n <= 0) {
            m_clientClosed = true;
            return;
        }
        buffer.insert(buffer.end(), chunk, chunk + n);
        std::vector<Package> packages;
        bool framed = ExtractPackages(buffer, packages);
        for (const Package& p : packages) {
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_received.push_back(p);
            }
            m_changed.notify_all();
            if (!Answer(fd, p)) return;
        }
        if (!framed) return;
    }
}

std::vector<char> FakeFileServer::Pack(unsigned short handle, char command, const std::vector<char>& body) const {
    return EncodePackage(handle, command, body, m_script.compress);
}

bool FakeFileServer::SendAll(int fd, const std::vector<char>& data) {
    size_t sent = 0;
    size_t firstPiece = m_script.splitSends ? data.size() / 2 : data.size();
    while (sent < data.size()) {
        size_t limit = sent < firstPiece ? firstPiece : data.size();
        ssize_t n = send(fd, data.data() + sent, limit - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
        if (sent == firstPiece && sent < data.size()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

const ServedFile* FakeFileServer::FindFile(const std::string& path) const {
    const std::string name = BaseName(path);
    for (const ServedFile& f : m_files)
        if (BaseName(f.name) == name) return &f;
    return nullptr;
}

// Answers one client package. Returns false to drop the connection.
bool FakeFileServer::Answer(int fd, const Package& request) {
    const unsigned short handle = request.head.Handle;
    Misbehaviour act = Misbehaviour::None;
    switch (request.head.Command) {
        case QXSF_CMD_LOGIN: act = m_script.onLogin; break;
        case QXSF_CMD_MKTLIST: act = m_script.onMarketList; break;
        case QXSF_CMD_FILE: act = m_script.onFileRequest; break;
        default: return true;
    }

    std::vector<char> out;
    switch (act) {
        case Misbehaviour::Close:
            return false;
        case Misbehaviour::Silent:
            return true;
        case Misbehaviour::BadHeadByte: {
            out = Pack(handle, request.head.Command, {});
            out[0] = '#';
            SendAll(fd, out);
            return true;
        }
        case Misbehaviour::ErrorNotice:
            out = Pack(handle, QXSF_CMD_ERROR, std::vector<char>(4, 0));
            break;
        case Misbehaviour::UnknownCommand:
            out = Pack(handle, 77, std::vector<char>(10, 'x'));
            break;
        case Misbehaviour::OversizedBody: {
            out = EncodePackage(handle, request.head.Command, std::vector<char>(9000, 0), true);
            return SendAll(fd, out);
        }
        default:
            break;
    }

    auto append = [&out](const std::vector<char>& package) { out.insert(out.end(), package.begin(), package.end()); };

    if (request.head.Command == QXSF_CMD_LOGIN) {
        append(Pack(handle, QXSF_CMD_LOGIN, {}));
    } else if (request.head.Command == QXSF_CMD_MKTLIST) {
        std::vector<_TaskFileInfo> entries;
        for (const ServedFile& f : m_files) entries.push_back(MakeTaskFileInfo(f.name, f.content, f.time));
        const size_t total = entries.size();
        const size_t page = m_script.pageSize > 0 ? static_cast<size_t>(m_script.pageSize) : std::max<size_t>(total, 1);
        size_t start = 0;
        do {
            size_t count = std::min(page, total - start);
            std::vector<_TaskFileInfo> slice(entries.begin() + start, entries.begin() + start + count);
            append(Pack(handle, static_cast<char>(QXSF_CMD_MKTLIST),
                        ListPageBody(m_script.directory, static_cast<short>(total), static_cast<short>(start), slice)));
            start += count;
        } while (start < total);
    } else {
        _GetFileReq req;
        from_stream(req, request.body.data(), static_cast<int>(request.body.size()));
        const ServedFile* file = FindFile(req.FilePath);
        if (file == nullptr) {
            append(Pack(handle, QXSF_CMD_FILE, TransferEndBody(0)));
            return SendAll(fd, out);
        }
        std::string data = file->content;
        if (file->corrupt && !data.empty()) data[0] = static_cast<char>(data[0] ^ 0x5A);

        if (act == Misbehaviour::UnknownPart) {
            append(Pack(handle, QXSF_CMD_FILE, TransferPartOnlyBody(7)));
            return SendAll(fd, out);
        }

        _FileTransferInfo info;
        std::memset(&info, 0, sizeof(info));
        info.TransferId = handle;
        info.TransferKind = 2;
        std::memcpy(info.FilePath, req.FilePath, sizeof(info.FilePath));
        std::memcpy(info.Md5, req.Md5, sizeof(info.Md5));
        info.FileSize = act == Misbehaviour::HugeFile ? 0x7FFFFFFF : static_cast<int>(data.size());
        info.StartPos = 0;
        append(Pack(handle, QXSF_CMD_FILE, TransferInfoBody(info)));
        if (act == Misbehaviour::Stall) return SendAll(fd, out);

        const int blocks = static_cast<int>((data.size() + QXSF_BLOCK_DATA - 1) / QXSF_BLOCK_DATA);
        std::vector<int> order = file->blockOrder;
        if (order.empty())
            for (int i = 0; i < blocks; ++i) order.push_back(i);
        for (int index : order) {
            _FileTransferBlock block;
            std::memset(&block, 0, sizeof(block));
            block.BlockNo = index;
            block.Offset = index * QXSF_BLOCK_DATA;
            size_t count = std::min<size_t>(QXSF_BLOCK_DATA, data.size() - static_cast<size_t>(block.Offset));
            block.DataLength = static_cast<short>(count);
            std::memcpy(block.Data, data.data() + block.Offset, count);
            append(Pack(handle, QXSF_CMD_FILE, TransferBlockBody(block)));
        }
        append(Pack(handle, QXSF_CMD_FILE, TransferEndBody(0)));
    }
    return SendAll(fd, out);
}

}  // namespace qxsfsim
