// File-service receive path: the input is what a file server sends to a
// worker that is logged in and has asked for the files of RequestedFiles()
// under handles 1-4. The worker is not started; the input goes through a
// socket pair into its receive buffer (ReadData), then CheckRequest cuts and
// handles the packages (login answer, list pages, file transfers) and
// DownloadFile sends the requests the lists cause, as the worker loop does.
// At the end the verified files are loaded as contract files and the cache
// is pruned.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "fuzz/QxsfFuzz.h"
#include "fuzz/TouchSpi.h"
#include "sf/QXSFThread.h"

namespace {

// The worker keeps its socket, its request map and its log switch to
// itself; a fuzzer has to set them up. Explicit instantiation may name
// private members, which gives a pointer to each.
template <class Tag, typename Tag::type Member>
struct Expose {
    friend typename Tag::type Get(Tag) { return Member; }
};
struct SocketOf {
    using type = int64_t CQXSFThread::*;
    friend type Get(SocketOf);
};
struct RequestsOf {
    using type = std::map<unsigned short, _TaskFileInfo2> CQXSFThread::*;
    friend type Get(RequestsOf);
};
struct LogOf {
    using type = bool CQXSFThread::*;
    friend type Get(LogOf);
};
template struct Expose<SocketOf, &CQXSFThread::m_hSocket>;
template struct Expose<RequestsOf, &CQXSFThread::m_mapRequested>;
template struct Expose<LogOf, &CQXSFThread::m_bLog>;

_TaskFileInfo2 Record(const orvex_fuzz::RequestedFile& f) {
    _TaskFileInfo2 r;
    std::memset(&r, 0, sizeof r);
    std::strncpy(r.FilePath, f.path, sizeof r.FilePath - 1);
    orvex_fuzz::Md5Of(f.content, r.Md5);
    r.FileTime = f.time;
    r.FileSize = static_cast<int>(std::strlen(f.content));
    return r;
}

void Drain(int fd) {
    char buf[8192];
    while (recv(fd, buf, sizeof buf, 0) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    mkdir("cache", 0775);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every input starts from an empty cache.
    orvex_fuzz::EmptyDir("cache");

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    int big = 1 << 20;
    setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);

    _QryInstrumentInfo query;
    std::memset(&query, 0, sizeof query);
    query.nRequestID = 7;
    orvex_fuzz::TouchSpi spi;
    CQXSFThread* worker = new CQXSFThread("", &query, {"SHFE", "DCE"});
    worker->RegisterSpi(&spi);
    worker->*Get(LogOf()) = false;
    worker->UpLoadMarket();
    for (const orvex_fuzz::RequestedFile& f : orvex_fuzz::RequestedFiles())
        (worker->*Get(RequestsOf()))[f.handle] = Record(f);
    worker->*Get(SocketOf()) = fds[0];

    // The server's bytes, then its end of the stream.
    size_t sent = 0;
    while (sent < size) {
        ssize_t n = send(fds[1], data + sent, size - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    shutdown(fds[1], SHUT_WR);

    // The worker loop, without waiting.
    for (int turn = 0; turn < 1000; ++turn) {
        if (worker->ReadData() < 1) break;
        if (!worker->CheckRequest()) break;
        if (!worker->DownloadFile()) break;
        Drain(fds[1]);
        if (worker->IsOver()) break;
    }
    Drain(fds[1]);

    QxsfContractMap contracts;
    worker->LoadMktField(contracts);
    for (const auto& market : contracts)
        for (const auto& inst : market.second) spi.Read(&inst.second);
    orvex_fuzz::Keep(spi.sum);

    // The daily pruning of the cache runs over whatever names the input
    // made the worker write.
    CQXSFThread::CheckLocalFile();

    delete worker;   // closes its end of the pair
    close(fds[1]);
    return 0;
}
