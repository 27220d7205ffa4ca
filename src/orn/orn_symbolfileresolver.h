// The library's own choice of a symbol file, and the candidates for files with DWARF.
#ifndef ORN_SYMBOLFILERESOLVER_H
#define ORN_SYMBOLFILERESOLVER_H

#include "orn/lock.h"
#include "orn/section_data.h"
#include "orn/symbol_file.h"

#include <string>

namespace ORN_3_30 {

/// Takes the first candidate that is usable as it stands, and searches nowhere: places are the business of
/// the callers' resolvers.
class SymbolFileResolver : public ISymbolFileResolver {
public:
    SymbolFileResolver();

    long long
    resolveSymbolFile(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& candidates) override;
};

// The candidates. `index` is the place in the list of the format loader, which makes and keeps them. The
// module's path is borrowed from the module's image, which `helper` keeps alive; the count lock is the
// loader's. Texts handed out are good until resolve() accepts another path.

/// The debug file that the module's debug link names or, without a link, the module itself.
class DWARFSymbolFileToResolve : public SymMgrObject<ISymbolFileToResolve> {
public:
    DWARFSymbolFileToResolve(long long index, const char* modulePath, IFileFormatHelper* helper, ILock* lock);

    const char* wantedName() override;
    const char* modulePath() override { return m_modulePath; }
    unsigned kind() override { return symbol_file_dwarf; }
    unsigned state() override;
    long long resolve(const char* path) override;
    int isRequired() override { return 1; }

private:
    void setUp();
    void takeModuleItself();
    bool takeFromBesideModule(const std::string& name);
    bool acceptIfChecksumFits(const std::string& path);
    long long judge(const char* path);

    const char* m_modulePath;
    SymMgrObjectPtr<IFileFormatHelper> m_ffHelper;
    std::string m_wantedName;
    unsigned m_state;
    unsigned long long m_crc;
    bool m_hasDebugLink;
    long long m_index;
    OrnLock m_lock;
};

/// The debug file that has the module's build id. Only a resolver that knows where such files are kept can
/// make it usable.
class DWARFBuildIdSymbolFileToResolve : public SymMgrObject<ISymbolFileToResolve> {
public:
    DWARFBuildIdSymbolFileToResolve(long long index, const char* modulePath, IFileFormatHelper* helper,
                                    ILock* lock);

    const char* wantedName() override;
    const char* modulePath() override { return m_modulePath; }
    unsigned kind() override { return symbol_file_dwarf; }
    unsigned state() override;
    long long resolve(const char* path) override;
    int isRequired() override { return 1; }

private:
    void setUp();
    bool hasSameBuildId(const char* path) const;
    long long judge(const char* path);

    const char* m_modulePath;
    SymMgrObjectPtr<IFileFormatHelper> m_ffHelper;
    std::string m_wantedName;
    unsigned m_state;
    bool m_hasBuildId;
    long long m_index;
    OrnLock m_lock;
    std::string m_buildId; ///< of the module, in hexadecimal
};

/// The module itself, if it holds ".debug_info". It wants no other file, so its wanted name is empty until
/// it is usable.
class BinaryWithDWARFInfo : public SymMgrObject<ISymbolFileToResolve> {
public:
    BinaryWithDWARFInfo(long long index, const char* modulePath, IFileFormatHelper* helper, ILock* lock);

    const char* wantedName() override;
    /// In canonical form.
    const char* modulePath() override { return m_modulePath.c_str(); }
    unsigned kind() override { return symbol_file_dwarf; }
    unsigned state() override;
    long long resolve(const char* path) override;
    int isRequired() override { return 1; }

private:
    long long judge(const char* path);
    long long judgeModule();

    std::string m_modulePath;
    std::string m_resolvedPath;
    SymMgrObjectPtr<IFileFormatHelper> m_ffHelper;
    long long m_index;
    OrnLock m_lock;
    unsigned m_state;
};

} // namespace ORN_3_30

#endif
