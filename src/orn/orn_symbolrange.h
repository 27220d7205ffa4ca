// One interval of addresses with what owns it, and the iterators over the ranges of one scope.
#ifndef ORN_SYMBOLRANGE_IMPL_H
#define ORN_SYMBOLRANGE_IMPL_H

#include "orn_scope.h"

namespace ORN_3_30 {

/// A copy of an interval: it stays valid while tables change. Belongs to one thread.
class SymbolRange : public SymMgrObject<ISymbolRange> {
public:
    /// An `end` of all ones means "unknown": the range then ends with its segment. `scope` and `thunk` are
    /// borrowed; `thunk` may be null.
    SymbolRange(unsigned long long begin, unsigned long long end, Scope* scope, IThunk* thunk);

    void beginAddress(SymMgrObjectPtr<IAddress>& out) override;
    void endAddress(SymMgrObjectPtr<IAddress>& out) override;
    unsigned long long size() override;
    unsigned long long sizeToNextSymbol() override;
    ISymbol* symbol() override;
    IInlineInstance* inlineInstance() override;
    IThunk* thunk() override;
    void parentRange(SymMgrObjectPtr<ISymbolRange>& out) override;
    int startsSymbol() override;
    void nestedRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override;
    void nestedRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, IAddress* address) override;

private:
    void giveAddress(SymMgrObjectPtr<IAddress>& kept, unsigned long long value,
                     SymMgrObjectPtr<IAddress>& out);
    bool beginOfNextSymbol(unsigned long long& begin);
    unsigned long long segmentEnd();

    unsigned long long m_begAddr;
    unsigned long long m_endAddr;
    SymMgrObjectPtr<IAddress> m_begAddress; ///< null until asked for
    SymMgrObjectPtr<IAddress> m_endAddress;
    Scope* m_scope;
    IThunk* m_thunk; ///< holds no reference
    bool m_thunkKnown;
};

/// Walks the ranges of a scope. Holds the scope, so that it may outlive the caller's pointer.
class RelRangeIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>> {
public:
    explicit RelRangeIterator(Scope* scope);

    SymMgrObjectPtr<ISymbolRange> current() override;
    bool next() override;
    void reset() override;

private:
    Scope::RangeList* m_ranges;
    Scope::RangeNode* m_cursor;
    SymMgrObjectPtr<Scope> m_scope;
};

/// Walks the thunks of a scope as ranges, in order of arrival.
class ThunkRangeIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>> {
public:
    explicit ThunkRangeIterator(Scope* scope);

    SymMgrObjectPtr<ISymbolRange> current() override;
    bool next() override;
    void reset() override { m_cursor = 0; }

private:
    std::size_t thunkCount() const;

    std::size_t m_cursor; ///< an index, so that a thunk that comes meanwhile does no harm
    SymMgrObjectPtr<Scope> m_scope;
};

} // namespace ORN_3_30

#endif
