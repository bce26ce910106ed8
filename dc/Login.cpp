// Login request and the two forms of login answer.
#include <cstdio>
#include <cstring>

#include "base/Clock.h"
#include "dc/DCThread.h"

namespace {

constexpr int kLoginBodySize = 256;
constexpr int kLoginRsp1Keep = 512;
constexpr int kLoginRspKeep = 1024;

// Copies a NUL-terminated text of at most `width` source bytes into a
// fixed-width wire field of `room` bytes (zero-filled by the caller).
void PutText(unsigned char* dst, size_t room, const char* src, size_t width) {
    size_t n = strnlen(src, width);
    if (n > room) n = room;
    std::memcpy(dst, src, n);
}

void CopyMessage(char* dst, const unsigned char* src) {
    // At most 80 characters; the record is zeroed, so the copy stays
    // terminated.
    size_t n = strnlen(reinterpret_cast<const char*>(src), 80);
    std::memcpy(dst, src, n);
}

}  // namespace

int CDCThread::ReqUserLogin(COrvexWiraReqUserLoginField* request, int requestId) {
    if (m_bLog) Log("ReqUserLogin : %d", requestId);
    if (!request) return -1;

    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    if (m_bLoginSent) return 0;

    unsigned char body[kLoginBodySize + 4 + 6 * CFamilyAccess::kSlots];
    std::memset(body, 0, sizeof(body));
    unsigned short handle = AssignReqHandle(requestId);
    std::memcpy(body, &handle, 2);
    PutText(body + 2, 32, request->UserID, sizeof(request->UserID));
    // The password field of the record runs on to its end; the wire field
    // holds 32 bytes.
    PutText(body + 34, 32, request->Password, sizeof(COrvexWiraReqUserLoginField) - 36);
    uint16_t two = 2;
    std::memcpy(body + 66, &two, 2);
    body[80] = 1;
    std::memcpy(body + 81, "1.2.0", 5);
    body[97] = 1;
    std::memcpy(body + 98, "TAPI", 4);
    uint32_t one = 1;
    std::memcpy(body + 106, &one, 4);
    int length = kLoginBodySize;
    {
        std::lock_guard<std::mutex> accessLock(m_accessLock);
        if (!m_access.allAccess) {
            uint32_t n = static_cast<uint32_t>(m_access.Count());
            std::memcpy(body + 256, &n, 4);
            std::memcpy(body + 260, m_access.familyAccess, 6 * n);
            length = kLoginBodySize + 4 + 6 * static_cast<int>(n);
        }
    }

    // The copy of the request and the sent flag are in place before the
    // frame leaves, so even an answer that arrives before send() returns
    // carries the caller's broker and user.
    std::memcpy(m_loginRequest, request, sizeof(m_loginRequest));
    m_bLoginSent = true;
    if (!SendFrame(kCmdLogin, body, length)) return -1;   // reset with 4098
    return 0;
}

void CDCThread::TranslateLoginRsp(COrvexWiraRspUserLoginField* rsp, int errorCode) {
    std::memset(rsp, 0, sizeof(*rsp));
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        const COrvexWiraReqUserLoginField* req = reinterpret_cast<const COrvexWiraReqUserLoginField*>(m_loginRequest);
        std::memcpy(rsp->BrokerID, req->BrokerID, strnlen(req->BrokerID, sizeof(rsp->BrokerID) - 1));
        std::memcpy(rsp->UserID, req->UserID, strnlen(req->UserID, sizeof(rsp->UserID) - 1));
    }
    std::strcpy(rsp->SystemName, "QXDC");
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        rsp->FrontID = m_nCurrentFront;
    }
    if (errorCode != 0) return;

    std::memcpy(rsp->TradingDay, m_szTradingDay, strnlen(m_szTradingDay, sizeof(rsp->TradingDay) - 1));
    struct tm now = orvex::LocalNow();
    // The third number is the day of the month, as the answers always had it.
    snprintf(rsp->LoginTime, sizeof(rsp->LoginTime), "%02u:%02u:%02u", static_cast<unsigned>(now.tm_hour) % 60u,
             static_cast<unsigned>(now.tm_min) % 60u, static_cast<unsigned>(now.tm_mday) % 32u);
    static const char* const kExchanges[4] = {"SHFE", "DCE", "CZCE", "CFFEX"};
    char* times[4] = {rsp->SHFETime, rsp->DCETime, rsp->CZCETime, rsp->FFEXTime};
    for (int i = 0; i < 4; ++i) {
        CQxExchange* exchange = FindExchange(kExchanges[i]);
        if (!exchange) continue;
        CQxMarket* main = exchange->GetMainMarket();
        if (!main) continue;
        unsigned v = main->timeWord / 1000;
        snprintf(times[i], 9, "%02u:%02u:%02u", (v / 10000) % 100, (v / 100) % 100, v % 100);
    }
}

