// The caller's requests (login, subscriptions, queries) and the frames sent
// to the quote server; the request-handle map; the worker's service of the
// queues.
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "base/TcpConnection.h"
#include "dc/DCThread.h"
#include "sf/QXSFThread.h"

namespace {

constexpr int kLoginBodySize = 256;

void PutU16(unsigned char* p, uint16_t v) { std::memcpy(p, &v, 2); }
void PutU32(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }

// Copies a NUL-terminated text of at most `width` source bytes into a
// fixed-width wire field of `room` bytes (zero-filled by the caller).
void PutText(unsigned char* dst, size_t room, const char* src, size_t width) {
    size_t n = strnlen(src, width);
    if (n > room) n = room;
    std::memcpy(dst, src, n);
}

void Enqueue(std::mutex& lock, std::vector<std::string>& queue, char* ids[], int count) {
    if (!ids || count <= 0) return;
    std::lock_guard<std::mutex> guard(lock);
    for (int i = 0; i < count; ++i) {
        if (ids[i]) queue.emplace_back(ids[i]);
    }
}

template <class T>
std::vector<T> TakeAll(std::mutex& lock, std::vector<T>& queue) {
    std::vector<T> batch;
    std::lock_guard<std::mutex> guard(lock);
    batch.swap(queue);
    return batch;
}

}  // namespace

int CDCThread::SendFrame(int command, const void* body, int length) {
    // Every frame is built in its own buffer and sent whole under the send
    // lock, so a login from the caller's thread and a heartbeat from the
    // worker never mix their bytes.
    unsigned char frame[4 + 4096];
    if (length < 0 || length > 4096 - 4) length = length < 0 ? 0 : 4096 - 4;
    frame[0] = '@';
    frame[1] = static_cast<unsigned char>(command << 1);
    PutU16(frame + 2, static_cast<uint16_t>(length));
    if (length > 0) std::memcpy(frame + 4, body, static_cast<size_t>(length));
    const int total = length + 4;

    bool lost;
    {
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        const int64_t sock = m_socket.load();
        if (sock >= 0 && orvex::SendAll(static_cast<int>(sock), frame, static_cast<size_t>(total))) return 1;
        lost = CloseLocked();
    }
    if (lost) ReportLost(kReasonSendError);
    return 0;
}

int CDCThread::HeartBeat() { return SendFrame(kCmdHeartBeat, nullptr, 0); }

int CDCThread::ReqMarketNametable(int market) {
    if (m_bLog) Log("ReqMarketNametable : %d", market);
    unsigned char body[14] = {0};
    PutU16(body + 2, static_cast<uint16_t>(market));
    return SendFrame(kCmdNameTable, body, sizeof(body));
}

int CDCThread::ReqMarketStatus(int market) {
    if (m_bLog) Log("ReqMarketStatus : %d", market);
    unsigned char body[4] = {0};
    PutU16(body + 2, static_cast<uint16_t>(market));
    return SendFrame(kCmdMarketStatus, body, sizeof(body));
}

int CDCThread::ReqQuotation(int market) {
    if (m_bLog) Log("ReqQuotation : %d", market);
    unsigned char body[6] = {0};
    PutU16(body + 2, static_cast<uint16_t>(market));
    return SendFrame(kCmdQuotation, body, sizeof(body));
}

int CDCThread::SubscribeDynainfo(int selector) {
    if (m_bLog) Log("SubscribeDynainfo : %d", selector);
    unsigned char body[4];
    PutU32(body, static_cast<uint32_t>(selector));
    return SendFrame(kCmdSubscribeDynainfo, body, sizeof(body));
}

unsigned short CDCThread::AssignReqHandle(int requestId) {
    std::lock_guard<std::mutex> lock(m_handleLock);
    ++m_nHandle;
    m_reqHandles[m_nHandle] = requestId;
    return m_nHandle;
}

int CDCThread::GetRequestID(unsigned short handle) {
    std::lock_guard<std::mutex> lock(m_handleLock);
    auto it = m_reqHandles.find(handle);
    if (it == m_reqHandles.end()) return handle;
    int id = it->second;
    m_reqHandles.erase(it);
    return id;
}

int CDCThread::ReqUserLogin(COrvexWiraReqUserLoginField* request, int requestId) {
    if (m_bLog) Log("ReqUserLogin : %d", requestId);
    if (!request) return -1;

    unsigned char body[kLoginBodySize + 4 + 6 * CFamilyAccess::kSlots];
    int length = kLoginBodySize;
    {
        // One login per connection: the check, the copy of the request and
        // the sent flag go together under the send lock; the frame is sent
        // after it is released, so that a failed send can report the loss
        // with no lock held.
        std::lock_guard<std::recursive_mutex> lock(m_sendLock);
        if (m_bLoginSent) return 0;

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
        m_engine.UseAccess([&](CFamilyAccess& access) {
            if (access.allAccess) return;
            uint32_t n = static_cast<uint32_t>(access.Count());
            std::memcpy(body + 256, &n, 4);
            std::memcpy(body + 260, access.familyAccess, 6 * n);
            length = kLoginBodySize + 4 + 6 * static_cast<int>(n);
        });

        // The copy of the request and the sent flag are in place before the
        // frame leaves, so even an answer that arrives before send() returns
        // carries the caller's broker and user.
        std::memcpy(m_loginRequest, request, sizeof(m_loginRequest));
        m_bLoginSent = true;
    }
    if (!SendFrame(kCmdLogin, body, length)) return -1;   // reset with 4098
    return 0;
}

