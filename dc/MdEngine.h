// CMdEngine: the market-data engine of the API object, without any I/O.
//
// It owns the market picture (exchanges, back-end markets, instruments and
// the instrument index), the trading day, the login answers kept for the
// quick re-login path, the market access list, the subscriptions, the
// dynamic information held back while the markets load, and the
// file-service answers waiting for their markets. It is fed whole frame
// bodies (it is the sink of the frame cutter) and the queued requests of
// the caller, and it reports through the registered callback object and
// through IMdEngineHost for everything it needs done outside (requests to
// send, the login's connection-side effects, the file service, the log).
//
// Threads: everything runs on the DC worker, except SetSpi/Spi, TradingDay
// and UseAccess, which any thread may call. The model has no lock; the
// access list has its own, because the login request that carries it is
// built on the caller's thread. The engine never holds that lock while it
// calls the application.
#ifndef ORVEX_DC_MD_ENGINE_H
#define ORVEX_DC_MD_ENGINE_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/OrvexWiraMdApi.h"
#include "codec/FamilyAccess.h"
#include "dc/FrameCutter.h"
#include "dc/MarketModel.h"
#include "dc/QxsfAnswer.h"
#include "sf/QryInstrumentInfo.h"

class CIniFile;

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

// What the engine asks of the connection that feeds it. Called on the DC
// worker, never with an engine lock held except SaveFamilyAccess.
class IMdEngineHost {
public:
    // Requests to the quote server: 1 when the whole frame was sent, 0 when
    // the send failed (the host has then reset the connection).
    virtual int ReqMarketNametable(int market) = 0;
    virtual int ReqMarketStatus(int market) = 0;
    virtual int ReqQuotation(int market) = 0;
    virtual int SubscribeDynainfo(int selector) = 0;

    // Before a frame: false stops the cutting (the object is going away).
    virtual bool MayDispatch() = 0;
    // After a frame: false when the frame closed the connection.
    virtual bool StillConnected() = 0;

    // The login request's broker and user and the current front, into a
    // cleared answer record.
    virtual void FillLoginIdentity(COrvexWiraRspUserLoginField* rsp) = 0;
    // The caller's request id of a login handle (the handle when unknown).
    virtual int TakeRequestId(unsigned short handle) = 0;
    // A login answer was accepted / refused with this code (the host resets
    // the connection and avoids the front).
    virtual void LoginAccepted() = 0;
    virtual void LoginRefused(int code) = 0;

    // The access list changed and is to be kept; called under the access
    // lock.
    virtual void SaveFamilyAccess(const CFamilyAccess& access) = 0;

    // Hands an instrument query for these markets (exchange codes) to the
    // file service. False when no file front is configured: the engine then
    // answers from the model.
    virtual bool HandOverQuery(const _QryInstrumentInfo& query, std::vector<std::string> markets,
                               COrvexWiraMdSpi* spi) = 0;

    // One line of the daily log; only called while logging is on.
    virtual void DumpLog(const char* text) = 0;

protected:
    ~IMdEngineHost() = default;
};

// The configuration the engine follows, read once by the API object.
struct MdEngineSettings {
    bool deliverSnapshot = true;   // snapshots and subscription replays reach the caller
    bool log = false;
    bool subscribe = false;        // deliver only what is subscribed
    bool deltaQuot = false;        // pushed rows reported as changes only
    int level = 0;                 // 0: plain feed markets, otherwise the deep ones
    bool domesticExchanges = false;
    const CIniFile* config = nullptr;   // [EXCHANGE] names, [BRCODE] flags; may be null
};

class CMdEngine : public IDCFrameSink {
public:
    CMdEngine(IMdEngineHost& host, const MdEngineSettings& settings);
    CMdEngine(const CMdEngine&) = delete;
    CMdEngine& operator=(const CMdEngine&) = delete;
    ~CMdEngine();

    const MdEngineSettings& Settings() const { return m_settings; }
    void SetSpi(COrvexWiraMdSpi* spi) { m_spi.store(spi, std::memory_order_release); }
    COrvexWiraMdSpi* Spi() const { return m_spi.load(std::memory_order_acquire); }
    // "YYYYMMDD" of the first preferred market, "" before it is known.
    const char* TradingDay() const { return m_szTradingDay; }

    // ---- frames ----
    // A whole frame from the cutter: dispatched unless the host says stop;
    // false when the host's connection is gone afterwards.
    bool OnFrame(int command, const char* body, int length) override;
    // Routes one body to its handler; dynamic information is held back
    // while the markets load and replayed when the snapshot completes.
    void Dispatch(int command, const char* body, int length);
    // A new connection was made: to the front used before (the model load
    // goes on only if it was under way) or to another one (everything is
    // loaded again after the login).
    void OnConnected(bool sameFront);

