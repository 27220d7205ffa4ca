// The line resolver of compiled managed code.
#ifndef ORN_OAT_RESOLVER_H
#define ORN_OAT_RESOLVER_H

#include "orn_dil.h"
#include "orn_sourceline_impl.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ORN_3_30 {

/// Answers from what the load of symbols has put in: lines come with the methods that they belong to, and a
/// query for lines reads nothing.
///
/// Lines and files are added under the loading lock, and queries take it as well.
class OATSrcLineResolver : public SrcLineResolver {
public:
    /// All are borrowed. `scope` gives the calls that were expanded in place, `loadLock` is the loading lock;
    /// both may be null.
    OATSrcLineResolver(IFileFormatLoader* loader, IScope* scope, ILock* loadLock);
    ~OATSrcLineResolver() override;

    unsigned fileCount() override;
    /// An index beyond the end is logged.
    ISourceFile* fileAt(unsigned index) override;
    ICompUnitDetails* compUnitDetails(unsigned long long) override { return nullptr; }
    int reserved() override { return 0; }
    void noteAddress(unsigned long long) override {}
    ILineTable* lineTable() override { return m_lineTable; }
    status_t sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long low,
                                unsigned long long high, unsigned long long unitId, unsigned fileId,
                                ILineTable* table) override;

    /// Enters [address, address + size).
    void addLine(unsigned fileId, unsigned line, unsigned column, unsigned long long address,
                 unsigned long long size);
    /// Id of the file of exactly that name. Ids count from 0 in the order of first use.
    unsigned findOrAddFile(std::string_view name);
    /// The scope that is asked about expanded calls, and the lock that goes with it, when a module's scope is
    /// made anew.
    void setScope(IScope* scope, ILock* loadLock);

private:
    IFileFormatLoader* m_loader;
    IScope* m_scope;
    ILock* m_loadLock;
    std::vector<SymMgrObjectPtr<SourceFile>> m_sourceFiles; ///< by id
    std::unordered_map<std::string, unsigned> m_fileIdsByName;
    SymMgrObjectPtr<ILineTable> m_lineTable;
};

} // namespace ORN_3_30

#endif
