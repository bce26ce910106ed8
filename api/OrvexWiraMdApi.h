// Public interface of libOrvexMdUserApi.
//
// An application creates one API object with CreateWiraMdApi, registers a
// callback object derived from COrvexWiraMdSpi, names its fronts, calls Init,
// logs in once OnFrontLinked has come, subscribes and queries, and finally
// calls Release. The order of the virtual operations of both classes is part
// of the binary interface: neither class has a virtual destructor, so slot 0
// of each virtual table is Release / OnFrontLinked.
//
// Callbacks run on the library's worker threads, never on the caller's.
#ifndef ORVEX_WIRA_MD_API_H
#define ORVEX_WIRA_MD_API_H

#include "OrvexWiraMdStruct.h"

#if defined(_WIN32)
#define ORVEX_MD_API_EXPORT
#else
#define ORVEX_MD_API_EXPORT __attribute__((visibility("default")))
#endif

// Implemented by the application. Slots 2 and 4-7 are never called by the
// library; they exist so that the positions of the others hold.
class COrvexWiraMdSpi {
public:
    // 0: a TCP connection to a quote front has been made; log in now.
    virtual void OnFrontLinked() {}
    // 1: the connection was dropped or could not be made. Reasons:
    //    0 server close or daily reconnect, 4096 no socket, 4097 select or
    //    receive error, 4098 send failed, 4099 no front reachable,
    //    8195 malformed frame, 8196/8197/8198 login refused (other code / 9 /
    //    8), 65535 internal exception. The library reconnects by itself.
    virtual void OnFrontLost(int nReason) { (void)nReason; }
    // 2: not called.
    virtual void OnHeartBeatWarning(int nTimeLapse) { (void)nTimeLapse; }
    // 3: answer to ReqUserLogin; bIsLast is always true.
    virtual void OnLoginAnswer(COrvexWiraRspUserLoginField* pRspUserLogin,
                               COrvexWiraRspInfoField* pRspInfo, int nRequestID, bool bIsLast) {
        (void)pRspUserLogin; (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    // 4-7: not called.
    virtual void OnLogoutAnswer(COrvexWiraUserLogoutField* pUserLogout,
                                COrvexWiraRspInfoField* pRspInfo, int nRequestID, bool bIsLast) {
        (void)pUserLogout; (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    virtual void OnErrorAnswer(COrvexWiraRspInfoField* pRspInfo, int nRequestID, bool bIsLast) {
        (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    virtual void OnSubscribeAnswer(const char* pszInstrumentID, COrvexWiraRspInfoField* pRspInfo,
                                   int nRequestID, bool bIsLast) {
        (void)pszInstrumentID; (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    virtual void OnUnSubscribeAnswer(const char* pszInstrumentID, COrvexWiraRspInfoField* pRspInfo,
                                     int nRequestID, bool bIsLast) {
        (void)pszInstrumentID; (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    // 8: one instrument of a query answer; pInstrument is null on an error
    //    answer, and bIsLast marks the final call of the run.
    virtual void OnInstrumentAnswer(COrvexWiraInstrumentField* pInstrument,
                                    COrvexWiraRspInfoField* pRspInfo, int nRequestID, bool bIsLast) {
        (void)pInstrument; (void)pRspInfo; (void)nRequestID; (void)bIsLast;
    }
    // 9: a depth record from a snapshot, a push or a new subscription.
    virtual void OnDepthMarketData(COrvexWiraDepthMarketDataField* pDepthMarketData) {
        (void)pDepthMarketData;
    }
    // 10: the status of an exchange's main market.
    virtual void OnStatusChange(COrvexWiraMarketStatusField* pStatus) { (void)pStatus; }
    // 11: a record decoded from a template package or options information.
    virtual void OnExtraRecord(void* pRecord) { (void)pRecord; }
    // 12: the decoded data of a template package.
    virtual void OnTemplateData(unsigned short nPackageID, void* pData) {
        (void)nPackageID; (void)pData;
    }

protected:
    ~COrvexWiraMdSpi() {}
};

class ORVEX_MD_API_EXPORT COrvexWiraMdApi {
public:
    // Creates the API object. pszFlowPath names the directory of the daily
    // log (null or empty: the working directory). The two middle flags are
    // accepted and ignored; bDeliverSnapshot enables OnDepthMarketData for
    // snapshot quotes and for the replay of a new subscription.
    static COrvexWiraMdApi* CreateWiraMdApi(const char* pszFlowPath = "", bool bIsUsingUdp = false,
                                            bool bIsMulticast = false, bool bDeliverSnapshot = false);

    // 0: stops the worker and deletes the object.
    virtual void Release() = 0;
    // 1: starts the worker thread; a second call does nothing.
    virtual void Init() = 0;
    // 2: waits for the worker thread to end; returns 0.
    virtual int Join() = 0;
    // 3: the trading day text, empty before the first login answer.
    virtual const char* GetTradingDay() = 0;
    // 4: "tcp://host:port" for the quote server, "ftp://host:port" for the
    //    file server. Ignored after Init.
    virtual void RegisterFront(char* pszFrontAddress) = 0;
    // 5, 6: accepted and ignored.
    virtual void RegisterNameServer(char* pszNsAddress) = 0;
    virtual void RegisterFensUserInfo(COrvexWiraFensUserInfoField* pFensUserInfo) = 0;
    // 7: sets (or, with null, clears) the callback object; not owned.
    virtual void RegisterSpi(COrvexWiraMdSpi* pSpi) = 0;
    // 8, 9: queue "CODE.EXCHANGE", "EXCHANGE" or "CODE"; return 0.
    virtual int SubscribeMarketData(char* ppInstrumentID[], int nCount) = 0;
    virtual int UnSubscribeMarketData(char* ppInstrumentID[], int nCount) = 0;
    // 10: sends the login; 0 on success (or when already sent on this
    //     connection), -1 when the send failed.
    virtual int ReqUserLogin(COrvexWiraReqUserLoginField* pReqUserLoginField, int nRequestID) = 0;
    // 11: does nothing; returns 0.
    virtual int ReqUserLogout(COrvexWiraUserLogoutField* pUserLogout, int nRequestID) = 0;
    // 12: queues an instrument query; -1 for a null record, else 0.
    virtual int ReqQryInstrument(COrvexWiraQryInstrumentField* pQryInstrument, int nRequestID) = 0;

protected:
    COrvexWiraMdApi() {}
    ~COrvexWiraMdApi() {}
};

// The factory under its plain, unmangled name; forwards to the static member.
extern "C" ORVEX_MD_API_EXPORT COrvexWiraMdApi* CreateWiraMdApi(const char* pszFlowPath, bool bIsUsingUdp,
                                                                bool bIsMulticast, bool bDeliverSnapshot);

#endif
