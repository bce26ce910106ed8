#include "dc/FrameCutter.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>

CDCFrameCutter::CDCFrameCutter() : m_fill(0) {}

CDCFrameCutter::Result CDCFrameCutter::Feed(const char* data, size_t n, IDCFrameSink& sink) {
    Result r = kNeedMore;
    while (n > 0) {
        size_t room = static_cast<size_t>(FreeBytes());
        if (room == 0) return kProtocolError;   // cannot happen: a frame is at most 4096 bytes
        size_t take = n < room ? n : room;
        std::memcpy(FreeSpace(), data, take);
        Commit(static_cast<int>(take));
        data += take;
        n -= take;
        r = Cut(sink);
        if (r != kNeedMore) return r;
    }
    return r;
}

CDCFrameCutter::Result CDCFrameCutter::Cut(IDCFrameSink& sink) {
    int start = 0;
    Result result = kNeedMore;
    while (m_fill - start > 3) {
        const unsigned char* head = reinterpret_cast<const unsigned char*>(m_buffer + start);
        uint16_t wireLength;
        std::memcpy(&wireLength, head + 2, 2);
        if (wireLength > kDcMaxBody) {
            result = kProtocolError;
            break;
        }
        if (m_fill - start < wireLength + kDcHeaderSize) break;

        const char* body = m_buffer + start + kDcHeaderSize;
        int length = wireLength;
        if (head[1] & 1) {
            uLongf out = kDcInflateBuffer;
            int rc = uncompress(reinterpret_cast<Bytef*>(m_inflated), &out, reinterpret_cast<const Bytef*>(body),
                                static_cast<uLong>(wireLength));
            if (rc != Z_OK || out > static_cast<uLongf>(kDcMaxBody)) {
                result = kProtocolError;
                break;
            }
            body = m_inflated;
            length = static_cast<int>(out);
        }
        int command = head[1] >> 1;
        if (!sink.OnFrame(command, body, length)) {
            result = kStopped;
            break;
        }
        start += wireLength + kDcHeaderSize;
    }
    if (result != kNeedMore) {
        m_fill = 0;
        return result;
    }
    if (start > 0) {
        std::memmove(m_buffer, m_buffer + start, static_cast<size_t>(m_fill - start));
        m_fill -= start;
    }
    return kNeedMore;
}
