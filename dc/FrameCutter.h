// Cuts the quote server's byte stream into frames.
//
// A frame is a 4-byte header ('@', command*2 + compressed flag, u16 body
// length) and the body. The cutter owns the 16384-byte receive buffer and the
// separate 16384-byte inflation buffer; it knows nothing of sockets. The
// worker receives straight into FreeSpace(), calls Commit() and Cut(), and
// the sink gets one call per whole frame with the (inflated) body.
// Used by the DC worker thread only.
#ifndef ORVEX_DC_FRAME_CUTTER_H
#define ORVEX_DC_FRAME_CUTTER_H

#include <cstddef>

constexpr int kDcReceiveBuffer = 16384;
constexpr int kDcInflateBuffer = 16384;
constexpr int kDcMaxBody = 4092;
constexpr int kDcHeaderSize = 4;

class IDCFrameSink {
public:
    // One whole frame. Returns false when the frame closed the connection:
    // cutting stops and whatever is still buffered is dropped by the reset.
    virtual bool OnFrame(int command, const char* body, int length) = 0;

protected:
    ~IDCFrameSink() = default;
};

class CDCFrameCutter {
public:
    enum Result {
        kNeedMore,        // every whole frame was handed over
        kProtocolError,   // a body over 4092 bytes, or one that would not inflate
        kStopped,         // the sink asked to stop
    };

    CDCFrameCutter();
    CDCFrameCutter(const CDCFrameCutter&) = delete;
    CDCFrameCutter& operator=(const CDCFrameCutter&) = delete;

    char* FreeSpace() { return m_buffer + m_fill; }
    int FreeBytes() const { return kDcReceiveBuffer - m_fill; }
    void Commit(int n) { m_fill += n; }
    int Fill() const { return m_fill; }
    void Clear() { m_fill = 0; }

    // Copies bytes in (bounded by the free space) and cuts; for tests and
    // fuzzing. Returns the result of the cut.
    Result Feed(const char* data, size_t n, IDCFrameSink& sink);

    // Hands every whole frame to the sink, in order, and removes it.
    Result Cut(IDCFrameSink& sink);

private:
    char m_buffer[kDcReceiveBuffer];
    char m_inflated[kDcInflateBuffer];
    int m_fill;
};

#endif