    // ---- handlers ----
    void ProcessLoginRsp(const char* body, int length);    // first form, command 82
    void ProcessLoginRsp1(const char* body, int length);   // second form, command 83
    void ProcessMkStatusRsp(const char* body, int length);
    void ProcessNametableRsp(const char* body, int length);
    void ProcessQuotationRsp(const char* body, int length);
    void ProcessDynainfo(const char* body, unsigned int length);
    // Apply one pushed row (starting with mask A) of rowLength bytes to the
    // instrument and fill the record to report; false when nothing is to be
    // reported. Fields the masks claim beyond rowLength are not read.
    bool ProcessPushQuotation(const char* row, int rowLength, CQxInstrument* inst,
                              COrvexWiraDepthMarketDataField* out);
    bool ProcessPushQuotationDelta(const char* row, int rowLength, CQxInstrument* inst, bool* changed,
                                   COrvexWiraDepthMarketDataField* out);
    // A template package inside dynamic information: the payload's leading
    // 16-bit value (unused) and the package body, its id first. A package
    // with a template becomes its flat record (see codec/PackageRecord.h),
    // handed to OnTemplateData; one without is skipped.
    void ProcessTemplatePackage(unsigned short leading, const char* data, int length);
    // The text of an id-11 field: the exchange code of the market with that
    // id, or the number when the model has no such market.
    void MarketText(int marketId, char* out9);
    // The login answer record: identity from the host; on success the
    // trading day, the login time and the main markets' clocks.
    void TranslateLoginRsp(COrvexWiraRspUserLoginField* rsp, int errorCode);

    // ---- the caller's queued requests ----
    void CheckSubscribeInfo(const std::vector<std::string>& requests);
    void CheckUnSubscribeInfo(const std::vector<std::string>& requests);
    // Answers the queries whose markets are ready (or hands them to the
    // file service) and returns the others, in order, to be asked again.
    std::vector<_QryInstrumentInfo> ServeQueries(const std::vector<_QryInstrumentInfo>& queries);
    // File-service answers: kept in arrival order, answered by
    // CheckQXSFQryInstrument (at most one per call) once their markets are ready.
    void AddFileAnswer(std::unique_ptr<CQxsfRsp> answer);
    void CheckQXSFQryInstrument();
    size_t FileAnswersWaiting() const { return m_fileAnswers.size(); }

    // ---- market access list (any thread) ----
    // Runs f(list) under the access lock.
    template <class F>
    void UseAccess(F&& f) {
        std::lock_guard<std::mutex> lock(m_accessLock);
        f(m_access);
    }

    // ---- the model ----
    CQxExchange* FindExchange(const char* exchangeId);
    CQxExchange* FindExchange(std::string_view exchangeId);
    // The market with this id, or null. The last one found is remembered:
    // the rows of a feed come market by market.
    CQxMarket* FindMarket(int marketId) {
        if (m_lastMarket && marketId == m_lastMarketId) return m_lastMarket;
        return FindMarketInMap(marketId);
    }
    size_t MarketCount() const { return m_markets.size(); }
    // The exchange whose subscriptions a request changes: the model's, or
    // the one parked by a rebuild while the model has none of that code.
    CQxExchange* SubscriptionsOf(std::string_view exchangeId);
    // Markets any status answer or login list has offered since the last
    // rebuild.
    const std::set<unsigned short>& OfferedMarkets() const { return m_offeredMarkets; }
    // The preferred market id of SHFE, DCE, CZCE, CFFEX (index 0-3).
    uint32_t PreferredMarket(int exchange) const { return m_extraMarket.ids[exchange]; }
    // The first two ids of each exchange's group carry the plain feed (Level
    // 0), the ids ten above them the deep feed (any other Level); every other
    // market is always admitted.
    bool Level(int marketId) const {
        const int offset = marketId - 2000;
        if (offset < 0 || offset >= 400) return true;
        const int inGroup = offset % 100;
        if (inGroup == 0 || inGroup == 1) return m_settings.level == 0;
        if (inGroup == 10 || inGroup == 11) return m_settings.level != 0;
        return true;
    }
    // True from a login that loads the markets until the snapshot is
    // complete.
    bool ModelLoading() const { return m_bModelLoading; }
    size_t HeldDynainfoCount() const { return m_heldDynainfo.size(); }
    // Sequence number of the last dynamic-information record read.
    uint32_t DynainfoSequence() const { return m_nDynainfoSequence; }

