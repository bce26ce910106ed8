// Lock object and scope guard used around the library's queues and sends.
//
// IMPORTANT: ECriticalSection::Lock() takes only the SHARED (read) side of a
// POSIX read-write lock, and nothing in the library ever takes the write
// side. Two threads locking the same section therefore both proceed: these
// sections give NO mutual exclusion. This is the library's established
// behaviour and is kept on purpose; a thread may also re-take a section it
// already holds without blocking. Code that needs real exclusion must use a
// real mutex (std::mutex or similar), not this class.
#ifndef ORVEX_BASE_CRITICALSECTION_H
#define ORVEX_BASE_CRITICALSECTION_H

#include <pthread.h>

class ECriticalSection {
public:
    ECriticalSection() { Create(); }
    ~ECriticalSection() { Delete(); }

    ECriticalSection(const ECriticalSection&) = delete;
    ECriticalSection& operator=(const ECriticalSection&) = delete;

    // Takes the shared side; returns 1 whatever the lock call returned.
    int Lock();
    // Releases one hold; returns the pthread_rwlock_unlock result.
    int Unlock();

private:
    void Create();
    void Delete();

    pthread_rwlock_t m_lock;
};

// Locks on construction, unlocks on destruction (see the note above: shared
// side only, no exclusion).
class EAutoLock {
public:
    explicit EAutoLock(ECriticalSection* cs);
    ~EAutoLock();

    EAutoLock(const EAutoLock&) = delete;
    EAutoLock& operator=(const EAutoLock&) = delete;

private:
    int m_result;
    ECriticalSection* m_cs;
};

#endif
