// Thread handle for the library's workers.
//
// An MThread starts one POSIX thread running a plain function with one
// pointer argument and keeps its handle until it is joined. It never asks the
// thread to stop: the routine must end by itself (the owning worker sets its
// own exit flag first), otherwise StopThread/JoinThread wait for ever.
//
// Start, stop and join are meant to be called from the owner's thread only;
// the active flag alone may be read from other threads.
#ifndef ORVEX_BASE_MTHREAD_H
#define ORVEX_BASE_MTHREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

class MThread {
public:
    MThread();
    virtual ~MThread();  // joins the thread (StopThread)

    MThread(const MThread&) = delete;
    MThread& operator=(const MThread&) = delete;

    // Copies name (at most 32 characters) and starts routine(arg) on a new
    // thread with default attributes. Returns 1 on success; on failure clears
    // the active flag and returns the current errno value. Test against 1.
    // The last argument is accepted and ignored.
    int StartThread(const char* name, void* (*routine)(void*), void* arg, bool = false);

    // Both wait for the thread to end (if one was started and not yet
    // joined), discard its result and clear the active flag. A second call
    // returns at once.
    void StopThread();
    void JoinThread();

    // No effect; return 1.
    int PauseThread() { return 1; }
    int ResumeThread() { return 1; }

    // True from a successful start until the thread is joined. IsEmpty
    // returns the same flag (true while a thread runs) despite its name.
    bool IsActive() const { return m_bActive.load(); }
    bool IsEmpty() const { return m_bActive.load(); }

    // Sleeps ms milliseconds via usleep; the microsecond count is formed in
    // 32 bits, so values above 4294967 ms wrap.
    static void Sleep(unsigned long ms);

    // Caller's word; initially 0x00000000FFFFFFFF.
    unsigned long GetAddtionData() const { return m_ulAddtionData; }
    void SetAddtionData(unsigned long data) { m_ulAddtionData = data; }

private:
    pthread_t m_hThread;              // 0 when none started or after join
    std::atomic<bool> m_bActive;
    char m_szName[32];                // bounded copy, not NUL-terminated at 32+
    uint64_t m_reserved;
    unsigned long m_ulAddtionData;
};

#endif
