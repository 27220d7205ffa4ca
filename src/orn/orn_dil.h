// Line resolvers: they know the source files of one debug information, load lines before a query and pick
// the location that answers for an address.
#ifndef ORN_DIL_H
#define ORN_DIL_H

#include "orn/line_table.h"
#include "orn/source.h"

#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace ORN_3_30 {

class ICompUnitDetails;
class IDebugInfoLoader;
class IFileFormatLoader;
class IScope;
class SourceFile;

/// What every resolver does with the lines that its own query gives. The count has a lock of its own: line
/// iterators of several threads hold their resolver.
class SrcLineResolver : public SymMgrObject<ISrcLineResolver> {
public:
    using LineIterator = IIterator<SymMgrObjectPtr<ISourceLine>>;

    SrcLineResolver() : SymMgrObject<ISrcLineResolver>(true) {}

    void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>& out, unsigned long long address,
                          unsigned long long unitId, ILineTable* table,
                          ISourceLocationSelector* selector) override;
    status_t sourceLines(SymMgrObjectPtr<LineIterator>& out, unsigned long long unitId, unsigned fileId,
                         unsigned long long low, unsigned long long high, ILineTable* table) override;

    /// The lines that overlap [low, high), or that lie at `low` if both are equal, with the lines of calls
    /// that were expanded in place. `table` may be null: the resolver's own.
    virtual status_t sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long low,
                                        unsigned long long high, unsigned long long unitId, unsigned fileId,
                                        ILineTable* table) = 0;

    /// The line whose location sourceLocationAt() gives; null if there is none.
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, unsigned long long address,
                      unsigned long long unitId, ILineTable* table);

private:
    void linesAt(SymMgrObjectPtr<LineIterator>& out, unsigned long long address, unsigned long long unitId,
                 ILineTable* table);
};

/// The resolver of a debug information that is made of units.
///
/// What units deliver (rows and files) arrives under the loading lock, and queries take it as well; it comes
/// before the lock of any unit. A query's iterator is walked without it.
class LineResolver : public SrcLineResolver {
public:
    /// All are borrowed. `scope` gives the calls that were expanded in place, `loadLock` is the loading lock;
    /// both may be null.
    LineResolver(IFileFormatLoader* loader, IDebugInfoLoader* debugLoader, IScope* scope, ILock* loadLock);
    ~LineResolver() override;

    unsigned fileCount() override;
    ISourceFile* fileAt(unsigned index) override;
    ICompUnitDetails* compUnitDetails(unsigned long long id) override;
    int reserved() override { return 0; }
    void noteAddress(unsigned long long) override {}
    ILineTable* lineTable() override { return m_lineTable; }

    status_t sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long low,
                                unsigned long long high, unsigned long long unitId, unsigned fileId,
                                ILineTable* table) override;
    /// Does nothing here: where rows go is decided by those who have a table to fill.
    virtual void addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                              unsigned long long address, unsigned long long size, unsigned long long extra);

    /// Id of the file with that path, byte by byte. A path that is new gets the file count as its id; times
    /// and lengths that come with a known path are dropped.
    unsigned addFile(std::string_view path, unsigned long long modificationTime, unsigned long long length);
    /// The same for the next file number of a unit, which is told the id.
    unsigned registerFile(ICompUnitDetails& unit, std::string_view path, unsigned long long modificationTime,
                          unsigned long long length);
    /// Id of the unit's file number `number`, -1 if there is none. Runs the unit's line program if that did
    /// not happen yet, since the program holds the file table.
    int fileIdOf(unsigned long long number, ICompUnitDetails& unit);
    /// Null if no file has that path.
    ISourceFile* fileByPath(std::string_view path);

    /// The scope that is asked about expanded calls, and the lock that goes with it, when a module's scope is
    /// made anew or dies.
    void setScope(IScope* scope, ILock* loadLock);
    ILock* loadLock() const { return m_loadLock; }
    IFileFormatLoader* loader() const { return m_loader; }

protected:
    void setLineTable(ILineTable* table) { m_lineTable = table; }

private:
    status_t ensureLines(unsigned long long unitId);

    IFileFormatLoader* m_loader;
    SymMgrObjectPtr<ILineTable> m_lineTable; ///< null until a derived class makes one
    IDebugInfoLoader* m_debugLoader;
    std::deque<ISourceFile*> m_files; ///< by file id; each is a SourceFile that is counted here
    std::unordered_map<std::string_view, unsigned> m_fileIdsByPath; ///< the paths are those of the files
    IScope* m_scope;
    ILock* m_loadLock;
};

} // namespace ORN_3_30

#endif
