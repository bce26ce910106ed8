// The two forms of login answer: the error path, the quick path of a
// re-login that finds the markets unchanged, and the rebuild of the model
// that starts a full load. DC worker thread only.
#include <cstdio>
#include <cstring>

#include "base/Clock.h"
#include "dc/MdEngine.h"

namespace {

constexpr int kLoginRsp1Keep = 512;
constexpr int kLoginRspKeep = 1024;

const char* const kMainExchanges[4] = {"SHFE", "DCE", "CZCE", "CFFEX"};

void CopyMessage(char* dst, const unsigned char* src) {
    // At most 80 characters; the record is zeroed, so the copy stays
    // terminated.
    size_t n = strnlen(reinterpret_cast<const char*>(src), 80);
    std::memcpy(dst, src, n);
}

}  // namespace

void CMdEngine::TranslateLoginRsp(COrvexWiraRspUserLoginField* rsp, int errorCode) {
    std::memset(rsp, 0, sizeof(*rsp));
    m_host.FillLoginIdentity(rsp);
    std::strcpy(rsp->SystemName, "QXDC");
    if (errorCode != 0) return;

    std::memcpy(rsp->TradingDay, m_szTradingDay, strnlen(m_szTradingDay, sizeof(rsp->TradingDay) - 1));
    struct tm now = orvex::LocalNow();
    // The third number is the day of the month, as the answers always had it.
    snprintf(rsp->LoginTime, sizeof(rsp->LoginTime), "%02u:%02u:%02u", static_cast<unsigned>(now.tm_hour) % 60u,
             static_cast<unsigned>(now.tm_min) % 60u, static_cast<unsigned>(now.tm_mday) % 32u);
    char* times[4] = {rsp->SHFETime, rsp->DCETime, rsp->CZCETime, rsp->FFEXTime};
    for (int i = 0; i < 4; ++i) {
        CQxExchange* exchange = FindExchange(kMainExchanges[i]);
        if (!exchange) continue;
        CQxMarket* main = exchange->GetMainMarket();
        if (!main) continue;
        unsigned v = main->timeWord / 1000;
        snprintf(times[i], 9, "%02u:%02u:%02u", (v / 10000) % 100, (v / 100) % 100, v % 100);
    }
}

void CMdEngine::LoginQuickPath(int handle) {
    COrvexWiraRspUserLoginField rsp;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = m_nLoginCode;
    std::memcpy(info.ErrorMsg, m_szLoginMsg, strnlen(m_szLoginMsg, 80));
    TranslateLoginRsp(&rsp, m_nLoginCode);
    // The request id is looked up (and forgotten) only when it is reported.
    if (COrvexWiraMdSpi* spi = Spi())
        spi->OnLoginAnswer(&rsp, &info, m_host.TakeRequestId(static_cast<unsigned short>(handle)), true);
    if (!m_bRefresh) {
        m_host.SubscribeDynainfo(m_nDynainfoSelector);
        return;
    }
    m_bModelLoading = true;
    m_heldDynainfo.clear();
    m_nDynainfoSelector = -1;
    m_host.SubscribeDynainfo(m_nDynainfoSelector);
    m_host.ReqQuotation(0);
}

void CMdEngine::StartModelLoad() {
    m_bModelLoading = true;
    m_heldDynainfo.clear();
    m_nDynainfoSelector = -1;
    m_host.SubscribeDynainfo(m_nDynainfoSelector);
    m_host.ReqMarketStatus(0);
}

// Keeps the first `keep` bytes of an answer (zero beyond the frame, so every
// fixed field is read from the copy without running past the body), and the
// result code and message that the market-status report repeats later.
void CMdEngine::KeepLoginAnswer(unsigned char* copy, int keep, const char* body, int length, int messageOffset,
                                unsigned short* handle, unsigned short* code) {
    std::memset(copy, 0, static_cast<size_t>(keep));
    std::memcpy(copy, body, static_cast<size_t>(length < keep ? length : keep));
    std::memcpy(handle, copy, 2);
    std::memcpy(code, copy + 2, 2);
    m_nLoginCode = *code;
    std::memset(m_szLoginMsg, 0, sizeof(m_szLoginMsg));
    CopyMessage(m_szLoginMsg, copy + messageOffset);
}

// True when the answer was an error and has been handled completely.
bool CMdEngine::HandleLoginError(unsigned short handle, unsigned short code, const unsigned char* message) {
    if (code == 0) return false;
    COrvexWiraRspUserLoginField rsp;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = code;
    CopyMessage(info.ErrorMsg, message);
    TranslateLoginRsp(&rsp, code);
    if (COrvexWiraMdSpi* spi = Spi()) spi->OnLoginAnswer(&rsp, &info, m_host.TakeRequestId(handle), true);
    m_host.LoginRefused(code);
    return true;
}

void CMdEngine::ProcessLoginRsp1(const char* body, int length) {
    if (length < 0) length = 0;
    unsigned short handle, code;
    KeepLoginAnswer(m_loginAnswer1, kLoginRsp1Keep, body, length, 12, &handle, &code);
    Log("LoginRsp1 : %d", code);
    if (HandleLoginError(handle, code, m_loginAnswer1 + 12)) return;

    bool quick;
    {
        std::lock_guard<std::mutex> lock(m_accessLock);
        m_access.allAccess = false;
        m_host.LoginAccepted();
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
        LoginQuickPath(handle);
        return;
    }
    ClearExchanges();
    ClearMarkets();
    m_offeredMarkets.clear();
    StartModelLoad();
}

void CMdEngine::ProcessLoginRsp(const char* body, int length) {
    if (length < 0) length = 0;
    unsigned short handle, code;
    KeepLoginAnswer(m_loginAnswer, kLoginRspKeep, body, length, 412, &handle, &code);
    Log("LoginRsp : %d", code);
    m_nLoginHandle = handle;
    if (HandleLoginError(handle, code, m_loginAnswer + 412)) return;

    m_host.LoginAccepted();
    const unsigned char* list = m_loginAnswer + 12;
    if (std::memcmp(list, m_storedMarketList, 400) == 0) {
        LoginQuickPath(handle);
        return;
    }

    ClearExchanges();
    ClearMarkets();
    std::set<unsigned short> numbers;
    for (int slot = 0; slot < 200; ++slot) {
        uint16_t number;
        std::memcpy(&number, list + 2 * slot, 2);
        if (number == 0) continue;
        CQxMarket market(number, ExchangeCodeOf(number).c_str());
        market.UseExchangeCode = UseExchangeCodeOf(market.exchangeCode);
        CQxMarket& stored = m_markets[number] = market;
        CQxExchange& exchange = ExchangeFor(stored.exchangeCode);
        exchange.markets.push_back(&stored);
        numbers.insert(number);
        m_offeredMarkets.insert(number);
    }
    if (!m_settings.domesticExchanges) {
        m_extraMarket.ReloadIDSet(numbers);
        SelectMainMarkets();
    }
    StartModelLoad();
}

void CMdEngine::SelectMainMarkets() {
    for (int i = 0; i < 4; ++i) {
        if (CQxExchange* exchange = FindExchange(kMainExchanges[i]))
            exchange->SetMainMarket(static_cast<unsigned short>(m_extraMarket.ids[i]));
    }
}
