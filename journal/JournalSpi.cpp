#include "journal/JournalSpi.h"

#include <cstring>

namespace orvex {
namespace journal {

void JournalSpi::Add(uint16_t kind, uint16_t aux, const void* payload, uint32_t size) {
    if (kind == kDepth) {
        // Depth records come from the library's worker only: no locked
        // increment needed on the hottest path.
        m_counts[kind].store(m_counts[kind].load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
        m_counts[kind].fetch_add(1, std::memory_order_relaxed);
    }
    const int64_t now = FastWallNanos();
    if (m_writer) m_writer->Add(kind, aux, now, payload, size);
    Tap(kind, now, payload, size);
}

template <typename R>
void JournalSpi::AddAnswer(uint16_t kind, const R* record, const COrvexWiraRspInfoField* info, int requestId,
                           bool isLast) {
    unsigned char payload[kAnswerHead + sizeof(R) + sizeof(COrvexWiraRspInfoField)] = {0};
    const int32_t id = requestId;
    std::memcpy(payload, &id, 4);
    payload[4] = static_cast<uint8_t>((record ? kHasRecord : 0) | (info ? kHasInfo : 0) | (isLast ? kIsLast : 0));
    if (record) std::memcpy(payload + kAnswerHead, record, sizeof(R));
    if (info) std::memcpy(payload + kAnswerHead + sizeof(R), info, sizeof(COrvexWiraRspInfoField));
    Add(kind, 0, payload, sizeof(payload));
}

void JournalSpi::SeeDay(const char* text, size_t width) {
    // Nearly every record carries the day seen last: its eight bytes as
    // they stood then answer at once.
    uint64_t bytes = 0;
    if (width >= 8) {
        std::memcpy(&bytes, text, 8);
        if (bytes == m_dayBytes.load(std::memory_order_relaxed)) return;
    }
    uint32_t day = 0;
    size_t i = 0;
    for (; i < width && i < 8 && text[i] >= '0' && text[i] <= '9'; ++i) day = day * 10 + static_cast<uint32_t>(text[i] - '0');
    if (i != 8 || (i < width && text[i] != '\0')) return;
    uint32_t current = m_day.load(std::memory_order_relaxed);
    while (day > current) {
        if (m_day.compare_exchange_weak(current, day)) {
            if (m_writer) m_writer->SetTradingDay(std::string(text, 8));
            m_dayBytes.store(bytes, std::memory_order_relaxed);
            return;
        }
    }
    if (day == current) m_dayBytes.store(bytes, std::memory_order_relaxed);
}

void JournalSpi::OnFrontLinked() { Add(kLinked, 0, nullptr, 0); }

void JournalSpi::OnFrontLost(int nReason) {
    const int32_t reason = nReason;
    Add(kLost, 0, &reason, 4);
}

void JournalSpi::OnLoginAnswer(COrvexWiraRspUserLoginField* pRspUserLogin, COrvexWiraRspInfoField* pRspInfo,
                               int nRequestID, bool bIsLast) {
    if (pRspUserLogin && (!pRspInfo || pRspInfo->ErrorID == 0))
        SeeDay(pRspUserLogin->TradingDay, sizeof(pRspUserLogin->TradingDay));
    AddAnswer(kLogin, pRspUserLogin, pRspInfo, nRequestID, bIsLast);
}

void JournalSpi::OnInstrumentAnswer(COrvexWiraInstrumentField* pInstrument, COrvexWiraRspInfoField* pRspInfo,
                                    int nRequestID, bool bIsLast) {
    AddAnswer(kInstrument, pInstrument, pRspInfo, nRequestID, bIsLast);
}

void JournalSpi::OnDepthMarketData(COrvexWiraDepthMarketDataField* pDepthMarketData) {
    if (!pDepthMarketData) return;
    SeeDay(pDepthMarketData->TradingDay, sizeof(pDepthMarketData->TradingDay));
    Add(kDepth, 0, pDepthMarketData, sizeof(*pDepthMarketData));
}

void JournalSpi::OnStatusChange(COrvexWiraMarketStatusField* pStatus) {
    if (!pStatus) return;
    SeeDay(pStatus->TradingDay, sizeof(pStatus->TradingDay));
    Add(kStatus, 0, pStatus, sizeof(*pStatus));
}

void JournalSpi::OnTemplateData(unsigned short nPackageID, void* pData) {
    auto it = m_templateSizes.find(nPackageID);
    if (!pData || it == m_templateSizes.end() || it->second <= 0) {
        m_templatesSkipped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    Add(kTemplate, nPackageID, pData, static_cast<uint32_t>(it->second));
}

}  // namespace journal
}  // namespace orvex
