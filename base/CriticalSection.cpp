#include "base/CriticalSection.h"

void ECriticalSection::Create() { pthread_rwlock_init(&m_lock, nullptr); }

void ECriticalSection::Delete() { pthread_rwlock_destroy(&m_lock); }

int ECriticalSection::Lock() {
    pthread_rwlock_rdlock(&m_lock);
    return 1;
}

int ECriticalSection::Unlock() { return pthread_rwlock_unlock(&m_lock); }

EAutoLock::EAutoLock(ECriticalSection* cs) : m_result(0), m_cs(cs) {
    if (m_cs) m_result = m_cs->Lock();
}

EAutoLock::~EAutoLock() {
    if (m_result != 0) m_cs->Unlock();
}
