// Format loader of GPU binaries.
#ifndef ORN_FFLKOR_H
#define ORN_FFLKOR_H

#include "orn_ffl.h"

namespace ORN_3_30 {

/// Whether a path is that of a GPU binary. Only the name tells: the contents are the compiler's alone.
bool isKorBin(const char* path);

/// Loader of the output of a GPU compiler, in which many kernels may lie side by side: it stands for one of
/// them. Of the file itself nothing but the size is known; all else comes from the debug information.
class KorBinFileLoader : public FileFormatLoader {
public:
    /// The texts may be null, which is empty. A file that cannot be opened has size 0.
    KorBinFileLoader(const char* path, const char* kernelName, arch_t arch);

    status_t getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) override;
    const char* getPath() override { return m_path.c_str(); }
    exec_format_t getExecFormat() override { return exec_format_gpu; }
    arch_t getArch() override { return m_arch; }
    unsigned long long getImageBase() override { return m_baseAddress; }
    unsigned long long getEntryPoint() override { return m_baseAddress; }
    unsigned long long getImageSize() override { return m_fileSize; }
    status_t readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) override;
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    const char* getKernelName() override { return m_kernelName.c_str(); }

protected:
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) override;
    IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned type, long long index) override;
    void addSectionEnds(ISymbolTable*) override {}
    void ensureRead() override;

private:
    IDebugInfoLoader* createLunLoader(const char* path, const SymMgrObjectPtr<IBuffer>& buffer);

    /// Of the counts of all debug info loaders of GPU binaries. Never destroyed, since a client may release
    /// its last object in a static destructor.
    static ILock* const m_debugInfoLock;

    std::string m_path;
    std::string m_kernelName;
    unsigned long long m_baseAddress; ///< 0
    unsigned long long m_fileSize;
    arch_t m_arch; ///< as the caller declared it
    bool m_segmentsRead;
};

} // namespace ORN_3_30

#endif
