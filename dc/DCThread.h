// CDCThread: the API object, the one implementation of COrvexWiraMdApi.
//
// It owns the exported operations, the configuration, the daily log, the
// fronts, the connection to the quote server and its frame cutter, the DC
// worker thread and its timers, the queues that carry subscriptions and
// queries from the caller's thread to the worker, the request-handle map,
// the file-service workers, and the market-data engine (CMdEngine), which
// it drives: received bytes go through the cutter straight into the engine,
// and the engine asks for requests and login effects through
// IMdEngineHost.
//
// Threads: the caller's thread runs construction, Register*, Init, Join,
// Release, ReqUserLogin and the three queueing operations; the DC worker
// runs everything else and makes every callback (file-service workers make
// their own error answers; a failed send reports OnFrontLost on the thread
// that sent).
//
// Locks: sending and everything that closes the socket happen under the
// send lock, so frames from the caller's thread and from the worker never
// interleave. No callback is made while it is held: a reset records the
// loss under the lock and reports it after releasing it. The queues are
// swapped out under their own short locks and served without them, so a
// callback may queue more work.
#ifndef ORVEX_DC_DCTHREAD_H
#define ORVEX_DC_DCTHREAD_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "api/OrvexWiraMdApi.h"
#include "base/IniFile.h"
#include "base/MThread.h"
#include "dc/FrameCutter.h"
#include "dc/MdEngine.h"
#include "sf/FrontInfo.h"
#include "sf/QryInstrumentInfo.h"

class CQXSFThread;

// Reasons handed to OnFrontLost.
enum : int {
    kReasonServerClosed = 0,
    kReasonNoSocket = 0x1000,
    kReasonReadError = 0x1001,
    kReasonSendError = 0x1002,
    kReasonNoFront = 0x1003,
    kReasonBadFrame = 0x2003,
    kReasonLoginOther = 0x2004,
    kReasonLoginCode9 = 0x2005,
    kReasonLoginCode8 = 0x2006,
    kReasonException = 65535,
};

class CDCThread : public COrvexWiraMdApi, public IMdEngineHost {
public:
    CDCThread(const char* flowPath, bool deliverSnapshot);
    CDCThread(const CDCThread&) = delete;
    CDCThread& operator=(const CDCThread&) = delete;
    // Appended after the interface's slot 12: complete and deleting
    // destructor.
    virtual ~CDCThread();

    // ---- exported operations ----
    void Release() override;
    void Init() override;
    int Join() override;
    const char* GetTradingDay() override;
    void RegisterFront(char* address) override;
    void RegisterNameServer(char* address) override;
    void RegisterFensUserInfo(COrvexWiraFensUserInfoField* info) override;
    void RegisterSpi(COrvexWiraMdSpi* spi) override;
    int SubscribeMarketData(char* ids[], int count) override;
    int UnSubscribeMarketData(char* ids[], int count) override;
    int ReqUserLogin(COrvexWiraReqUserLoginField* request, int requestId) override;
    int ReqUserLogout(COrvexWiraUserLogoutField* logout, int requestId) override;
    int ReqQryInstrument(COrvexWiraQryInstrumentField* query, int requestId) override;

    // ---- configuration, fronts, log ----
    bool LogEnabled() const { return m_bLog; }
    bool SubscribeEnabled() const { return m_engine.Settings().subscribe; }
    bool DeltaEnabled() const { return m_engine.Settings().deltaQuot; }
    int LevelSetting() const { return m_engine.Settings().level; }
    // Seconds without data after which the connection is dropped (0: never).
    unsigned RecvTimeoutSeconds() const { return m_nRecvTimeoutMs / 1000; }
    bool DomesticExchanges() const { return m_engine.Settings().domesticExchanges; }
    const char* FlowPath() const { return m_szFlowPath; }
    size_t FrontCount() const { return m_fronts.size(); }
    _FrontInfo Front(size_t i) const {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        return m_fronts[i];
    }
    // Appends "HH:MM:SS text" to "<flow>Orvex_YYYYMMDD.log" (whether or not
    // logging is on; Log() tests the flag).
    void DumpLog(const char* text) override;
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // ---- connection ----
    bool IsConnected() const { return m_socket.load() != -1; }
    // Closes the socket, clears the per-connection state and, when a
    // connection was open, reports OnFrontLost(reason) after releasing the
    // send lock. Must not be called with the send lock held.
    void Reset(int reason);
    // Cuts and dispatches received bytes as the worker does after a
    // receive; a protocol error resets with reason 8195. The entry point for
    // tests and fuzzers that feed bytes without a server.
    void OnReceived(const char* data, size_t length);
    // One pass of the worker's queue service: instrument queries, finished
    // file-service workers and their answers, then (in subscription mode)
    // subscriptions and unsubscriptions.
    void ServeQueues();

    // ---- requests (1: whole frame sent, 0: send failed and reset 4098) ----
    int HeartBeat();
    int ReqMarketNametable(int market) override;
    int ReqMarketStatus(int market) override;
    int ReqQuotation(int market) override;
    int SubscribeDynainfo(int selector) override;
    unsigned short AssignReqHandle(int requestId);
    int GetRequestID(unsigned short handle);

