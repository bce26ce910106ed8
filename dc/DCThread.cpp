#include "dc/DCThread.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "base/Clock.h"
#include "codec/DataPackage.h"
#include "sf/QXSFThread.h"

namespace {

const char kAccessFile[] = ".//qxmktaccess.xml";

}  // namespace

COrvexWiraMdApi* COrvexWiraMdApi::CreateWiraMdApi(const char* flowPath, bool, bool, bool deliverSnapshot) {
    LoadPackageTemplate("./qxdctrans.xml");
    return new CDCThread(flowPath, deliverSnapshot);
}

extern "C" COrvexWiraMdApi* CreateWiraMdApi(const char* flowPath, bool udp, bool multicast, bool deliverSnapshot) {
    return COrvexWiraMdApi::CreateWiraMdApi(flowPath, udp, multicast, deliverSnapshot);
}

CIniFile CDCThread::ReadConfig() {
    CIniFile config;
    config.SetPath("./OrvexWiraMdApi.def");
    config.CaseInsensitive();
    config.ReadFile();
    return config;
}

MdEngineSettings CDCThread::ReadSettings(const CIniFile& config, bool deliverSnapshot) {
    MdEngineSettings s;
    s.deliverSnapshot = deliverSnapshot;
    s.log = config.GetValueB("CONFIG", "Log", false);
    s.subscribe = config.GetValueB("CONFIG", "Subscribe", false);
    s.deltaQuot = config.GetValueB("CONFIG", "DeltaQuot", false);
    s.level = config.GetValueI("CONFIG", "Level", 0);
    s.domesticExchanges = config.GetValueB("CONFIG", "DomesticExchanges", false);
    s.config = &config;
    return s;
}

CDCThread::CDCThread(const char* flowPath, bool deliverSnapshot)
    : m_config(ReadConfig()), m_engine(*this, ReadSettings(m_config, deliverSnapshot)) {
    std::memset(m_szFlowPath, 0, sizeof(m_szFlowPath));
    if (flowPath && *flowPath) {
        size_t n = strnlen(flowPath, sizeof(m_szFlowPath) - 2);
        std::memcpy(m_szFlowPath, flowPath, n);
        if (m_szFlowPath[n - 1] != '/') m_szFlowPath[n] = '/';
    } else {
        std::strcpy(m_szFlowPath, "./");
    }
    std::memset(m_loginRequest, 0, sizeof(m_loginRequest));
    m_bLog = m_engine.Settings().log;
    const int recvTimeout = m_config.GetValueI("CONFIG", "RecvTimeout", 0);
    // Whole seconds; anything not positive (or absurd) leaves it off.
    if (recvTimeout > 0 && recvTimeout <= 86400) m_nRecvTimeoutMs = static_cast<uint32_t>(recvTimeout) * 1000u;
    m_bAbnormalEnd = false;
    m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

CDCThread::~CDCThread() {
    m_bRunning = false;
    Wake();
    m_thread.StopThread();
    Reset(kReasonServerClosed);
    CloseRetired();
    for (CQXSFThread* worker : m_qxsfWorkers) worker->Release();
    m_qxsfWorkers.clear();
    if (m_bAbnormalEnd && m_bLog) DumpLog("AbNormal Terminate Thread");
    if (m_wakeFd >= 0) close(m_wakeFd);
}

void CDCThread::Wake() {
    if (m_wakeFd < 0) return;
    uint64_t one = 1;
    ssize_t n = write(m_wakeFd, &one, sizeof(one));
    (void)n;
}

void CDCThread::Release() { delete this; }

void CDCThread::Init() {
    if (m_bRunning) return;
    m_bRunning = true;
    int rc = m_thread.StartThread("DCThread", &CDCThread::WorkThread, this, false);
    m_bRunning = (rc == 1);
}

int CDCThread::Join() {
    m_thread.JoinThread();
    return 0;
}

const char* CDCThread::GetTradingDay() { return m_engine.TradingDay(); }

void CDCThread::RegisterFront(char* address) {
    if (m_bRunning || !address) return;
    if (m_bLog) Log("RegisterFront : %s", address);
    char protocol[32] = {0};
    char host[32] = {0};
    int port = 0;
    if (sscanf(address, "%31[^:]://%31[^:]:%d", protocol, host, &port) != 3) return;
    _FrontInfo front;
    std::memset(&front, 0, sizeof(front));
    front.isFtp = strcasecmp(protocol, "ftp") == 0;
    std::memcpy(front.host, host, sizeof(host));
    front.port = static_cast<uint16_t>(port);
    front.usable = true;
    if (front.isFtp) {
        CQXSFThread::AddFront(front);
    } else {
        m_fronts.push_back(front);
    }
}

void CDCThread::RegisterNameServer(char*) {}

void CDCThread::RegisterFensUserInfo(COrvexWiraFensUserInfoField*) {}

void CDCThread::RegisterSpi(COrvexWiraMdSpi* spi) { m_engine.SetSpi(spi); }

int CDCThread::ReqUserLogout(COrvexWiraUserLogoutField*, int) { return 0; }

void CDCThread::DumpLog(const char* text) {
    if (!text) return;
    struct tm t = orvex::LocalNow();
    int day = (t.tm_year) * 10000 + (t.tm_mon + 1) * 100 + 19000000 + t.tm_mday;
    char path[300];
    snprintf(path, sizeof(path), "%sOrvex_%d.log", m_szFlowPath, day);
    FILE* f = fopen(path, "a");
    if (!f) return;
    fprintf(f, "%02d:%02d:%02d %s\n", t.tm_hour, t.tm_min, t.tm_sec, text);
    fclose(f);
}

void CDCThread::Log(const char* format, ...) {
    if (!m_bLog) return;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    DumpLog(text);
}

bool CDCThread::CloseLocked() {
    int64_t sock = m_socket.exchange(-1);
    const bool wasOpen = sock != -1;
    if (wasOpen) {
        if (sock >= 0) {
            // The peer sees the end now, and the worker's wait returns.
            shutdown(static_cast<int>(sock), SHUT_RDWR);
            m_retired.push_back(static_cast<int>(sock));
            m_hasRetired.store(true);
        }
        Wake();
        if (!m_bLoginAnswered && m_fronts.size() > 1 && m_nCurrentFront >= 0 &&
            m_nCurrentFront < static_cast<int>(m_fronts.size())) {
            m_fronts[m_nCurrentFront].usable = false;
        }
    }
    // The receive buffer is the worker's; it is emptied when the next
    // connection is made, so a reset from the caller's thread never touches
    // it while the worker cuts frames.
    m_bLoginSent = false;
    m_bLoginAnswered = false;
    m_engine.UseAccess([](CFamilyAccess& access) {
        access.allAccess = false;
        access.savedAllAccess = false;
    });
    return wasOpen;
}

void CDCThread::CloseRetired() {
    if (!m_hasRetired.load()) return;
    std::vector<int> retired;
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        retired.swap(m_retired);
        m_hasRetired.store(false);
    }
    for (int fd : retired) close(fd);
}

