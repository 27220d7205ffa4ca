// The counting that every SymMgrObject shares. It stands in the library and not in the header so that clients
// and the library run one and the same code on a count, whatever compiler either was built with.

#include "orn/object.h"

#include "orn_log.h"

namespace ORN_3_30::internal {

unsigned RefCountHelper::addRef() {
    ScopedLock guard(m_lock);
    return ++m_refCount;
}

void RefCountHelper::refCount(unsigned& count) const {
    ScopedLock guard(m_lock);
    count = m_refCount;
}

// The object dies inside onLastRelease() while the lock is still held, so that a destructor chain running
// under a shared lock is covered as a whole; nothing of *this may be read behind that call.
unsigned RefCountHelper::release() {
    ILock* lock = m_lock;
    if (lock)
        lock->lock();
    unsigned count = --m_refCount;
    if (count != 0) {
        if (lock)
            lock->unlock();
        return count;
    }
    ILock* ownedLock = m_ownsLock ? lock : nullptr;
    m_ownsLock = false; // it is still needed when the counter dies with the object
    if (m_observer)
        m_observer->onLastRelease();
    if (lock)
        lock->unlock();
    delete ownedLock;
    return 0;
}

} // namespace ORN_3_30::internal