    // ---- for tests only ----
    // Makes fd the connected socket, as a successful connect would.
    void AttachSocketForTest(int fd);
    // File-service workers still running or not yet collected.
    size_t FileWorkersForTest() const { return m_qxsfWorkers.size(); }
    CMdEngine& EngineForTest() { return m_engine; }

private:
    // ---- IMdEngineHost ----
    bool MayDispatch() override;
    bool StillConnected() override { return IsConnected(); }
    void FillLoginIdentity(COrvexWiraRspUserLoginField* rsp) override;
    int TakeRequestId(unsigned short handle) override { return GetRequestID(handle); }
    void LoginAccepted() override { m_bLoginAnswered = true; }
    void LoginRefused(int code) override;
    void SaveFamilyAccess(const CFamilyAccess& access) override;
    bool HandOverQuery(const _QryInstrumentInfo& query, std::vector<std::string> markets,
                       COrvexWiraMdSpi* spi) override;

    // ---- worker ----
    // The market access list from ".//qxmktaccess.xml" (at the worker's
    // start); it is saved by SaveFamilyAccess when the engine asks.
    void LoadFamilyAccess();
    static void* WorkThread(void* arg);
    void WorkLoop();
    void Connect();
    // One receive into the cutter's free space (flags as for recv), then
    // the whole frames go to the engine.
    void ReadSocket(int flags);
    // Builds "@", command*2, length, body in a per-call buffer and sends it
    // under the send lock; a failed send resets with reason 4098.
    int SendFrame(int command, const void* body, int length);
    // Ends the connection and clears its state; the caller holds the send
    // lock. True when a connection was open (to be reported). The socket is
    // shut down at once but closed only by CloseRetired, on the worker or
    // after it stopped: the worker may be waiting on or receiving from the
    // descriptor at that moment, and a number closed under it could be
    // handed to another of the process's files and read by it.
    bool CloseLocked();
    // Closes the sockets CloseLocked retired. Worker thread, or any thread
    // once the worker has stopped.
    void CloseRetired();
    // Reports a loss outside every lock.
    void ReportLost(int reason);
    void CheckQryInstrument();
    // Collects finished file-service workers (their answers go to the
    // engine), then starts the next waiting query when none is running:
    // the workers share ./cache/, so they take turns on it.
    void CheckQXSF();
    // Wakes the worker's wait: written when the caller queues work, when a
    // reset closes the socket and when the object is released, so that the
    // worker need not poll while nothing happens.
    void Wake();
    // How long the worker may wait for input in this pass.
    int WaitTimeoutMs(uint32_t lastHeartBeat) const;
    // File-service workers are running or waiting, or their answers wait
    // for the engine: polled, not signalled.
    bool FileServiceBusy() const;
    // Whether this pass has queue work: something was queued since the
    // last service (the flag is taken), queries wait for their markets, or
    // the file service is busy or has answers waiting. When false, the
    // service would find every queue empty and is skipped.
    bool TakeQueueWork();
    static CIniFile ReadConfig();
    static MdEngineSettings ReadSettings(const CIniFile& config, bool deliverSnapshot);

    char m_szFlowPath[260];
    CIniFile m_config;
    bool m_bLog = false;
    std::atomic<bool> m_bRunning{false};
    std::atomic<bool> m_bAbnormalEnd{false};
    MThread m_thread;

    mutable std::recursive_mutex m_sendLock;
    std::vector<_FrontInfo> m_fronts;   // guarded by the send lock once running
    int m_nCurrentFront = -1;           // guarded by the send lock
    std::atomic<int64_t> m_socket{-1};
    std::vector<int> m_retired;           // shut-down sockets to close (send lock)
    std::atomic<bool> m_hasRetired{false};
    std::atomic<bool> m_bLoginSent{false};
    std::atomic<bool> m_bLoginAnswered{false};
    // Copy of the caller's login request (188 bytes), guarded by the send
    // lock.
    unsigned char m_loginRequest[188];
    int m_nLastConnectDay = 0;
    // When bytes last arrived (tick of the clock seam), and how long the
    // connection may stay silent ([CONFIG] RecvTimeout, 0: for ever).
    uint32_t m_lastReceiveTick = 0;
    uint32_t m_nRecvTimeoutMs = 0;
    // The last receive filled all the free space of the buffer (worker
    // only).
    bool m_bReceiveFilled = false;

    std::mutex m_handleLock;
    std::map<unsigned short, int> m_reqHandles;
    unsigned short m_nHandle = 0;

    // Set after anything is put in the three queues below (and when
    // queries go back to wait); taken by the worker before it serves them.
    std::atomic<bool> m_bQueued{false};
    std::mutex m_qryLock;
    std::vector<_QryInstrumentInfo> m_qryQueue;
    std::mutex m_subLock;
    std::vector<std::string> m_subQueue;
    std::mutex m_unsubLock;
    std::vector<std::string> m_unsubQueue;

    std::vector<CQXSFThread*> m_qxsfWorkers;   // owned; DC worker only
    struct FileQuery {
        _QryInstrumentInfo query;
        std::vector<std::string> markets;
        COrvexWiraMdSpi* spi;
    };
    std::deque<FileQuery> m_qxsfWaiting;        // DC worker only
    int m_wakeFd = -1;

    // Declared last: it reads the settings above when it is built and is
    // destroyed first.
    CDCFrameCutter m_cutter;
    CMdEngine m_engine;
};

#endif
