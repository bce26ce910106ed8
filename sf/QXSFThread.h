// One-shot worker of the QXSF file service.
//
// The API object creates one worker per instrument query that needs contract
// files: the worker connects to an "ftp" front, logs in, uploads the markets
// of the query, receives the list of contract files, downloads the missing
// or changed "base" files into ./cache/, checks each by MD5, sets its over
// flag and stops. The API object polls IsExit()/IsOver(), loads the verified
// files with LoadMktField and releases the worker. Errors go straight to the
// caller's callback as instrument answers with an error record.
//
// Threads: the worker thread runs the loop, the connection and the
// transfers. The API object's thread calls the constructor, RegisterSpi,
// Init, IsExit, IsOver, GetRryInfo, LoadMktField/GetFiles and Release.
#ifndef ORVEX_SF_QXSF_THREAD_H
#define ORVEX_SF_QXSF_THREAD_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "api/OrvexWiraMdApi.h"
#include "base/MThread.h"
#include "sf/FrontInfo.h"
#include "sf/QryInstrumentInfo.h"
#include "sf/QxsfReader.h"
#include "sf/QxsfWire.h"

// The client's record of one listed file.
struct _TaskFileInfo2 {
    char FilePath[257];        // list directory, a backslash, the file name
    unsigned char Md5[16];
    UPDFILETIME FileTime;
    int FileSize;
};

typedef std::map<std::string, std::map<std::string, COrvexWiraInstrumentField>> QxsfContractMap;

class CQXSFThread : private IQxsfPackageSink {
public:
    CQXSFThread(const char* logDirectory, _QryInstrumentInfo* query, std::vector<std::string> markets);
    // Stops a running worker (it leaves its loop at the next turn) and joins it.
    virtual ~CQXSFThread();

    CQXSFThread(const CQXSFThread&) = delete;
    CQXSFThread& operator=(const CQXSFThread&) = delete;

    // Deletes the object.
    virtual void Release();
    // Starts the worker thread "QXSFThread" unless it is already running.
    virtual void Init();
    virtual void RegisterSpi(COrvexWiraMdSpi* spi);

    // Polled by the API object.
    bool IsExit() const { return !m_bRunning.load(); }
    bool IsOver() const { return m_bOver.load(); }
    _QryInstrumentInfo* GetRryInfo() { return &m_QryInfo; }

    // Loads every newly verified contract file into out: requested market
    // name -> instrument code -> record. Call after the worker has ended.
    void LoadMktField(QxsfContractMap& out);
    // Appends the names of the verified files not handed out before.
    void GetFiles(std::vector<std::string>& names);

    // Front list shared by all workers ("ftp" fronts of RegisterFront).
    static void AddFront(const _FrontInfo& front);
    static void ClearFronts();
    static size_t FrontCount();
    static std::vector<_FrontInfo> Fronts();   // a copy, for inspection

    // Removes superseded and non-"base" files from ./cache/.
    static void CheckLocalFile();

    // Market code of a "base" file name (text before the first '_'), lower
    // case; empty for any other name.
    static std::string GetMkt(const char* fileName);
    // The component of a server path after its last '/' or '\\'; empty when
    // that is empty, "." or "..", so a cache path never leaves ./cache/.
    static std::string LocalFileName(const char* path);

    // Time stamp of a market in ./cache/cache.ini (zero when absent).
    UPDFILETIME GetFileTime(const char* market);
    void SetFileTime(const char* market, UPDFILETIME& time);

    // Error report: an instrument answer with no record and an error record.
    void OnRspInstrument(int code, const char* message, bool isLast);
    // Appends one line to "<log dir>qxsf_YYYYMMDD.log".
    void DumpLog(const char* text);

    // Protocol steps, run on the worker thread.
    void QXSFThreadMain();
    bool ConnectQXSF();
    bool LoginQXSF();
    void UpLoadMarket();
    bool UploadMarketList();
    void Exit();
    // Receives into the package reader: the bytes received, 0 when the
    // server closed, -1 on an error.
    int ReadData();
    bool SendRequest(_MainPkgHead head, unsigned char* body, int length, int reserved);
    // Hands every whole package received to its handler; false when the
    // worker has failed (the caller has been told).
    bool CheckRequest();
    // Takes bytes as if received and handles the whole packages, as
    // ReadData and CheckRequest do; for tests and fuzzers that feed bytes
    // without a server.
    bool OnReceived(const char* data, size_t length);
    bool ProcessMktFileList(char* body, int length);
    void CheckMktFileList();
    bool DownloadFile();
    bool ProcessMktFile(int handle, char* body, int length);

    // ---- for tests only ----
    // Makes fd the connected socket, as a successful connect would.
    void AttachSocketForTest(int fd) { m_hSocket = fd; }
    // Records that the file was asked for under this handle.
    void ExpectFileForTest(unsigned short handle, const _TaskFileInfo2& file) { m_mapRequested[handle] = file; }
    // The worker's log ("<log dir>qxsf_YYYYMMDD.log") on or off.
    void SetLogForTest(bool on) { m_bLog = on; }

private:
    bool OnPackage(const _MainPkgHead& head, char* body, int length) override;
    // Tells the caller of a reader failure; false unless the cut went well.
    bool Reported(CQxsfReader::Result result);
    static void* ThreadFunc(void* arg);
    void MarkFrontUnusable(int index);
    void ReportFile(int code, const char* format, const std::string& path);
    bool ConnectTo(const _FrontInfo& front);
    // Everything is fetched: no file queued and none requested.
    void UpdateOver();

    enum { SEND_SIZE = 4096 };

    char m_szLogDir[260];
    std::atomic<bool> m_bRunning;
    std::atomic<COrvexWiraMdSpi*> m_pSpi;
    int64_t m_hSocket;
    int m_nFrontIndex;
    bool m_bLoggedIn;
    uint32_t m_nLastLoginTick;
    bool m_bLog;
    int m_nLastError;
    CQxsfReader m_reader;
    char m_SendBuf[SEND_SIZE];
    std::string m_strLoginFile;
    std::string m_strCacheIndex;
    MThread m_Thread;
    std::string m_strUser;
    std::string m_strPassword;
    char m_szClientVersion[9];
    char m_szClientName[9];
    char m_cClientKind;
    unsigned short m_nHandle;
    _QryInstrumentInfo m_QryInfo;
    std::vector<std::string> m_vMarkets;
    std::map<std::string, std::string> m_mapMarkets;   // uploaded code (lower case) -> requested name
    std::vector<_MarketInfo2> m_vUpload;

    std::vector<_TaskFileInfo2> m_vPendingList;
    std::vector<_TaskFileInfo2> m_vCurrentList;
    std::vector<_TaskFileInfo2> m_vDownloadQueue;
    std::map<unsigned short, _TaskFileInfo2> m_mapRequested;
    std::map<unsigned short, _TaskFileInfo2> m_mapWriting;
    std::map<std::string, _TaskFileInfo2> m_mapKnownFiles;   // verified in the cache
    std::map<std::string, bool> m_mapHandedOut;
    std::mutex m_FilesLock;                                  // guards the two maps above

    bool m_bStarted;                                         // Init ran once; a worker never restarts
    long long m_nMaxFileSize;                                // largest contract file accepted, bytes
    std::atomic<bool> m_bOver;

    static std::mutex s_FrontsLock;
    static std::vector<_FrontInfo> s_Fronts;
};

#endif