    // Status record as reported for a market (status character given).
    static void FillStatusRecord(COrvexWiraMarketStatusField* rec, const char* exchange, uint32_t tradingDay,
                                 uint32_t secondDay, uint32_t timeWord, char status);
    static char StatusChar(uint8_t code);
    // "HH:MM:SS" of a packed quote time word (milliseconds in bits 0-9,
    // seconds 10-15, minutes 16-21, hours 22-31) into a 9-byte field.
    static void FormatPackedTime(char* out9, uint32_t packedTime);

    // Formats one log line and hands it to the host when logging is on.
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    CQxMarket* FindMarketInMap(int marketId);
    // Empties the market map (and forgets the remembered market).
    void ClearMarkets();
    // A market named by a status answer that the model does not know yet.
    CQxMarket* AddMarket(uint16_t id);
    std::string ExchangeCodeOf(uint16_t id) const;
    bool UseExchangeCodeOf(const char* exchangeCode) const;
    // Reports every exchange's main market with this status character, or
    // with the market's own status when mark is 0.
    void ReportExchangeStatus(char mark);
    // Quick paths and rebuild shared by both login answer forms.
    void LoginQuickPath(int handle);
    void StartModelLoad();
    bool HandleLoginError(unsigned short handle, unsigned short code, const unsigned char* message);
    void KeepLoginAnswer(unsigned char* copy, int keep, const char* body, int length, int messageOffset,
                         unsigned short* handle, unsigned short* code);
    void ApplyStatusRecord(const char* payload);
    // inst: the row's instrument when it was looked up ahead (null: none
    // of that code); lookedUp false: it is looked up here.
    void ApplyPushedRow(const char* row, int rowLength, CQxInstrument* inst, bool lookedUp);
    // Looks up the instruments of the first kLookAhead pushed rows of a body
    // into m_rowInstruments and asks for their records' cache lines, so that
    // the misses of a body overlap instead of stalling one row at a time.
    // Returns how many rows were looked up.
    int LookUpPushedRows(const char* body, unsigned int length);
    bool Subscribed(const CQxMarket& market, const char* instrumentId);
    bool ServeQuery(COrvexWiraMdSpi* spi, const _QryInstrumentInfo& query);
    // Empties the exchanges, parking their subscriptions by exchange code.
    void ClearExchanges();
    // The exchange of this code, created (with its parked subscriptions)
    // when missing.
    CQxExchange& ExchangeFor(const std::string& exchangeId);
    void SelectMainMarkets();

    IMdEngineHost& m_host;
    const MdEngineSettings m_settings;
    std::atomic<COrvexWiraMdSpi*> m_spi{nullptr};

    char m_szTradingDay[32];
    bool m_bRefresh = true;
    int m_nDynainfoSelector = -1;
    // Set while the markets and the quotation snapshot are being loaded;
    // dynamic information is held back meanwhile and replayed at the end.
    bool m_bModelLoading = false;
    std::deque<std::string> m_heldDynainfo;
    uint32_t m_nDynainfoSequence = 0;

    // The last answers of each form, the market list the first form is
    // compared with, and the result the market-status report repeats.
    unsigned char m_loginAnswer1[512];    // second form
    unsigned char m_loginAnswer[1024];    // first form
    unsigned char m_storedMarketList[2000];
    int m_nLoginCode = 0;
    char m_szLoginMsg[81];
    unsigned short m_nLoginHandle = 0;

    std::mutex m_accessLock;
    CFamilyAccess m_access;

    // Markets are removed only all at once, by ClearMarkets; map nodes never
    // move, so a remembered market stays valid until then.
    std::map<unsigned short, CQxMarket> m_markets;
    CQxMarket* m_lastMarket = nullptr;
    int m_lastMarketId = -1;
    std::map<std::string, CQxExchange, std::less<>> m_exchanges;
    // Subscriptions of exchanges the model does not have at the moment
    // (markets always empty).
    std::map<std::string, CQxExchange, std::less<>> m_parkedSubscriptions;
    std::set<unsigned short> m_offeredMarkets;
    CExtraMarket m_extraMarket;

    std::vector<std::unique_ptr<CQxsfRsp>> m_fileAnswers;
    // The instruments of the pushed rows of the body being applied, looked
    // up ahead by LookUpPushedRows. The model does not change while a body
    // is applied, so they stay valid for it.
    static constexpr int kLookAhead = 96;
    CQxInstrument* m_rowInstruments[kLookAhead];

    // The record of the last template package, reused.
    std::vector<char> m_templateRecord;
};

#endif
