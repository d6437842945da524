// Mutexes over the platform layer, and the scoped lock TAutoMutex.
//
// The library's convention: plain mutexes are TBaseMutex(MUTEX_NONE,
// USE_STD, nullptr), recursive ones TRecursiveMutex(nullptr). Neither checks
// platform failures; a mutex the platform could not create has a null handle
// and locking it does nothing.
#ifndef GROUNDKIT_OS_OS_MUTEX_H
#define GROUNDKIT_OS_OS_MUTEX_H

#include "GroundKit/OS/OSType.h"
#include "os_sync.h"

const unsigned int MUTEX_NONE = 0;
const unsigned int MUTEX_RECURSIVE = OS_MUTEX_RECURSIVE;
const unsigned int MUTEX_PRIO_INHERIT = OS_MUTEX_PRIO_INHERIT;
const unsigned int DEFAULT_MUTEX_ATTRIBUTE = 0;

namespace OS {

class TBaseMutex {
public:
    explicit TBaseMutex(unsigned int attribute = DEFAULT_MUTEX_ATTRIBUTE, RT_MODE mode = USE_STD,
                        const char* name = nullptr)
        : m_pMutexHandle(os_mutex_create(attribute, mode, name)) {}
    virtual ~TBaseMutex() { os_mutex_destroy(&m_pMutexHandle); }

    TBaseMutex(const TBaseMutex&) = delete;
    TBaseMutex& operator=(const TBaseMutex&) = delete;

    mutex_handle* handle() const { return m_pMutexHandle; }
    void lock() { os_mutex_lock(m_pMutexHandle); }
    void unlock() { os_mutex_unlock(m_pMutexHandle); }

private:
    mutex_handle* m_pMutexHandle;
};

// The owning thread may lock it again; each lock needs its unlock.
class TRecursiveMutex : public TBaseMutex {
public:
    explicit TRecursiveMutex(const char* name = nullptr)
        : TBaseMutex(MUTEX_RECURSIVE, USE_STD, name) {}
    virtual ~TRecursiveMutex() {}
};

}  // namespace OS

// Holds a mutex for a scope. A null mutex is neither locked nor unlocked.
template <class T>
class TAutoMutex {
public:
    explicit TAutoMutex(T* pMutex) : m_pMutex(pMutex) {
        if (m_pMutex != nullptr) m_pMutex->lock();
    }
    ~TAutoMutex() {
        if (m_pMutex != nullptr) m_pMutex->unlock();
    }
    TAutoMutex(const TAutoMutex&) = delete;
    TAutoMutex& operator=(const TAutoMutex&) = delete;

private:
    T* m_pMutex;
};

#endif
