// CDCThread: the API object, the one implementation of COrvexWiraMdApi.
//
// It owns the connection to the quote server and the DC worker thread, the
// fronts, the caller's callback pointer, the configuration, the request-handle
// map, the queues that carry subscriptions and queries from the caller's
// thread to the worker, the market model and the daily log.
//
// Threads: the caller's thread runs construction, Register*, Init, Join,
// Release, ReqUserLogin and the three queueing operations; the DC worker runs
// everything else and makes every callback (file-service workers make their
// own error answers). The model, the template table and the frame cutter are
// touched by the worker only.
//
// Locks: sending (and everything that closes the socket) happens under the
// send lock, a recursive mutex, so frames sent from the caller's thread and
// from the worker never interleave and a callback made during a reset may
// send again. The queues are swapped out under their own short locks and
// served without them, so a callback may queue more work.
#ifndef ORVEX_DC_DCTHREAD_H
#define ORVEX_DC_DCTHREAD_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/OrvexWiraMdApi.h"
#include "base/IniFile.h"
#include "base/MThread.h"
#include "codec/FamilyAccess.h"
#include "dc/FrameCutter.h"
#include "dc/MarketModel.h"
#include "dc/QxsfAnswer.h"
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

// DC command codes.
enum : int {
    kCmdHeartBeat = 0,
    kCmdNameTable = 1,
    kCmdMarketStatus = 2,
    kCmdQuotation = 3,
    kCmdLoginRsp = 82,
    kCmdLoginRsp1 = 83,
    kCmdLogin = 83,
    kCmdSubscribeDynainfo = 100,
    kCmdDynainfo = 101,
};

class CDCThread : public COrvexWiraMdApi, private IDCFrameSink {
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

    // ---- log ----
    // Appends "HH:MM:SS text" to "<flow>Orvex_YYYYMMDD.log"; callers test
    // the log flag first (Log() does it for them).
    void DumpLog(const char* text);
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    bool LogEnabled() const { return m_bLog; }

    // ---- connection (DC worker) ----
    // Closes the socket (calling OnFrontLost with the stored reason when one
    // was open) and clears the per-connection state. Takes the send lock.
    void Reset();
    // Sets the reason and resets, under the send lock.
    void ResetWithReason(int reason);
    static void* WorkThread(void* arg);
    void WorkLoop();
    void Connect();
    void ReadSocket();
    bool IsConnected() const { return m_socket.load() != -1; }

    // Cuts and dispatches whatever the receive buffer holds; a protocol error
    // resets the connection with reason 8195. Also the entry point for tests
    // and fuzzers that feed bytes without a socket.
    void OnReceived(const char* data, size_t length);
    void Dispatch(int command, const char* body, int length);

    // ---- requests (1: whole frame sent, 0: send failed) ----
    int HeartBeat();
    int ReqMarketNametable(int market);
    int ReqMarketStatus(int market);
    int ReqQuotation(int market);
    int SubscribeDynainfo();
    // Builds "@", command*2, length, body in a per-call buffer and sends it
    // under the send lock; a failed send resets with reason 4098.
    int SendFrame(int command, const void* body, int length);
    unsigned short AssignReqHandle(int requestId);
    int GetRequestID(unsigned short handle);

    // ---- login ----
    void ProcessLoginRsp(const char* body, int length);    // first form, command 82
    void ProcessLoginRsp1(const char* body, int length);   // second form, command 83
    void TranslateLoginRsp(COrvexWiraRspUserLoginField* rsp, int errorCode);

    // ---- model ----
    CQxExchange* FindExchange(const char* exchangeId);
    CQxExchange* FindExchange(std::string_view exchangeId);
    // The first two ids of each exchange's group carry the plain feed (Level
    // 0), the ids ten above them the deep feed (any other Level); every other
    // market is always admitted.
    bool Level(int marketId) const {
        const int offset = marketId - 2000;
        if (offset < 0 || offset >= 400) return true;
        const int inGroup = offset % 100;
        if (inGroup == 0 || inGroup == 1) return m_nLevel == 0;
        if (inGroup == 10 || inGroup == 11) return m_nLevel != 0;
        return true;
    }
    // The market with this id, or null. The last one found is remembered:
    // the rows of a feed come market by market.
    CQxMarket* FindMarket(int marketId) {
        if (m_lastMarket && marketId == m_lastMarketId) return m_lastMarket;
        return FindMarketInMap(marketId);
    }
    CQxMarket* FindMarketInMap(int marketId);
    // Empties the market map (and forgets the remembered market).
    void ClearMarkets();

    // ---- market data handlers (DC worker) ----
    void ProcessMkStatusRsp(const char* body, int length);
    void ProcessNametableRsp(const char* body, int length);
    void ProcessQuotationRsp(const char* body, int length);
    void ProcessDynainfo(const char* body, unsigned int length);
    // Apply one pushed row (starting with mask A) of rowLength bytes. Fields
    // the masks claim beyond rowLength are not read.
    bool ProcessPushQuotation(const char* row, int rowLength, CQxInstrument* inst,
                              COrvexWiraDepthMarketDataField* out);
    bool ProcessPushQuotationDelta(const char* row, int rowLength, CQxInstrument* inst, bool* changed,
                                   COrvexWiraDepthMarketDataField* out);
    // Template packages inside dynamic information: accepted and ignored.
    void ProcessTemplatePackage(unsigned short packageId, const char* data, int length);

