// CQXSFThread: object, thread loop, connection, login, market list upload,
// package sending and receiving. Lists, downloads and the cache are in
// QxsfFiles.cpp; contract files in QxsfContracts.cpp.
#include "sf/QXSFThread.h"

#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include <rapidjson/document.h>

#include "base/Clock.h"
#include "base/IniFile.h"
#include "base/TcpConnection.h"

std::mutex CQXSFThread::s_FrontsLock;
std::vector<_FrontInfo> CQXSFThread::s_Fronts;

namespace {

const char* const kMarketConfig = "./OrvexWiraMdApi.def";
constexpr int kConnectLimitMs = 127000;
// Contract files are a few hundred kilobytes; a server asking for more than
// this is refused ([CONFIG] MaxFileSize changes it).
constexpr long long kDefaultMaxFileSize = 256LL << 20;

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// Bounded copy into a fixed text field of n bytes (n - 1 characters kept).
void CopyText(char* dst, size_t n, const char* src) {
    if (n == 0) return;
    if (src == nullptr) src = "";
    size_t k = strnlen(src, n - 1);
    std::memcpy(dst, src, k);
    dst[k] = '\0';
}

_MarketInfo2 MakeMarketInfo(const std::string& code) {
    _MarketInfo2 info;
    std::memset(&info, 0, sizeof(info));
    std::memcpy(info.MarketCode, code.data(), code.size() < 11 ? code.size() : 11);
    return info;
}

_MainPkgHead MakeHead(unsigned short handle, char command) {
    _MainPkgHead head;
    head.Mark = QXSF_MARK;
    head.Handle = handle;
    head.Command = command;
    head.Flags = 0;
    head.BodyLength = 0;
    return head;
}

}  // namespace

CQXSFThread::CQXSFThread(const char* logDirectory, _QryInstrumentInfo* query,
                         std::vector<std::string> markets)
    : m_bRunning(false),
      m_pSpi(nullptr),
      m_hSocket(-1),
      m_nFrontIndex(-1),
      m_bLoggedIn(false),
      m_nLastLoginTick(0),
      m_bLog(true),
      m_nLastError(0),
      m_strLoginFile("./qxsfc_login.ini"),
      m_strCacheIndex("./cache/cache.ini"),
      m_cClientKind(1),
      m_nHandle(0),
      m_vMarkets(std::move(markets)),
      m_bStarted(false),
      m_nMaxFileSize(kDefaultMaxFileSize),
      m_bOver(false) {
    std::memset(m_szLogDir, 0, sizeof(m_szLogDir));
    if (logDirectory != nullptr && logDirectory[0] != '\0') CopyText(m_szLogDir, sizeof(m_szLogDir), logDirectory);
    CopyText(m_szClientVersion, sizeof(m_szClientVersion), "1.0.0.1");
    CopyText(m_szClientName, sizeof(m_szClientName), "QXSFC");
    std::memset(&m_QryInfo, 0, sizeof(m_QryInfo));
    if (query != nullptr) std::memcpy(&m_QryInfo, query, sizeof(m_QryInfo));
    CIniFile config;
    config.SetPath(kMarketConfig);
    config.CaseInsensitive();
    config.ReadFile();
    const int limit = config.GetValueI("CONFIG", "MaxFileSize", 0);
    if (limit > 0) m_nMaxFileSize = limit;
}

CQXSFThread::~CQXSFThread() {
    // The loop checks the flag every turn (and while connecting), so the
    // join returns promptly even in the middle of a download.
    m_bRunning = false;
    m_Thread.StopThread();
    Exit();
}

void CQXSFThread::Release() { delete this; }

void CQXSFThread::Init() {
    if (m_bStarted) return;
    m_bStarted = true;
    // Set before the start: the thread may end (and clear it) before
    // StartThread returns.
    m_bRunning = true;
    if (m_Thread.StartThread("QXSFThread", &CQXSFThread::ThreadFunc, this) != 1) m_bRunning = false;
}

void CQXSFThread::RegisterSpi(COrvexWiraMdSpi* spi) { m_pSpi = spi; }

void* CQXSFThread::ThreadFunc(void* arg) {
    if (arg != nullptr) static_cast<CQXSFThread*>(arg)->QXSFThreadMain();
    return nullptr;
}

