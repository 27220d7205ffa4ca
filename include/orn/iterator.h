// The iteration contract of everything that the library enumerates.
#ifndef ORN_ITERATOR_H
#define ORN_ITERATOR_H

#include "orn/object.h"

namespace ORN_3_30 {

/// A cursor over elements of type `T`, which is a SymMgrObjectPtr (returned by value) or a raw interface
/// pointer. A new iterator stands on its first element already:
///
///     for (auto item = it->current(); item; item = it->next() ? it->current() : nullptr)
///
/// Unless an operation says otherwise the owner of the data has to outlive the iterator.
template <typename T>
class IIterator : public ISymMgrObject {
public:
    /// The element under the cursor; null past the end.
    virtual T current() = 0;
    /// Advances. True if the cursor now stands on an element; at the end it stays there and gives false.
    virtual bool next() = 0;
    /// Puts the cursor on the first element again.
    virtual void reset() = 0;

protected:
    ~IIterator() = default;
};

} // namespace ORN_3_30

#endif