    // ---- queues served by the worker ----
    void CheckSubscribeInfo();
    void CheckUnSubscribeInfo();
    void CheckQryInstrument();
    bool CheckQXSF();
    void CheckQXSFQryInstrument();

    // ---- market access list ----
    void LoadFamilyAccess();
    void SaveFamilyAccess();

    // ---- small accessors for tests and tools ----
    bool SubscribeEnabled() const { return m_bSubscribe; }
    bool DeltaEnabled() const { return m_bDeltaQuot; }
    int LevelSetting() const { return m_nLevel; }
    bool DomesticExchanges() const { return m_bDomesticExchanges; }
    const char* FlowPath() const { return m_szFlowPath; }
    size_t FrontCount() const { return m_fronts.size(); }
    _FrontInfo Front(size_t i) const {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        return m_fronts[i];
    }

    // Status record as reported for a market (status character given).
    static void FillStatusRecord(COrvexWiraMarketStatusField* rec, const char* exchange, uint32_t tradingDay,
                                 uint32_t secondDay, uint32_t timeWord, char status);
    static char StatusChar(uint8_t code);
    // "HH:MM:SS" of a packed quote time word (milliseconds in bits 0-9,
    // seconds 10-15, minutes 16-21, hours 22-31) into a 9-byte field.
    static void FormatPackedTime(char* out9, uint32_t packedTime);

private:
    bool OnFrame(int command, const char* body, int length) override;
    COrvexWiraMdSpi* Spi() const { return m_pSpi.load(std::memory_order_acquire); }
    void ClearHeldDynainfo() { m_heldDynainfo.clear(); }
    // Quick paths and rebuild shared by both login answer forms.
    void LoginQuickPath(const char* body, int length, int handle);
    void StartModelLoad(bool rebuildWithStatus);

public:
    // ---- state (public for the handlers' tests; the worker owns it) ----
    const bool m_bDeliverSnapshot;
    char m_szFlowPath[260];
    bool m_bLog = false;
    bool m_bDeltaQuot = false;
    int m_nLevel = 0;
    bool m_bDomesticExchanges = false;
    bool m_bSubscribe = false;
    std::atomic<bool> m_bRunning{false};
    std::atomic<COrvexWiraMdSpi*> m_pSpi{nullptr};

    mutable std::recursive_mutex m_sendLock;
    std::vector<_FrontInfo> m_fronts;
    std::mutex m_handleLock;
    std::map<unsigned short, int> m_reqHandles;
    unsigned short m_nHandle = 0;

    std::atomic<int64_t> m_socket{-1};
    int m_nCurrentFront = -1;
    bool m_bRefresh = true;
    int m_nDynainfoSelector = -1;
    std::atomic<bool> m_bLoginSent{false};
    std::atomic<bool> m_bLoginAnswered{false};
    std::atomic<int> m_nDisconnectReason{0};
    char m_szTradingDay[32];
    uint32_t m_lastReceiveTick = 0;
    uint32_t m_lastFrameDoneTick = 0;
    int m_nLastConnectDay = 0;
    // Set while the markets and the quotation snapshot are being loaded;
    // dynamic information is held back meanwhile and replayed at the end.
    bool m_bModelLoading = false;
    std::deque<std::string> m_heldDynainfo;
    uint32_t m_nDynainfoSequence = 0;

    // Copy of the caller's login request (188 bytes) and of the last
    // answers; guarded by the send lock.
    unsigned char m_loginRequest[188];
    unsigned char m_loginAnswer1[512];    // second form
    unsigned char m_loginAnswer[1024];    // first form
    unsigned char m_storedMarketList[2000];
    int m_nLoginCode = 0;                 // error code of the last answer
    char m_szLoginMsg[81];
    unsigned short m_nLoginHandle = 0;

    // Market access list (also the subscription list of the login); guarded
    // by m_accessLock because the login request is built on the caller's
    // thread.
    std::mutex m_accessLock;
    CFamilyAccess m_access;

    std::mutex m_qryLock;
    std::vector<_QryInstrumentInfo> m_qryQueue;
    std::mutex m_subLock;
    std::vector<std::string> m_subQueue;
    std::mutex m_unsubLock;
    std::vector<std::string> m_unsubQueue;

    CIniFile m_config;
    MThread m_thread;
    std::vector<CQXSFThread*> m_qxsfWorkers;
    // Finished file-service queries waiting for their markets, in arrival
    // order; owned (deleted when answered and by the destructor).
    std::vector<CQxsfRsp*> m_qxsfAnswers;
    std::atomic<bool> m_bAbnormalEnd{false};

    // Wakes the worker's wait: written when the caller queues work, when a
    // reset closes the socket and when the object is released, so that the
    // worker need not poll every 2 ms while nothing happens.
    int m_wakeFd = -1;
    void Wake();
    // How long the worker may wait for input in this pass.
    int WaitTimeoutMs(uint32_t lastHeartBeat) const;

    // Model. Markets are removed only all at once, by ClearMarkets; map
    // nodes never move, so a remembered market stays valid until then.
    std::map<unsigned short, CQxMarket> m_markets;
    CQxMarket* m_lastMarket = nullptr;
    int m_lastMarketId = -1;
    std::map<std::string, CQxExchange, std::less<>> m_exchanges;
    std::set<unsigned short> m_offeredMarkets;
    CExtraMarket m_extraMarket;

    CDCFrameCutter m_cutter;
};

#endif
