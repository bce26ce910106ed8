#include "dc/DCThread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "base/Clock.h"
#include "codec/DataPackage.h"
#include "dc/QxsfAnswer.h"
#include "sf/QXSFThread.h"

COrvexWiraMdApi* COrvexWiraMdApi::CreateWiraMdApi(const char* flowPath, bool, bool, bool deliverSnapshot) {
    LoadPackageTemplate("./qxdctrans.xml");
    return new CDCThread(flowPath, deliverSnapshot);
}

extern "C" COrvexWiraMdApi* CreateWiraMdApi(const char* flowPath, bool udp, bool multicast, bool deliverSnapshot) {
    return COrvexWiraMdApi::CreateWiraMdApi(flowPath, udp, multicast, deliverSnapshot);
}

CDCThread::CDCThread(const char* flowPath, bool deliverSnapshot) : m_bDeliverSnapshot(deliverSnapshot) {
    std::memset(m_szFlowPath, 0, sizeof(m_szFlowPath));
    if (flowPath && *flowPath) {
        size_t n = strnlen(flowPath, sizeof(m_szFlowPath) - 2);
        std::memcpy(m_szFlowPath, flowPath, n);
        if (m_szFlowPath[n - 1] != '/') m_szFlowPath[n] = '/';
    } else {
        std::strcpy(m_szFlowPath, "./");
    }
    std::memset(m_szTradingDay, 0, sizeof(m_szTradingDay));
    std::memset(m_loginRequest, 0, sizeof(m_loginRequest));
    std::memset(m_loginAnswer1, 0, sizeof(m_loginAnswer1));
    std::memset(m_loginAnswer, 0, sizeof(m_loginAnswer));
    std::memset(m_storedMarketList, 0, sizeof(m_storedMarketList));
    std::memset(m_szLoginMsg, 0, sizeof(m_szLoginMsg));

    m_config.SetPath("./OrvexWiraMdApi.def");
    m_config.CaseInsensitive();
    m_config.ReadFile();
    m_bLog = m_config.GetValueB("CONFIG", "Log", false);
    m_bSubscribe = m_config.GetValueB("CONFIG", "Subscribe", false);
    m_bDeltaQuot = m_config.GetValueB("CONFIG", "DeltaQuot", false);
    m_nLevel = m_config.GetValueI("CONFIG", "Level", 0);
    m_bDomesticExchanges = m_config.GetValueB("CONFIG", "DomesticExchanges", false);

    m_bAbnormalEnd = false;
    m_access.Reset();
    m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

CDCThread::~CDCThread() {
    m_bRunning = false;
    Wake();
    m_thread.StopThread();
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        Reset();
    }
    for (CQXSFThread* worker : m_qxsfWorkers) worker->Release();
    m_qxsfWorkers.clear();
    for (CQxsfRsp* answer : m_qxsfAnswers) delete answer;
    m_qxsfAnswers.clear();
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

const char* CDCThread::GetTradingDay() { return m_szTradingDay; }

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

void CDCThread::RegisterSpi(COrvexWiraMdSpi* spi) { m_pSpi.store(spi, std::memory_order_release); }

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

void CDCThread::Reset() {
    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    int64_t sock = m_socket.exchange(-1);
    if (sock != -1) {
        if (sock >= 0) close(static_cast<int>(sock));
        Wake();
        if (COrvexWiraMdSpi* spi = Spi()) spi->OnFrontLost(m_nDisconnectReason.load());
        if (!m_bLoginAnswered && m_fronts.size() > 1 && m_nCurrentFront >= 0 &&
            m_nCurrentFront < static_cast<int>(m_fronts.size())) {
            m_fronts[m_nCurrentFront].usable = false;
        }
    }
    m_nDisconnectReason = 0;
    // The receive buffer is the worker's; it is emptied when the next
    // connection is made, so a reset from the caller's thread never touches
    // it while the worker cuts frames.
    m_bLoginSent = false;
    m_bLoginAnswered = false;
    std::lock_guard<std::mutex> accessLock(m_accessLock);
    m_access.allAccess = false;
    m_access.savedAllAccess = false;
}

void CDCThread::ResetWithReason(int reason) {
    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    m_nDisconnectReason = reason;
    Reset();
}

void CDCThread::LoadFamilyAccess() {
    std::lock_guard<std::mutex> lock(m_accessLock);
    m_access.Load(".//qxmktaccess.xml");
}

void CDCThread::SaveFamilyAccess() {
    std::lock_guard<std::mutex> lock(m_accessLock);
    m_access.Save(".//qxmktaccess.xml");
}