// ---- front list ----------------------------------------------------------

void CQXSFThread::AddFront(const _FrontInfo& front) {
    std::lock_guard<std::mutex> lock(s_FrontsLock);
    s_Fronts.push_back(front);
}

void CQXSFThread::ClearFronts() {
    std::lock_guard<std::mutex> lock(s_FrontsLock);
    s_Fronts.clear();
}

size_t CQXSFThread::FrontCount() {
    std::lock_guard<std::mutex> lock(s_FrontsLock);
    return s_Fronts.size();
}

std::vector<_FrontInfo> CQXSFThread::Fronts() {
    std::lock_guard<std::mutex> lock(s_FrontsLock);
    return s_Fronts;
}

void CQXSFThread::MarkFrontUnusable(int index) {
    std::lock_guard<std::mutex> lock(s_FrontsLock);
    if (index >= 0 && static_cast<size_t>(index) < s_Fronts.size()) s_Fronts[index].usable = false;
}

// ---- reports and log -----------------------------------------------------

void CQXSFThread::OnRspInstrument(int code, const char* message, bool isLast) {
    COrvexWiraMdSpi* spi = m_pSpi.load();
    if (spi == nullptr) return;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = code;
    CopyText(info.ErrorMsg, sizeof(info.ErrorMsg), message);
    spi->OnInstrumentAnswer(nullptr, &info, m_QryInfo.nRequestID, isLast);
}

void CQXSFThread::ReportFile(int code, const char* format, const std::string& path) {
    char text[512];
    std::snprintf(text, sizeof(text), format, path.c_str());
    OnRspInstrument(code, text, true);
}

void CQXSFThread::DumpLog(const char* text) {
    if (text == nullptr || !m_bLog) return;
    struct tm now = orvex::LocalNow();
    int ymd = (now.tm_year + 1900) * 10000 + (now.tm_mon + 1) * 100 + now.tm_mday;
    char name[320];
    std::snprintf(name, sizeof(name), "%sqxsf_%d.log", m_szLogDir, ymd);
    FILE* f = std::fopen(name, "a");
    if (f == nullptr) return;
    std::fprintf(f, "%02d:%02d:%02d %s\n", now.tm_hour, now.tm_min, now.tm_sec, text);
    std::fclose(f);
}

// ---- thread loop ---------------------------------------------------------

