// Quotation snapshot answers: each quote row becomes the instrument's raw
// quote and depth record; the last packet ends the model load, replays the
// dynamic information held back meanwhile and reports every exchange's
// status. DC worker thread only.
#include <cstring>
#include <deque>
#include <string>

#include "dc/MdEngine.h"
#include "dc/WireText.h"

namespace {

using dcwire::CopyText;
using dcwire::PrintField;
using dcwire::PrintInt;
using dcwire::Rd;

// Quotation answer: u16 (unused), u16 packet count, u16 packet index, u16
// market, u16 total rows, u16 rows here, u16 first row, then the rows.
constexpr int kQuotationHead = 14;

// Offsets inside a quote row.
constexpr int kRowCode = 2;
constexpr int kRowDate = 23;
constexpr int kRowTime = 27;
constexpr int kRowPreClose = 31;
constexpr int kRowPreSettlement = 35;
constexpr int kRowOpen = 39;
constexpr int kRowHigh = 43;
constexpr int kRowLow = 47;
constexpr int kRowLast = 51;
constexpr int kRowUpperLimit = 55;
constexpr int kRowLowerLimit = 59;
constexpr int kRowAverage = 63;
constexpr int kRowSettlement = 67;
constexpr int kRowClose = 71;
constexpr int kRowVolume = 79;
constexpr int kRowOpenInterest = 87;
constexpr int kRowPreOpenInterest = 91;
constexpr int kRowTurnover = 95;
constexpr int kRowAsk = 103;   // 5 x (price, volume)
constexpr int kRowBid = 183;   // 5 x (price, volume)

using F = COrvexWiraDepthMarketDataField;
constexpr double F::*kBidPrice[5] = {&F::BidPrice1, &F::BidPrice2, &F::BidPrice3, &F::BidPrice4, &F::BidPrice5};
constexpr int F::*kBidVolume[5] = {&F::BidVolume1, &F::BidVolume2, &F::BidVolume3, &F::BidVolume4,
                                   &F::BidVolume5};
constexpr double F::*kAskPrice[5] = {&F::AskPrice1, &F::AskPrice2, &F::AskPrice3, &F::AskPrice4, &F::AskPrice5};
constexpr int F::*kAskVolume[5] = {&F::AskVolume1, &F::AskVolume2, &F::AskVolume3, &F::AskVolume4,
                                   &F::AskVolume5};

// HHMMSSmmm of a packed quote time, kept in 32 bits.
uint32_t QuoteTimeOf(uint32_t packed) {
    uint32_t h = packed >> 22, m = (packed >> 16) & 0x3F, s = (packed >> 10) & 0x3F, ms = packed & 0x3FF;
    return h * 10000000u + m * 100000u + s * 1000u + ms;
}

// Converts one stored quote row into the instrument's depth record.
void FillDepthFromRow(CQxInstrument& inst, const char* row) {
    F& d = inst.depth;
    const uint32_t div = inst.priceDivisor;
    auto price = [&](int off) { return RawPriceToDouble(Rd<int32_t>(row + off), div); };

    d.LastPrice = price(kRowLast);
    d.PreSettlementPrice = price(kRowPreSettlement);
    d.PreClosePrice = price(kRowPreClose);
    d.PreOpenInterest = RawCountToDouble(Rd<uint32_t>(row + kRowPreOpenInterest));
    d.OpenPrice = price(kRowOpen);
    d.HighestPrice = price(kRowHigh);
    d.LowestPrice = price(kRowLow);
    std::memcpy(&d.Volume, row + kRowVolume, 8);
    std::memcpy(&d.Turnover, row + kRowTurnover, 8);
    d.OpenInterest = RawCountToDouble(Rd<uint32_t>(row + kRowOpenInterest));
    d.ClosePrice = price(kRowClose);
    d.SettlementPrice = price(kRowSettlement);
    d.UpperLimitPrice = price(kRowUpperLimit);
    d.LowerLimitPrice = price(kRowLowerLimit);
    const uint32_t packed = Rd<uint32_t>(row + kRowTime);
    if (!dcwire::FormatShortTime(d.UpdateTime, packed)) CMdEngine::FormatPackedTime(d.UpdateTime, packed);
    d.UpdateMillisec = static_cast<int>(packed & 0x3FF);
    for (int k = 0; k < 5; ++k) {
        d.*kBidPrice[k] = price(kRowBid + 8 * k);
        d.*kBidVolume[k] = Rd<int32_t>(row + kRowBid + 8 * k + 4);
        d.*kAskPrice[k] = price(kRowAsk + 8 * k);
        d.*kAskVolume[k] = Rd<int32_t>(row + kRowAsk + 8 * k + 4);
    }
    d.AveragePrice = price(kRowAverage);
    PrintInt(d.ActionDay, sizeof(d.ActionDay), static_cast<int>(inst.quoteDate));
}

}  // namespace

void CMdEngine::ProcessQuotationRsp(const char* body, int length) {
    if (!body || length < kQuotationHead) return;
    const int packetCount = Rd<uint16_t>(body + 2);
    const int packetIndex = Rd<uint16_t>(body + 4);
    const uint16_t marketId = Rd<uint16_t>(body + 6);
    const int total = Rd<uint16_t>(body + 8);
    const int rows = Rd<uint16_t>(body + 10);
    const int first = Rd<uint16_t>(body + 12);
    // A packet that claims more rows than it carries is applied as far as it
    // goes and cannot complete the quotation.
    const int held = (length - kQuotationHead) / kQuoteRowSize;
    const bool whole = rows <= held;

    CQxMarket* market = FindMarket(marketId);
    if (market && Level(marketId)) {
        CQxExchange* exchange = FindExchange(std::string_view(market->exchangeCode));
        for (int i = 0; i < (whole ? rows : held); ++i) {
            const char* row = body + kQuotationHead + i * kQuoteRowSize;
            const char* code = row + kRowCode;
            CQxInstrument* inst = market->FindInstrument(std::string_view(code, strnlen(code, 21)));
            if (!inst) continue;

            std::memcpy(inst->rawQuote, row, kQuoteRowSize);
            inst->pushedDate = 0;
            // A row without a date keeps the instrument's earlier date.
            const uint32_t date = Rd<uint32_t>(row + kRowDate);
            if (date != 0) {
                inst->quoteDate = date;
                inst->quoteTime = QuoteTimeOf(Rd<uint32_t>(row + kRowTime));
            }
            FillDepthFromRow(*inst, row);
            if (inst->quoteDate == 0) continue;

            COrvexWiraMdSpi* spi = Spi();
            if (!spi || !m_settings.deliverSnapshot) continue;
            if (m_settings.subscribe) {
                // Filtered by the exchange's subscriptions unless the whole
                // exchange is subscribed; a market without an exchange has no
                // subscriptions at all.
                if (!exchange) continue;
                if (!exchange->WholeExchange &&
                    exchange->subscribed.find(std::string_view(inst->depth.InstrumentID)) ==
                        exchange->subscribed.end())
                    continue;
            }
            COrvexWiraDepthMarketDataField copy = inst->depth;
            spi->OnDepthMarketData(&copy);
        }
    }

    if (!whole || packetIndex < packetCount - 1 || first + rows < total) return;

    Log("Quotation Completed");
    m_bModelLoading = false;
    // Dynamic information that arrived during the load, in arrival order.
    std::deque<std::string> held_back;
    held_back.swap(m_heldDynainfo);
    for (const std::string& packet : held_back)
        ProcessDynainfo(packet.data(), static_cast<unsigned int>(packet.size()));

    ReportExchangeStatus(0);
}
