// The engine's frame dispatch, connection events, model look-ups and log.
#include "dc/MdEngine.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/IniFile.h"

CMdEngine::CMdEngine(IMdEngineHost& host, const MdEngineSettings& settings) : m_host(host), m_settings(settings) {
    std::memset(m_szTradingDay, 0, sizeof(m_szTradingDay));
    std::memset(m_loginAnswer1, 0, sizeof(m_loginAnswer1));
    std::memset(m_loginAnswer, 0, sizeof(m_loginAnswer));
    std::memset(m_storedMarketList, 0, sizeof(m_storedMarketList));
    std::memset(m_szLoginMsg, 0, sizeof(m_szLoginMsg));
    m_access.Reset();
}

CMdEngine::~CMdEngine() = default;

bool CMdEngine::OnFrame(int command, const char* body, int length) {
    if (!m_host.MayDispatch()) return false;
    Dispatch(command, body, length);
    return m_host.StillConnected();
}

void CMdEngine::Dispatch(int command, const char* body, int length) {
    switch (command) {
    case kCmdNameTable:
        ProcessNametableRsp(body, length);
        break;
    case kCmdMarketStatus:
        ProcessMkStatusRsp(body, length);
        break;
    case kCmdQuotation:
        ProcessQuotationRsp(body, length);
        break;
    case kCmdLoginRsp:
        ProcessLoginRsp(body, length);
        break;
    case kCmdLoginRsp1:
        ProcessLoginRsp1(body, length);
        break;
    case kCmdDynainfo:
        if (m_bModelLoading) {
            m_heldDynainfo.emplace_back(body, static_cast<size_t>(length));
        } else {
            ProcessDynainfo(body, static_cast<unsigned int>(length));
        }
        break;
    default:
        break;
    }
}

void CMdEngine::OnConnected(bool sameFront) { m_bRefresh = sameFront ? m_bModelLoading : true; }

CQxExchange* CMdEngine::FindExchange(const char* exchangeId) {
    if (!exchangeId) return nullptr;
    return FindExchange(std::string_view(exchangeId));
}

CQxExchange* CMdEngine::FindExchange(std::string_view exchangeId) {
    auto it = m_exchanges.find(exchangeId);
    return it == m_exchanges.end() ? nullptr : &it->second;
}

CQxMarket* CMdEngine::FindMarketInMap(int marketId) {
    if (marketId < 0 || marketId > 0xFFFF) return nullptr;
    auto it = m_markets.find(static_cast<unsigned short>(marketId));
    if (it == m_markets.end()) return nullptr;
    m_lastMarket = &it->second;
    m_lastMarketId = marketId;
    return m_lastMarket;
}

void CMdEngine::ClearMarkets() {
    m_lastMarket = nullptr;
    m_lastMarketId = -1;
    m_markets.clear();
}

std::string CMdEngine::ExchangeCodeOf(uint16_t id) const {
    const char* known = m_settings.domesticExchanges ? nullptr : CExtraMarket::GetExchangeID(id);
    if (known) return known;
    const std::string key = std::to_string(id);
    return m_settings.config ? m_settings.config->GetValue("EXCHANGE", key, key) : key;
}

bool CMdEngine::UseExchangeCodeOf(const char* exchangeCode) const {
    return m_settings.config && m_settings.config->GetValueB("BRCODE", exchangeCode, false);
}

void CMdEngine::Log(const char* format, ...) {
    if (!m_settings.log) return;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    m_host.DumpLog(text);
}