void CDCThread::ReportLost(int reason) {
    if (COrvexWiraMdSpi* spi = m_engine.Spi()) spi->OnFrontLost(reason);
}

void CDCThread::Reset(int reason) {
    bool wasOpen;
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        wasOpen = CloseLocked();
    }
    if (wasOpen) ReportLost(reason);
}

void CDCThread::LoginRefused(int code) {
    bool wasOpen;
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        wasOpen = CloseLocked();
        if (m_nCurrentFront >= 0 && m_nCurrentFront < static_cast<int>(m_fronts.size()))
            m_fronts[m_nCurrentFront].usable = false;
    }
    if (wasOpen) ReportLost(code == 9 ? kReasonLoginCode9 : code == 8 ? kReasonLoginCode8 : kReasonLoginOther);
}

void CDCThread::FillLoginIdentity(COrvexWiraRspUserLoginField* rsp) {
    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    const COrvexWiraReqUserLoginField* req = reinterpret_cast<const COrvexWiraReqUserLoginField*>(m_loginRequest);
    std::memcpy(rsp->BrokerID, req->BrokerID, strnlen(req->BrokerID, sizeof(rsp->BrokerID) - 1));
    std::memcpy(rsp->UserID, req->UserID, strnlen(req->UserID, sizeof(rsp->UserID) - 1));
    rsp->FrontID = m_nCurrentFront;
}

void CDCThread::SaveFamilyAccess(const CFamilyAccess& access) { access.Save(kAccessFile); }

void CDCThread::LoadFamilyAccess() {
    m_engine.UseAccess([](CFamilyAccess& access) { access.Load(kAccessFile); });
}

bool CDCThread::MayDispatch() { return m_bRunning || !m_thread.IsActive(); }

void CDCThread::AttachSocketForTest(int fd) {
    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    m_socket = fd;
}