void CQXSFThread::QXSFThreadMain() {
    char line[128];
    std::snprintf(line, sizeof(line), "QXSF Start, ThreadID : 0x%08x",
                  static_cast<unsigned>((uintptr_t)pthread_self()));
    DumpLog(line);
    try {
        DIR* dir = opendir("./cache/");
        if (dir != nullptr)
            closedir(dir);
        else
            mkdir("./cache/", 0775);

        CIniFile login(m_strLoginFile);
        m_strUser = login.GetValue("LoginInfo", "User", "");
        m_strPassword = login.GetValue("LoginInfo", "Password", "");

        UpLoadMarket();

        orvex::SeedRandom(static_cast<unsigned>(orvex::NowTime()));
        m_nFrontIndex = -1;

        for (;;) {
            if (!m_bRunning) break;
            if (m_hSocket == -1 && !ConnectQXSF()) break;
            if (m_hSocket != -1) {
                uint32_t now = orvex::NowTick();
                if (!m_bLoggedIn && static_cast<uint32_t>(now - m_nLastLoginTick) > 4999) {
                    if (!LoginQXSF()) break;
                    m_nLastLoginTick = now;
                }
            }

            struct pollfd pfd;
            pfd.fd = static_cast<int>(m_hSocket);
            pfd.events = POLLIN;
            pfd.revents = 0;
            struct timespec wait = {0, 100 * 1000};
            int ready = ppoll(&pfd, 1, &wait, nullptr);
            if (ready < 0 && errno != EINTR) {
                OnRspInstrument(4097, "select error!", true);
                break;
            }
            if (ready > 0 && (pfd.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                if (ReadData() < 1) {
                    OnRspInstrument(4098, "isset error!", true);
                    break;
                }
                if (!CheckRequest()) break;
            }
            if (!DownloadFile()) break;
            if (m_bOver) break;
        }
    } catch (const std::exception& e) {
        char text[512];
        std::snprintf(text, sizeof(text), "exception : %s", e.what());
        OnRspInstrument(65535, e.what(), true);
        DumpLog(text);
        m_nLastError = 65535;
    } catch (...) {
        OnRspInstrument(65535, "unkown exception", true);
        DumpLog("exception : unkown exception");
        m_nLastError = 65535;
    }
    Exit();
}

void CQXSFThread::Exit() {
    if (m_hSocket != -1) {
        close(static_cast<int>(m_hSocket));
        m_hSocket = -1;
        if (!m_bLoggedIn) {
            // A front that accepted the connection but never the login is
            // skipped by the next worker, unless it is the only one.
            std::lock_guard<std::mutex> lock(s_FrontsLock);
            if (s_Fronts.size() > 1 && m_nFrontIndex >= 0 &&
                static_cast<size_t>(m_nFrontIndex) < s_Fronts.size())
                s_Fronts[m_nFrontIndex].usable = false;
        }
    }
    m_nLastError = 0;
    m_reader.Clear();
    m_bLoggedIn = false;
    m_bRunning = false;
}

// ---- connection ----------------------------------------------------------

bool CQXSFThread::ConnectTo(const _FrontInfo& front) {
    char host[sizeof(front.host) + 1];
    CopyText(host, sizeof(host), front.host);
    // As long as a blocking connect would wait, in slices, so that a worker
    // being released does not hang here.
    return orvex::ConnectTcp(static_cast<int>(m_hSocket), host, front.port, m_bRunning, kConnectLimitMs);
}

bool CQXSFThread::ConnectQXSF() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        OnRspInstrument(4096, "qxsf socket create faild!", true);
        return false;
    }
    m_hSocket = fd;

    std::vector<_FrontInfo> fronts;
    {
        std::lock_guard<std::mutex> lock(s_FrontsLock);
        for (_FrontInfo& f : s_Fronts) f.usable = true;
        fronts = s_Fronts;
    }

    const size_t count = fronts.size();
    int chosen = -1;
    for (size_t attempt = 0; attempt < count && m_bRunning; ++attempt) {
        // Random order, each front at most once. The draws are bounded so a
        // degenerate generator cannot hold the worker; then the next usable
        // entry after the last draw is taken.
        const int drawn = orvex::DrawFront(
            static_cast<int>(count), [&](int k) { return fronts[static_cast<size_t>(k)].usable; },
            [] { return orvex::Random(); }, static_cast<int>(64 * count));
        if (drawn < 0) break;
        const size_t index = static_cast<size_t>(drawn);
        if (ConnectTo(fronts[index])) {
            chosen = static_cast<int>(index);
            break;
        }
        fronts[index].usable = false;
        MarkFrontUnusable(static_cast<int>(index));
        // A socket whose connect failed is not reused.
        close(static_cast<int>(m_hSocket));
        m_hSocket = socket(AF_INET, SOCK_STREAM, 0);
        if (m_hSocket < 0) {
            m_hSocket = -1;
            OnRspInstrument(4096, "qxsf socket create faild!", true);
            return false;
        }
    }

    if (chosen < 0) {
        // Released while connecting: end quietly.
        if (m_bRunning) OnRspInstrument(4099, "qxsf connected faild!", true);
        return false;
    }
    m_nFrontIndex = chosen;
    char line[128];
    std::snprintf(line, sizeof(line), "QXSF Connected : %.32s:%d", fronts[chosen].host,
                  static_cast<int>(fronts[chosen].port));
    DumpLog(line);
    return true;
}

// ---- login and market list ---------------------------------------------

bool CQXSFThread::LoginQXSF() {
    m_nHandle = 1;
    _MainPkgHead head = MakeHead(m_nHandle, QXSF_CMD_LOGIN);
    _LoginReq req;
    std::memset(&req, 0, sizeof(req));
    CopyText(req.UserId, sizeof(req.UserId), m_strUser.c_str());
    CopyText(req.Password, sizeof(req.Password), m_strPassword.c_str());
    req.LoginFlag = 0;
    CopyText(req.ClientVersion, sizeof(req.ClientVersion), m_szClientVersion);
    CopyText(req.ClientName, sizeof(req.ClientName), m_szClientName);
    req.LoginType = 0;
    req.ClientKind = m_cClientKind;
    char body[128];
    int length = to_stream(req, body);
    if (!SendRequest(head, reinterpret_cast<unsigned char*>(body), length, 5)) {
        OnRspInstrument(8195, "Client QXSF send package error when logining.", true);
        return false;
    }
    return true;
}

