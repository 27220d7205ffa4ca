// The reference-counted roots of everything that the library hands out, and the pointer that holds them.
#ifndef ORN_OBJECT_H
#define ORN_OBJECT_H

#include "orn/export.h"
#include "orn/lock.h"

#include <cstddef>
#include <cstdint>

namespace ORN_3_30 {

/// Root interface of every object. A new object has count 0 and belongs to whoever takes the first
/// reference; it dies at the last release. It has no destructor in its table of operations: lifetime belongs
/// to the count, and a caller never deletes.
class ISymMgrObject {
public:
    /// Takes a reference; returns the new count.
    virtual unsigned addRef() = 0;
    /// Drops a reference; returns the new count. At 0 the object is gone.
    virtual unsigned release() = 0;

protected:
    ~ISymMgrObject() = default;
};

namespace internal {

/// Told when the count that it is attached to reaches zero.
class IDeleteObserver {
public:
    virtual void onLastRelease() = 0;

protected:
    ~IDeleteObserver() = default;
};

/// The counter inside every SymMgrObject. Counts are guarded by a lock and not by atomics: the release of a
/// module's objects runs destructor chains that touch one another, and the shared lock covers the chain.
class RefCountHelper {
public:
    /// The lock is borrowed and may be null: then the count is not guarded at all.
    RefCountHelper(IDeleteObserver* observer, ILock* lock)
        : m_refCount(0), m_ownsLock(false), m_observer(observer), m_lock(lock) {}
    /// With `ownLock` the counter makes a lock of its own, which dies after the object.
    RefCountHelper(IDeleteObserver* observer, bool ownLock)
        : m_refCount(0), m_ownsLock(ownLock), m_observer(observer), m_lock(ownLock ? new OrnLock : nullptr) {}
    /// Frees the lock of an object that never reached its last release: one that its owner deletes, or whose
    /// construction failed.
    ~RefCountHelper() {
        if (m_ownsLock)
            delete m_lock;
    }
    RefCountHelper(const RefCountHelper&) = delete;
    RefCountHelper& operator=(const RefCountHelper&) = delete;

    ORN_API unsigned addRef();
    ORN_API unsigned release();
    ORN_API void refCount(unsigned& count) const;

private:
    std::uint32_t m_refCount;
    bool m_ownsLock; ///< beside the count: every object has a counter, and a module has millions of objects
    IDeleteObserver* m_observer;
    ILock* m_lock;
};

} // namespace internal

/// Turns the interface `T` into a countable class.
///
/// The table of operations is: `addRef`, `release`, the operations of `T`, the destructor pair, `refCount`,
/// `onLastRelease`. An interface that lists a virtual destructor of its own keeps it in its own place.
template <typename T>
class SymMgrObject : public T, public internal::IDeleteObserver {
public:
    /// Count guarded by a lock that outlives the object; null: not guarded.
    explicit SymMgrObject(ILock* lock) : m_refCountHelper(this, lock) {}
    /// Count guarded by a lock of the object's own (true) or not at all (false).
    explicit SymMgrObject(bool ownLock) : m_refCountHelper(this, ownLock) {}
    SymMgrObject(const SymMgrObject&) = delete;
    SymMgrObject& operator=(const SymMgrObject&) = delete;

    unsigned addRef() override { return m_refCountHelper.addRef(); }
    unsigned release() override { return m_refCountHelper.release(); }

    // NOLINTNEXTLINE(modernize-use-override): only some interfaces have a virtual destructor
    virtual ~SymMgrObject() {}
    virtual void refCount(unsigned& count) const { m_refCountHelper.refCount(count); }
    void onLastRelease() override { delete this; }

private:
    internal::RefCountHelper m_refCountHelper;
};

/// Root of lighter objects that never cross the boundary as an interface of their own: no second base, no
/// observer, a lock that is never owned. The same pointer template holds them.
class SymMgrObjectImpl {
public:
    explicit SymMgrObjectImpl(ILock* lock = nullptr) : m_lock(lock), m_refCount(0) {}
    SymMgrObjectImpl(const SymMgrObjectImpl&) = delete;
    SymMgrObjectImpl& operator=(const SymMgrObjectImpl&) = delete;

    virtual ~SymMgrObjectImpl() {}

    virtual unsigned addRef() {
        ScopedLock guard(m_lock);
        return ++m_refCount;
    }

    /// The lock is held through the destructor and left through a local: the object is gone by then.
    virtual unsigned release() {
        ILock* lock = m_lock;
        ScopedLock guard(lock);
        unsigned count = --m_refCount;
        if (count == 0)
            delete this;
        return count;
    }

private:
    ILock* m_lock;
    std::uint32_t m_refCount;
};

/// Holds one reference to anything with `addRef` and `release`; may be null.
template <typename T>
class SymMgrObjectPtr {
public:
    SymMgrObjectPtr() noexcept : m_object(nullptr) {}
    SymMgrObjectPtr(std::nullptr_t) noexcept : m_object(nullptr) {}
    SymMgrObjectPtr(T* object) : m_object(object) {
        if (m_object)
            m_object->addRef();
    }
    SymMgrObjectPtr(const SymMgrObjectPtr& other) : SymMgrObjectPtr(other.m_object) {}
    SymMgrObjectPtr(SymMgrObjectPtr&& other) noexcept : m_object(other.m_object) { other.m_object = nullptr; }
    ~SymMgrObjectPtr() { reset(); }

    SymMgrObjectPtr& operator=(T* object) {
        if (m_object == object)
            return *this;
        if (m_object)
            m_object->release();
        m_object = object;
        if (m_object)
            m_object->addRef();
        return *this;
    }
    SymMgrObjectPtr& operator=(std::nullptr_t) {
        reset();
        return *this;
    }
    SymMgrObjectPtr& operator=(const SymMgrObjectPtr& other) { return *this = other.m_object; }
    SymMgrObjectPtr& operator=(SymMgrObjectPtr&& other) noexcept {
        if (this != &other) {
            T* object = other.m_object;
            other.m_object = nullptr;
            if (m_object)
                m_object->release();
            m_object = object;
        }
        return *this;
    }

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    operator T*() const noexcept { return m_object; }

private:
    void reset() {
        T* object = m_object;
        m_object = nullptr;
        if (object)
            object->release();
    }

    T* m_object;
};

} // namespace ORN_3_30

#endif
