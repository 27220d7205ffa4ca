// The recursive lock that guards counts and lists.
#ifndef ORN_LOCK_H
#define ORN_LOCK_H

#include <pthread.h>

namespace ORN_3_30 {

/// A lock. Whoever makes an object decides which lock guards its count.
class ILock {
public:
    virtual void lock() = 0;
    virtual void unlock() = 0;
    virtual ~ILock() {}
};

/// Recursive mutex: a public operation may re-enter others under the same lock. The results of the pthread
/// calls are ignored: on a valid recursive mutex they cannot fail in a way that a caller could mend.
class OrnLock : public ILock {
public:
    OrnLock() {
        pthread_mutexattr_init(&m_attributes);
        pthread_mutexattr_settype(&m_attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &m_attributes);
    }
    ~OrnLock() override {
        pthread_mutex_destroy(&m_mutex);
        pthread_mutexattr_destroy(&m_attributes);
    }
    OrnLock(const OrnLock&) = delete;
    OrnLock& operator=(const OrnLock&) = delete;

    void lock() override { pthread_mutex_lock(&m_mutex); }
    void unlock() override { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutexattr_t m_attributes;
    pthread_mutex_t m_mutex;
};

/// Holds a lock to the end of the scope; a null lock is allowed and does nothing.
class ScopedLock {
public:
    explicit ScopedLock(ILock* lock) : m_lock(lock) {
        if (m_lock)
            m_lock->lock();
    }
    ~ScopedLock() {
        if (m_lock)
            m_lock->unlock();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    ILock* m_lock;
};

} // namespace ORN_3_30

#endif
