// A scriptable QXSF file server on 127.0.0.1 for tests.
//
// It listens on an ephemeral port and serves one connection after another
// in its own thread. Every client package is recorded (head and inflated
// body). By default it plays a well-behaved server: the login is accepted,
// the market list is answered with the list of the served files (in pages
// when asked), and each file request is answered at once with the file's
// information, its blocks and the end. The script can replace each of
// those answers with a misbehaviour.
#ifndef ORVEX_TESTS_SUPPORT_FAKE_FILE_SERVER_H
#define ORVEX_TESTS_SUPPORT_FAKE_FILE_SERVER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "protocol/QxsfServerCodec.h"

namespace qxsfsim {

enum class Misbehaviour {
    None,
    Close,            // close the connection instead of answering
    BadHeadByte,      // answer with a package whose first byte is not '@'
    ErrorNotice,      // send a command-1 error notice, then answer normally
    UnknownCommand,   // send a package of an unknown command, then answer normally
    UnknownPart,      // file request: a transfer whose Part is 7
    Stall,            // file request: send the information part, then nothing
    Silent,           // do not answer at all
    OversizedBody,    // market list: a compressed answer inflating beyond 8192 bytes
    HugeFile,         // file request: the information part announces 2 GiB - 1 bytes
};

struct ServedFile {
    std::string name;               // listed file name, e.g. "shfe_base_1.json"
    std::string content;            // the listed digest and size describe this
    UPDFILETIME time = {0, 0};
    bool corrupt = false;           // send content with its first byte changed
    std::vector<int> blockOrder;    // order of the 4096-byte blocks; empty: ascending
};

struct ServerScript {
    std::string directory = "contract\\";
    int pageSize = 0;               // files per list page; 0: one page
    bool compress = false;          // deflate answers where it makes them shorter
    bool splitSends = false;        // send each answer in two pieces, a moment apart
    Misbehaviour onLogin = Misbehaviour::None;
    Misbehaviour onMarketList = Misbehaviour::None;
    Misbehaviour onFileRequest = Misbehaviour::None;
};

class FakeFileServer {
public:
    FakeFileServer();
    ~FakeFileServer();

    FakeFileServer(const FakeFileServer&) = delete;
    FakeFileServer& operator=(const FakeFileServer&) = delete;

    // Script and files; set them before a client connects.
    void SetScript(const ServerScript& script);
    void AddFile(const ServedFile& file);

    // Listens on 127.0.0.1 and starts serving. False when the socket fails.
    bool Start();
    void Stop();
    uint16_t Port() const { return m_port; }

    // Everything received so far, in order, over all connections.
    std::vector<Package> Received() const;
    std::vector<Package> ReceivedWithCommand(char command) const;
    int Connections() const { return m_connections.load(); }
    // True once the current connection has been closed by the client.
    bool ClientClosed() const { return m_clientClosed.load(); }

    // Waits until pred(Received()) holds or timeoutMs pass.
    bool WaitFor(const std::function<bool(const std::vector<Package>&)>& pred, int timeoutMs) const;

    // A port on 127.0.0.1 where nothing listens (just released).
    static uint16_t UnusedPort();

private:
    void Run();
    void Serve(int fd);
    bool Answer(int fd, const Package& request);
    bool SendAll(int fd, const std::vector<char>& data);
    std::vector<char> Pack(unsigned short handle, char command, const std::vector<char>& body) const;
    const ServedFile* FindFile(const std::string& path) const;

    ServerScript m_script;
    std::vector<ServedFile> m_files;
    int m_listenFd;
    uint16_t m_port;
    std::thread m_thread;
    std::atomic<bool> m_stop;
    std::atomic<int> m_connections;
    std::atomic<bool> m_clientClosed;
    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    std::vector<Package> m_received;
};

}  // namespace qxsfsim

#endif
