// Requests to the quote server and the request-handle map.
#include <sys/socket.h>

#include <cstring>

#include "dc/DCThread.h"

namespace {

void PutU16(unsigned char* p, uint16_t v) { std::memcpy(p, &v, 2); }
void PutU32(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }

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

    std::lock_guard<std::recursive_mutex> lock(m_sendLock);
    int64_t sock = m_socket.load();
    int sent = 0;
    while (sent < total) {
        ssize_t n = sock < 0 ? -1 : send(static_cast<int>(sock), frame + sent, static_cast<size_t>(total - sent),
                                         MSG_NOSIGNAL);
        if (n < 0) {
            m_nDisconnectReason = kReasonSendError;
            Reset();
            return 0;
        }
        sent += static_cast<int>(n);
    }
    return 1;
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

int CDCThread::SubscribeDynainfo() {
    if (m_bLog) Log("SubscribeDynainfo : %d", m_nDynainfoSelector);
    unsigned char body[4];
    PutU32(body, static_cast<uint32_t>(m_nDynainfoSelector));
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