void CDCThread::LoginQuickPath(const char* /*body*/, int /*length*/, int handle) {
    COrvexWiraRspUserLoginField rsp;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = m_nLoginCode;
    std::memcpy(info.ErrorMsg, m_szLoginMsg, strnlen(m_szLoginMsg, 80));
    TranslateLoginRsp(&rsp, m_nLoginCode);
    if (COrvexWiraMdSpi* spi = Spi()) spi->OnLoginAnswer(&rsp, &info, GetRequestID(static_cast<unsigned short>(handle)), true);
    if (!m_bRefresh) {
        SubscribeDynainfo();
        return;
    }
    m_bModelLoading = true;
    ClearHeldDynainfo();
    m_nDynainfoSelector = -1;
    SubscribeDynainfo();
    ReqQuotation(0);
}

void CDCThread::StartModelLoad(bool /*rebuildWithStatus*/) {
    m_bModelLoading = true;
    ClearHeldDynainfo();
    m_nDynainfoSelector = -1;
    SubscribeDynainfo();
    ReqMarketStatus(0);
}

namespace {

// Answer common to both forms; returns true when the answer was an error and
// has been handled completely.
struct LoginAnswerFields {
    unsigned short handle;
    unsigned short code;
    const unsigned char* message;
};

}  // namespace

// Keeps the first `keep` bytes of an answer (zero beyond the frame, so every
// fixed field is read from the copy without running past the body), and the
// result code and message that the market-status report repeats later.
static LoginAnswerFields KeepLoginAnswer(CDCThread& api, unsigned char* copy, int keep, const char* body,
                                         int length, int messageOffset) {
    std::memset(copy, 0, static_cast<size_t>(keep));
    std::memcpy(copy, body, static_cast<size_t>(length < keep ? length : keep));
    LoginAnswerFields f;
    std::memcpy(&f.handle, copy, 2);
    std::memcpy(&f.code, copy + 2, 2);
    f.message = copy + messageOffset;
    api.m_nLoginCode = f.code;
    std::memset(api.m_szLoginMsg, 0, sizeof(api.m_szLoginMsg));
    CopyMessage(api.m_szLoginMsg, f.message);
    return f;
}

static bool HandleLoginError(CDCThread& api, const LoginAnswerFields& f) {
    COrvexWiraRspUserLoginField rsp;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = f.code;
    CopyMessage(info.ErrorMsg, f.message);
    if (f.code == 0) return false;
    api.TranslateLoginRsp(&rsp, f.code);
    if (COrvexWiraMdSpi* spi = api.m_pSpi.load()) spi->OnLoginAnswer(&rsp, &info, api.GetRequestID(f.handle), true);
    std::lock_guard<std::recursive_mutex> lock(api.m_sendLock);
    api.m_nDisconnectReason = f.code == 9 ? kReasonLoginCode9 : f.code == 8 ? kReasonLoginCode8 : kReasonLoginOther;
    api.Reset();
    if (api.m_nCurrentFront >= 0 && api.m_nCurrentFront < static_cast<int>(api.m_fronts.size()))
        api.m_fronts[api.m_nCurrentFront].usable = false;
    return true;
}

