#include "sf/QxsfReader.h"

#include <cstring>

CQxsfReader::Result CQxsfReader::Cut(IQxsfPackageSink& sink) {
    int start = 0;
    Result result = kNeedMore;
    while (m_fill - start >= QXSF_HEAD_SIZE) {
        const char* at = m_buffer + start;
        _MainPkgHead head;
        if (at[0] != QXSF_MARK || from_stream(head, at, m_fill - start) != QXSF_HEAD_SIZE) {
            result = kBadHead;
            break;
        }
        const int wireLength = QXSF_HEAD_SIZE + head.BodyLength;
        // A package that can never fit the buffer is as broken as a bad
        // head: waiting for it would stall the worker for ever.
        if (wireLength > kBufferSize) {
            result = kBadHead;
            break;
        }
        if (m_fill - start < wireLength) break;

        char* body = m_buffer + start + QXSF_HEAD_SIZE;
        int bodyLength = head.BodyLength;
        if ((head.Flags & QXSF_FLAG_COMPRESSED) != 0) {
            bodyLength = QxsfInflateBody(body, bodyLength, m_body, kBodySize);
            if (bodyLength < 0) {
                result = kBadBody;
                break;
            }
            body = m_body;
        }
        if (!sink.OnPackage(head, body, bodyLength)) {
            result = kStopped;
            break;
        }
        start += wireLength;
    }
    if (start > 0) {
        std::memmove(m_buffer, m_buffer + start, static_cast<size_t>(m_fill - start));
        m_fill -= start;
    }
    return result;
}

CQxsfReader::Result CQxsfReader::Feed(const char* data, size_t n, IQxsfPackageSink& sink) {
    Result result = kNeedMore;
    while (n > 0 && result == kNeedMore) {
        const size_t take = n < static_cast<size_t>(FreeBytes()) ? n : static_cast<size_t>(FreeBytes());
        std::memcpy(FreeSpace(), data, take);
        Commit(static_cast<int>(take));
        data += take;
        n -= take;
        result = Cut(sink);
    }
    return result;
}