void CQXSFThread::UpLoadMarket() {
    CIniFile config(kMarketConfig);
    for (const std::string& name : m_vMarkets) {
        std::string value = config.GetValue("MARKET", name, "");
        if (value.empty()) {
            m_vUpload.push_back(MakeMarketInfo(name));
            m_mapMarkets[Lower(name)] = name;
            continue;
        }
        rapidjson::Document doc;
        doc.Parse(value.c_str());
        if (doc.HasParseError() || !doc.IsArray()) {
            perror("get qxsfmkt data err!");
            continue;
        }
        for (rapidjson::SizeType i = 0; i < doc.Size(); ++i) {
            if (!doc[i].IsString()) continue;
            std::string code(doc[i].GetString(), doc[i].GetStringLength());
            m_vUpload.push_back(MakeMarketInfo(code));
            m_mapMarkets[Lower(code)] = name;
        }
    }
}

bool CQXSFThread::UploadMarketList() {
    m_nHandle = QxsfNextHandle(m_nHandle);
    _MainPkgHead head = MakeHead(m_nHandle, static_cast<char>(QXSF_CMD_MKTLIST));
    _MktSize count;
    count.Count = static_cast<int>(m_vUpload.size());
    std::vector<char> body(size(count) + m_vUpload.size() * 11);
    char* p = body.data();
    p += to_stream(count, p);
    for (const _MarketInfo2& info : m_vUpload) p += to_stream(info, p);
    if (!SendRequest(head, reinterpret_cast<unsigned char*>(body.data()), static_cast<int>(body.size()), 5)) {
        OnRspInstrument(4098, "Client QXSF upload marketlist pack faield!", true);
        return false;
    }
    DumpLog("Client QXSF upload marketlist pack success!");
    return true;
}

// ---- packages ------------------------------------------------------------

bool CQXSFThread::SendRequest(_MainPkgHead head, unsigned char* body, int length, int) {
    if (m_hSocket == -1) return false;
    int total = QxsfEncodePackage(head, body, length, m_SendBuf, SEND_SIZE);
    if (total < 0) return false;
    return orvex::SendAll(static_cast<int>(m_hSocket), m_SendBuf, static_cast<size_t>(total));
}

int CQXSFThread::ReadData() {
    if (m_hSocket == -1) return -1;
    ssize_t n = recv(static_cast<int>(m_hSocket), m_reader.FreeSpace(), static_cast<size_t>(m_reader.FreeBytes()), 0);
    if (n > 0) m_reader.Commit(static_cast<int>(n));
    return static_cast<int>(n);
}

bool CQXSFThread::CheckRequest() { return Reported(m_reader.Cut(*this)); }

bool CQXSFThread::OnReceived(const char* data, size_t length) { return Reported(m_reader.Feed(data, length, *this)); }

bool CQXSFThread::Reported(CQxsfReader::Result result) {
    switch (result) {
        case CQxsfReader::kBadHead:
            OnRspInstrument(8195, "Client QXSF an error packet head appeard.", true);
            return false;
        case CQxsfReader::kBadBody:
            OnRspInstrument(8195, "Client QXSF uncompress packet error.", true);
            return false;
        case CQxsfReader::kStopped:
            return false;
        default:
            return true;
    }
}

bool CQXSFThread::OnPackage(const _MainPkgHead& head, char* body, int bodyLength) {
    switch (static_cast<unsigned char>(head.Command)) {
        case QXSF_CMD_ERROR:
            OnRspInstrument(8195, "Client QXSF An reqerror packet appears", true);
            break;
        case QXSF_CMD_LOGIN:
            if (!UploadMarketList()) return false;
            DumpLog("qxsf login success.");
            m_bLoggedIn = true;
            break;
        case QXSF_CMD_MKTLIST:
            if (!ProcessMktFileList(body, bodyLength)) return false;
            DumpLog("qxsf get mktlist success.");
            break;
        case QXSF_CMD_FILE:
            if (!ProcessMktFile(head.Handle, body, bodyLength)) return false;
            break;
        default:
            break;
    }
    return true;
}
