// The walks over a line table's answers.
#ifndef ORN_LINETABLE_ITERATORS_H
#define ORN_LINETABLE_ITERATORS_H

#include "orn/iterator.h"
#include "orn/source.h"
#include "orn_linetable_impl.h"

#include <array>
#include <optional>
#include <unordered_set>
#include <vector>

namespace ORN_3_30 {

class IScope;
class ISymbolRange;

/// Walks the lists of a line table file by file, unit by unit. Holds the lists as they were when it was made.
class LineWalk {
public:
    LineWalk(const SrcLocatorLists& listsByFile, const LineQuery& query);

    /// The answers of the next file and unit that has any; false, with `found` empty, if there is none.
    bool next(FoundLocators& found);
    void reset();

private:
    const SrcLocatorList::Group* groupOf(std::size_t list) const;
    const SrcLocatorList::Group* lowestGroup() const;
    void takeGroup(const SrcLocatorList& list, const SrcLocatorList::Group& group,
                   FoundLocators& found) const;

    SrcLocatorLists m_lists;
    LineQuery m_query;
    std::vector<std::size_t> m_cursors; ///< for each list the next group
};

/// The lines that overlap an interval, by file id, unit id, address, line, column. Each end of a locator
/// gives a line of its own.
class SourceLineIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    SourceLineIterator(LineTable& table, const LineQuery& query);

    SymMgrObjectPtr<ISourceLine> current() override;
    bool next() override;
    void reset() override;

protected:
    /// Finds everything at once: for queries that never have many answers.
    struct AtOnce {};
    SourceLineIterator(LineTable& table, const LineQuery& query, AtOnce);

    /// Steps to the next answer; false if there is none.
    virtual bool findNext();
    bool stepInFound();

private:
    IFileFormatLoader& m_loader;
    ISrcLineResolver& m_resolver;
    FoundLocators m_found; ///< all answers, or those of one file and unit
    std::size_t m_cursor;
    std::optional<LineWalk> m_walk; ///< where the further answers come from
};

/// The lines at one address.
class SourceLineByAddrIterator : public SourceLineIterator {
public:
    SourceLineByAddrIterator(LineTable& table, unsigned long long address, unsigned long long unitId,
                             unsigned fileId)
        : SourceLineIterator(table, {address, address, unitId, fileId}, AtOnce()) {}

protected:
    bool findNext() override { return stepInFound(); }
};

/// The one line of a call that was expanded in place: the call's location over the code that it became.
class RangeCallerSourceLineIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    RangeCallerSourceLineIterator(IFileFormatLoader& loader, SymMgrObjectPtr<ISourceLocation> location,
                                  unsigned long long low, unsigned long long high);

    SymMgrObjectPtr<ISourceLine> current() override;
    bool next() override;
    void reset() override { m_isThere = true; }

private:
    IFileFormatLoader& m_loader;
    SymMgrObjectPtr<ISourceLocation> m_location;
    unsigned long long m_low;
    unsigned long long m_high;
    bool m_isThere = true;
};

/// The lines of a query, each followed by the lines of the calls that led to it: those calls, innermost
/// first, that were expanded in place at the line's start or at the query's low end, whichever is greater.
/// Each expanded call comes once in an iteration. Calls are not limited to the query's file.
class InlineCallerSourceLineIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    /// `scope` is borrowed and may be null: then there are no calls.
    InlineCallerSourceLineIterator(ISrcLineResolver& resolver, IFileFormatLoader& loader, IScope* scope,
                                   ILineTable& table, const LineQuery& query);

    SymMgrObjectPtr<ISourceLine> current() override;
    bool next() override;
    void reset() override;

private:
    using Iterator = IIterator<SymMgrObjectPtr<ISourceLine>>;

    /// The expanded calls that came already. Few in nearly every iteration.
    class SeenInstances {
    public:
        /// False if the instance was seen before.
        bool insert(IInlineInstance* instance);
        void clear();

    private:
        std::array<IInlineInstance*, 8> m_few;
        std::size_t m_fewCount = 0;
        std::unordered_set<IInlineInstance*> m_many;
    };

    ISourceLine* mainLine();
    void advanceMain();
    void expandMainLine();
    void collectCallers(unsigned long long address, ISymbolRange& function);
    void addCaller(ISymbolRange& range);

    SymMgrObjectPtr<ISrcLineResolver> m_resolver;
    IFileFormatLoader& m_loader;
    IScope* m_scope;
    unsigned long long m_low;
    SymMgrObjectPtr<Iterator> m_main;
    SymMgrObjectPtr<ISourceLine> m_mainLine; ///< the current one, once it was asked for
    bool m_isExpanded = false;               ///< the main line is done with, its calls are walked
    std::vector<SymMgrObjectPtr<Iterator>> m_callers;
    std::size_t m_caller = 0;
    SeenInstances m_seen;
    std::optional<unsigned long long> m_expandedAddress; ///< whose calls were found last
};

/// The lines of a symbol's ranges in the file that declares the symbol, clipped to two addresses.
class SymbolSourceLineIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    /// The scope is borrowed; null limits do not clip. Without a file or a location there are no lines,
    /// unless `resolver` is given: it answers for every file, as a symbol whose declaration nobody tells
    /// wants it.
    SymbolSourceLineIterator(IScope* scope, unsigned fileId, unsigned long long symbolId,
                             ISourceLocation* location, IAddress* low, IAddress* high,
                             ISrcLineResolver* resolver = nullptr);

    SymMgrObjectPtr<ISourceLine> current() override;
    bool next() override;
    void reset() override;

private:
    using Iterator = IIterator<SymMgrObjectPtr<ISourceLine>>;

    void findLines();
    bool hasSource() const;
    bool queryRange(ISymbolRange& range);
    status_t query(IAddress& low, IAddress& high);

    unsigned m_fileId;
    unsigned long long m_symbolId;
    SymMgrObjectPtr<ISourceLocation> m_location;
    SymMgrObjectPtr<IAddress> m_low;
    SymMgrObjectPtr<IAddress> m_high;
    SymMgrObjectPtr<ISrcLineResolver> m_resolver; ///< null where the location's file is asked
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> m_ranges; ///< null for a scope without symbol
    SymMgrObjectPtr<Iterator> m_lines; ///< of the current range; null at the end
};

} // namespace ORN_3_30

#endif
