#include "base/MThread.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

MThread::MThread()
    : m_hThread(0), m_bActive(false), m_szName{}, m_reserved(0), m_ulAddtionData(0xFFFFFFFFUL) {}

MThread::~MThread() { StopThread(); }

int MThread::StartThread(const char* name, void* (*routine)(void*), void* arg, bool) {
    // Bounded copy: a name of 32 characters or more fills the buffer
    // without a terminating NUL.
    size_t n = 0;
    if (name) {
        for (; n < sizeof m_szName && name[n] != '\0'; ++n) m_szName[n] = name[n];
    }
    if (n < sizeof m_szName) memset(m_szName + n, 0, sizeof m_szName - n);

    pthread_t handle = 0;
    if (pthread_create(&handle, nullptr, routine, arg) != 0) {
        m_bActive = false;
        return errno;
    }
    m_hThread = handle;
    m_bActive = true;

    // Name the thread for debuggers and ps as well; the kernel keeps 15
    // characters. Failure here is harmless.
    char osName[16];
    memcpy(osName, m_szName, sizeof osName - 1);
    osName[sizeof osName - 1] = '\0';
    pthread_setname_np(handle, osName);
    return 1;
}

void MThread::StopThread() {
    if (m_hThread != 0) {
        pthread_join(m_hThread, nullptr);
        m_hThread = 0;
    }
    m_bActive = false;
}

void MThread::JoinThread() { StopThread(); }

void MThread::Sleep(unsigned long ms) {
    const uint32_t us = static_cast<uint32_t>(ms) * 1000u;
    usleep(us);
}