void CDCThread::ProcessLoginRsp1(const char* body, int length) {
    if (length < 0) length = 0;
    const LoginAnswerFields f = KeepLoginAnswer(*this, m_loginAnswer1, kLoginRsp1Keep, body, length, 12);
    if (m_bLog) Log("LoginRsp1 : %d", f.code);
    if (HandleLoginError(*this, f)) return;

    bool quick;
    {
        std::lock_guard<std::mutex> lock(m_accessLock);
        m_access.allAccess = false;
        m_bLoginAnswered = true;
        std::memset(m_access.familyAccess, 0, sizeof(m_access.familyAccess));
        uint32_t flags;
        std::memcpy(&flags, m_loginAnswer1 + 268, 4);
        if (flags & 1) {
            if (length >= 516) {
                uint32_t count;
                std::memcpy(&count, body + 512, 4);
                // Never more entries than the list holds or the frame carries.
                uint32_t fit = static_cast<uint32_t>((length - 516) / 6);
                if (count > fit) count = fit;
                if (count > static_cast<uint32_t>(CFamilyAccess::kSlots)) count = CFamilyAccess::kSlots;
                std::memcpy(m_access.familyAccess, body + 516, 6 * count);
            } else {
                m_access.allAccess = true;
            }
        }
        quick = m_access.allAccess == m_access.savedAllAccess &&
                (m_access.allAccess ||
                 std::memcmp(m_access.familyAccess, m_access.savedFamilyAccess, sizeof(m_access.familyAccess)) == 0);
    }
    if (quick) {
        LoginQuickPath(body, length, f.handle);
        return;
    }
    m_exchanges.clear();
    ClearMarkets();
    m_offeredMarkets.clear();
    StartModelLoad(true);
}

void CDCThread::ProcessLoginRsp(const char* body, int length) {
    if (length < 0) length = 0;
    const LoginAnswerFields f = KeepLoginAnswer(*this, m_loginAnswer, kLoginRspKeep, body, length, 412);
    if (m_bLog) Log("LoginRsp : %d", f.code);
    m_nLoginHandle = f.handle;
    if (HandleLoginError(*this, f)) return;

    m_bLoginAnswered = true;
    const unsigned char* list = m_loginAnswer + 12;
    if (std::memcmp(list, m_storedMarketList, 400) == 0) {
        LoginQuickPath(body, length, f.handle);
        return;
    }

    m_exchanges.clear();
    ClearMarkets();
    std::set<unsigned short> numbers;
    for (int slot = 0; slot < 200; ++slot) {
        uint16_t number;
        std::memcpy(&number, list + 2 * slot, 2);
        if (number == 0) continue;
        const char* code = m_bDomesticExchanges ? nullptr : CExtraMarket::GetExchangeID(number);
        std::string exchangeCode;
        if (code) {
            exchangeCode = code;
        } else {
            char key[16];
            snprintf(key, sizeof(key), "%d", number);
            exchangeCode = m_config.GetValue("EXCHANGE", key, key);
        }
        CQxMarket market(number, exchangeCode.c_str());
        market.UseExchangeCode = m_config.GetValueB("BRCODE", market.exchangeCode, false);
        CQxMarket& stored = m_markets[number] = market;
        CQxExchange& exchange = m_exchanges[stored.exchangeCode];
        exchange.markets.push_back(&stored);
        numbers.insert(number);
        m_offeredMarkets.insert(number);
    }
    if (!m_bDomesticExchanges) {
        m_extraMarket.ReloadIDSet(numbers);
        static const char* const kExchanges[4] = {"SHFE", "DCE", "CZCE", "CFFEX"};
        for (int i = 0; i < 4; ++i) {
            if (CQxExchange* exchange = FindExchange(kExchanges[i]))
                exchange->SetMainMarket(static_cast<unsigned short>(m_extraMarket.ids[i]));
        }
    }
    StartModelLoad(true);
}