int CDCThread::SubscribeMarketData(char* ids[], int count) {
    // Without subscription mode every quote flows and the queue would never
    // be drained.
    if (SubscribeEnabled()) {
        Enqueue(m_subLock, m_subQueue, ids, count);
        m_bQueued.store(true, std::memory_order_release);
        Wake();
    }
    return 0;
}

int CDCThread::UnSubscribeMarketData(char* ids[], int count) {
    if (SubscribeEnabled()) {
        Enqueue(m_unsubLock, m_unsubQueue, ids, count);
        m_bQueued.store(true, std::memory_order_release);
        Wake();
    }
    return 0;
}

int CDCThread::ReqQryInstrument(COrvexWiraQryInstrumentField* query, int requestId) {
    if (!query) return -1;
    _QryInstrumentInfo info;
    std::memset(&info, 0, sizeof(info));
    info.nRequestID = requestId;
    std::memcpy(&info.query, query, sizeof(info.query));
    {
        std::lock_guard<std::mutex> lock(m_qryLock);
        m_qryQueue.push_back(info);
    }
    m_bQueued.store(true, std::memory_order_release);
    Wake();
    return 0;
}

void CDCThread::ServeQueues() {
    CheckQryInstrument();
    CheckQXSF();
    m_engine.CheckQXSFQryInstrument();
    if (SubscribeEnabled()) {
        m_engine.CheckSubscribeInfo(TakeAll(m_subLock, m_subQueue));
        m_engine.CheckUnSubscribeInfo(TakeAll(m_unsubLock, m_unsubQueue));
    }
}

bool CDCThread::TakeQueueWork() {
    // The flag is cleared before the queues are taken, so work queued after
    // the take sets it again for the next pass.
    const bool queued =
        m_bQueued.load(std::memory_order_relaxed) && m_bQueued.exchange(false, std::memory_order_acq_rel);
    return queued || FileServiceBusy();
}

bool CDCThread::FileServiceBusy() const {
    return !m_qxsfWorkers.empty() || !m_qxsfWaiting.empty() || m_engine.FileAnswersWaiting() != 0;
}

void CDCThread::CheckQryInstrument() {
    // Queries that are not ready go back to the front of the queue, ahead of
    // anything queued meanwhile (a callback may query again).
    const std::vector<_QryInstrumentInfo> batch = TakeAll(m_qryLock, m_qryQueue);
    if (batch.empty()) return;
    const std::vector<_QryInstrumentInfo> waiting = m_engine.ServeQueries(batch);
    if (waiting.empty()) return;
    {
        std::lock_guard<std::mutex> lock(m_qryLock);
        m_qryQueue.insert(m_qryQueue.begin(), waiting.begin(), waiting.end());
    }
    // Asked again on the next pass.
    m_bQueued.store(true, std::memory_order_release);
}

bool CDCThread::HandOverQuery(const _QryInstrumentInfo& query, std::vector<std::string> markets,
                              COrvexWiraMdSpi* spi) {
    if (CQXSFThread::FrontCount() == 0) return false;
    m_qxsfWaiting.push_back({query, std::move(markets), spi});
    CheckQXSF();
    return true;
}

void CDCThread::CheckQXSF() {
    for (auto it = m_qxsfWorkers.begin(); it != m_qxsfWorkers.end();) {
        CQXSFThread* worker = *it;
        if (!worker->IsExit()) {
            ++it;
            continue;
        }
        if (worker->IsOver()) {
            std::unique_ptr<CQxsfRsp> rsp(new CQxsfRsp(*worker->GetRryInfo()));
            worker->LoadMktField(rsp->contracts);
            m_engine.AddFileAnswer(std::move(rsp));
        }
        // A worker that failed has already told the caller.
        worker->Release();
        it = m_qxsfWorkers.erase(it);
    }
    if (!m_qxsfWorkers.empty() || m_qxsfWaiting.empty()) return;
    FileQuery next = std::move(m_qxsfWaiting.front());
    m_qxsfWaiting.pop_front();
    CQXSFThread* worker = new CQXSFThread(m_szFlowPath, &next.query, std::move(next.markets));
    worker->RegisterSpi(next.spi);
    worker->Init();
    m_qxsfWorkers.push_back(worker);
}
