// Market status and name table answers, and the model look-ups shared by the
// market data handlers. DC worker thread only; the model takes no lock.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include "dc/MdEngine.h"
#include "dc/WireText.h"

namespace {

using dcwire::CopyText;
using dcwire::PrintField;
using dcwire::PrintInt;
using dcwire::Rd;

// Market status answer: u16 (unused), u16 total rows, u16 rows here, u16
// first row, then 16-byte rows.
constexpr int kStatusHead = 8;
constexpr int kStatusRow = 16;

// Name table answer: 6 unused bytes, u16 market, 8 unused bytes, u16 total,
// u16 rows here, u16 first row, then 84-byte rows.
constexpr int kNameHead = 22;
constexpr int kNameRow = 84;

}  // namespace

char CMdEngine::StatusChar(uint8_t code) {
    switch (code) {
        case 0: return '0';
        case 1:
        case 3:
        case 4: return '2';
        case 2: return '4';
        default: return '6';
    }
}

// Runs for every quote row, so it is written out by hand; the bytes are
// those of snprintf(out9, 9, "%02u:%02u:%02u", h, m, s): at most 8
// characters and a NUL, nothing written after the NUL.
void CMdEngine::FormatPackedTime(char* out9, uint32_t packed) {
    if (dcwire::FormatShortTime(out9, packed)) return;
    // Three or four hour digits: the text is cut after eight characters.
    const unsigned h = packed >> 22;
    const unsigned m = (packed >> 16) & 0x3F;
    const unsigned s = (packed >> 10) & 0x3F;
    char text[12];
    int n = 0;
    if (h >= 1000) text[n++] = static_cast<char>('0' + h / 1000);
    text[n++] = static_cast<char>('0' + h / 100 % 10);
    text[n++] = static_cast<char>('0' + h / 10 % 10);
    text[n++] = static_cast<char>('0' + h % 10);
    text[n++] = ':';
    text[n++] = static_cast<char>('0' + m / 10);
    text[n++] = static_cast<char>('0' + m % 10);
    text[n++] = ':';
    text[n++] = static_cast<char>('0' + s / 10);
    text[n++] = static_cast<char>('0' + s % 10);
    std::memcpy(out9, text, 8);
    out9[8] = '\0';
}

void CMdEngine::FillStatusRecord(COrvexWiraMarketStatusField* rec, const char* exchange, uint32_t tradingDay,
                                 uint32_t secondDay, uint32_t t, char status) {
    std::memset(rec, 0, sizeof(*rec));
    CopyText(rec->ExchangeID, sizeof(rec->ExchangeID), exchange, 32);
    PrintField(rec->TradingDay, sizeof(rec->TradingDay), "%d", static_cast<int>(tradingDay));
    PrintField(rec->SecondDay, sizeof(rec->SecondDay), "%d", static_cast<int>(secondDay));
    PrintField(rec->UpdateTime, sizeof(rec->UpdateTime), "%02u:%02u:%02u", t / 10000000u,
               (t % 10000000u) / 100000u, (t % 100000u) / 1000u);
    rec->MarketStatus = status;
}

void CMdEngine::ProcessMkStatusRsp(const char* body, int length) {
    if (!body || length < kStatusHead) return;
    const int total = Rd<uint16_t>(body + 2);
    const int rows = Rd<uint16_t>(body + 4);
    const int first = Rd<uint16_t>(body + 6);
    // A packet claiming more rows than it carries is applied as far as it
    // goes and never counts towards completion.
    const int held = (length - kStatusHead) / kStatusRow;
    const bool whole = rows <= held;

    for (int i = 0; i < (whole ? rows : held); ++i) {
        const char* row = body + kStatusHead + i * kStatusRow;
        const uint16_t id = Rd<uint16_t>(row);
        CQxMarket* market = FindMarket(id);
        if (!market) market = AddMarket(id);
        market->tradingDay = Rd<uint32_t>(row + 2);
        market->status = Rd<uint8_t>(row + 6);
        market->status2 = Rd<uint8_t>(row + 7);
        market->secondDay = Rd<uint32_t>(row + 8);
        market->timeWord = Rd<uint32_t>(row + 12);
        if (id == m_extraMarket.ids[0]) {
            PrintField(m_szTradingDay, sizeof(m_szTradingDay), "%d", static_cast<int>(market->tradingDay));
        }
    }
    if (!whole || first + rows < total) return;

    // The access list follows the offered markets; it is saved (and the main
    // markets chosen) only when it changed.
    bool changed;
    {
        std::lock_guard<std::mutex> lock(m_accessLock);
        changed = m_access.Changed();
        if (changed) {
            if (m_access.allAccess) m_access.RebuildFrom(m_offeredMarkets);
            m_access.CommitSaved();
        }
    }
    if (changed) {
        if (!m_settings.domesticExchanges) {
            m_extraMarket.ReloadIDSet(m_offeredMarkets);
            SelectMainMarkets();
        }
        std::lock_guard<std::mutex> lock(m_accessLock);
        m_host.SaveFamilyAccess(m_access);
    }

    // The markets are known: the login is complete for the caller.
    if (COrvexWiraMdSpi* spi = Spi()) {
        COrvexWiraRspUserLoginField rsp;
        COrvexWiraRspInfoField info;
        std::memset(&rsp, 0, sizeof(rsp));
        std::memset(&info, 0, sizeof(info));
        info.ErrorID = m_nLoginCode;
        CopyText(info.ErrorMsg, sizeof(info.ErrorMsg), m_szLoginMsg, 80);
        TranslateLoginRsp(&rsp, m_nLoginCode);
        spi->OnLoginAnswer(&rsp, &info, m_host.TakeRequestId(m_nLoginHandle), true);
        ReportExchangeStatus('*');
    }
    m_host.ReqMarketNametable(0);
    m_host.ReqQuotation(0);
}

