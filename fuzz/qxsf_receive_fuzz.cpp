// File-service receive path: the input is what a file server sends to a
// worker that is logged in and has asked for the files of RequestedFiles()
// under handles 1-4. The worker is not started; the input goes into its
// package reader (OnReceived), which cuts and hands the packages to their
// handlers (login answer, list pages, file transfers), and DownloadFile
// sends the requests the lists cause, as the worker loop does.
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
    worker->SetLogForTest(false);
    worker->UpLoadMarket();
    for (const orvex_fuzz::RequestedFile& f : orvex_fuzz::RequestedFiles())
        worker->ExpectFileForTest(f.handle, Record(f));
    // Its requests go out on one end of a socket pair and are dropped.
    worker->AttachSocketForTest(fds[0]);

    // The worker loop, without waiting: the server's bytes arrive in reads
    // of up to 4096 bytes, each followed by the requests they cause.
    const char* bytes = reinterpret_cast<const char*>(data);
    for (size_t pos = 0; pos < size;) {
        const size_t n = size - pos < 4096 ? size - pos : 4096;
        if (!worker->OnReceived(bytes + pos, n)) break;
        pos += n;
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
