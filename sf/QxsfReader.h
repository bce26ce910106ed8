// Cuts the file server's byte stream into packages.
//
// A package is a 7-byte head (mark, u16 handle, command, flags, u16 body
// length) and its body, deflated when the flags say so. The reader owns the
// 16384-byte receive buffer and the 8192-byte inflation buffer and knows
// nothing of sockets: the worker receives straight into FreeSpace(), calls
// Commit() and Cut(), and the sink gets one call per whole package with the
// (inflated) body. Used by one file-service worker thread.
#ifndef ORVEX_SF_QXSF_READER_H
#define ORVEX_SF_QXSF_READER_H

#include <cstddef>

#include "sf/QxsfWire.h"

class IQxsfPackageSink {
public:
    // One whole package. False stops the cutting (the worker has failed);
    // the package stays in the buffer.
    virtual bool OnPackage(const _MainPkgHead& head, char* body, int length) = 0;

protected:
    ~IQxsfPackageSink() = default;
};

class CQxsfReader {
public:
    enum Result {
        kNeedMore,   // every whole package was handed over
        kBadHead,    // no mark, or a body that could never fit the buffer
        kBadBody,    // a compressed body that does not inflate
        kStopped,    // the sink asked to stop
    };
    enum { kBufferSize = 16384, kBodySize = 8192 };

    CQxsfReader() = default;
    CQxsfReader(const CQxsfReader&) = delete;
    CQxsfReader& operator=(const CQxsfReader&) = delete;

    char* FreeSpace() { return m_buffer + m_fill; }
    int FreeBytes() const { return kBufferSize - m_fill; }
    void Commit(int n) { m_fill += n; }
    int Fill() const { return m_fill; }
    void Clear() { m_fill = 0; }

    // Hands every whole package to the sink, in order, and removes it.
    Result Cut(IQxsfPackageSink& sink);
    // Copies bytes in, as much as fits at a time, cutting after each copy,
    // until all are taken or a cut does not end in kNeedMore.
    Result Feed(const char* data, size_t n, IQxsfPackageSink& sink);

private:
    char m_buffer[kBufferSize];
    char m_body[kBodySize];
    int m_fill = 0;
};

#endif