CQxMarket* CMdEngine::AddMarket(uint16_t id) {
    const std::string code = ExchangeCodeOf(id);
    auto ins = m_markets.emplace(std::piecewise_construct, std::forward_as_tuple(id),
                                 std::forward_as_tuple(id, code.c_str()));
    CQxMarket* market = &ins.first->second;
    market->UseExchangeCode = UseExchangeCodeOf(code.c_str());
    // The market keeps at most 31 characters of the code; the exchange is
    // filed under the same text so that look-ups by the market's code always
    // find it.
    CQxExchange* exchange = FindExchange(market->exchangeCode);
    if (!exchange) exchange = &ExchangeFor(market->exchangeCode);
    exchange->markets.push_back(market);
    m_offeredMarkets.insert(id);
    return market;
}

void CMdEngine::ReportExchangeStatus(char mark) {
    for (auto& kv : m_exchanges) {
        CQxMarket* main = kv.second.GetMainMarket();
        if (!main) continue;
        COrvexWiraMarketStatusField rec;
        FillStatusRecord(&rec, main->exchangeCode, main->tradingDay, main->secondDay, main->timeWord,
                         mark != 0 ? mark : StatusChar(main->status));
        if (COrvexWiraMdSpi* spi = Spi()) spi->OnStatusChange(&rec);
    }
}

void CMdEngine::ProcessNametableRsp(const char* body, int length) {
    if (!body || length < kNameHead) return;
    CQxMarket* market = FindMarket(Rd<uint16_t>(body + 6));
    if (!market) return;
    const int total = Rd<uint16_t>(body + 16);
    const int rows = Rd<uint16_t>(body + 18);
    const int first = Rd<uint16_t>(body + 20);
    const int held = (length - kNameHead) / kNameRow;
    const bool whole = rows <= held;

    // A name table always starts from empty.
    if (first == 0) {
        market->ClearInstruments();
    }

    for (int i = 0; i < (whole ? rows : held); ++i) {
        const char* row = body + kNameHead + i * kNameRow;
        CQxInstrument inst;
        CopyText(inst.exchangeCode, sizeof(inst.exchangeCode), row + 54, 22);
        CopyText(inst.marketCode, sizeof(inst.marketCode), row + 33, 21);
        CopyText(inst.name, sizeof(inst.name), row, 33);
        inst.priceDivisor = Rd<uint32_t>(row + 76);
        inst.attribute1 = Rd<uint16_t>(row + 80);
        inst.attribute2 = Rd<uint16_t>(row + 82);

        COrvexWiraDepthMarketDataField& d = inst.depth;
        PrintField(d.TradingDay, sizeof(d.TradingDay), "%u", market->tradingDay);
        CopyText(d.InstrumentID, sizeof(d.InstrumentID),
                 market->UseExchangeCode ? inst.exchangeCode : inst.marketCode, sizeof(inst.marketCode));
        CopyText(d.ExchangeID, sizeof(d.ExchangeID), market->exchangeCode, sizeof(market->exchangeCode));
        CopyText(d.ExchangeInstID, sizeof(d.ExchangeInstID), inst.exchangeCode, sizeof(inst.exchangeCode));
        inst.quoteDate = 0;
        inst.quoteTime = 0;

        // Replacing keeps the map node, so by-id pointers stay valid.
        market->PutInstrument(inst);
    }
    if (!whole || first + rows < total) return;

    market->NameTableComplete = true;
    market->RebuildIDMap();
}
