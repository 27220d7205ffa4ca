// Candidates for the symbol file of a GPU binary.
#ifndef ORN_DILKOR_SYMBOLFILE_H
#define ORN_DILKOR_SYMBOLFILE_H

#include "orn/lock.h"
#include "orn/symbol_file.h"
#include "orn/types.h"

#include <string>

namespace ORN_3_30 {

/// The ".clpdb" file of a GPU binary, of whichever format: the candidate for the architecture that both
/// compilers serve. The architecture decides between this class and those below.
class KorSymbolFileToResolve : public SymMgrObject<ISymbolFileToResolve> {
public:
    /// Makes the candidate for a binary at `modulePath` and looks beside it. `index` is its place in the list
    /// of the format loader, which lends the lock of its count.
    static SymMgrObjectPtr<KorSymbolFileToResolve> create(long long index, const char* modulePath,
                                                          arch_t arch, ILock* lock);

    const char* wantedName() override;
    const char* modulePath() override { return m_modulePath.c_str(); }
    /// Before a file is accepted here: the older format.
    unsigned kind() override;
    unsigned state() override;
    long long resolve(const char* path) override;
    int isRequired() override { return 1; }

    /// Whether the file is of the wanted format and fits the architecture, by its first bytes.
    virtual bool isValidSymbolFile(const char* path);

protected:
    KorSymbolFileToResolve(long long index, const char* modulePath, arch_t arch, unsigned kind, ILock* lock);

    arch_t arch() const { return m_arch; }

private:
    void setUp();
    bool accept(const std::string& path);
    long long judge(const char* path);

    std::string m_modulePath;
    arch_t m_arch;
    std::string m_wantedName;
    unsigned m_kind;
    unsigned m_state;
    long long m_index;
    OrnLock m_lock;
};

/// The candidate for the older compiler's architecture.
class KorTavSymbolFileToResolve : public KorSymbolFileToResolve {
public:
    bool isValidSymbolFile(const char* path) override;

private:
    friend class KorSymbolFileToResolve;
    KorTavSymbolFileToResolve(long long index, const char* modulePath, arch_t arch, ILock* lock)
        : KorSymbolFileToResolve(index, modulePath, arch, symbol_file_gpu_tav, lock) {}
};

/// The candidate for the newer compiler's architectures.
class KorLunSymbolFileToResolve : public KorSymbolFileToResolve {
public:
    bool isValidSymbolFile(const char* path) override;

private:
    friend class KorSymbolFileToResolve;
    KorLunSymbolFileToResolve(long long index, const char* modulePath, arch_t arch, ILock* lock)
        : KorSymbolFileToResolve(index, modulePath, arch, symbol_file_gpu_lun, lock) {}
};

namespace internal {

/// The name of the symbol file that belongs to a GPU binary, without a directory.
std::string korSymbolFileName(const std::string& modulePath);

/// The format of the symbol file at `path`, by its first bytes and the architecture of the binary:
/// symbol_file_none if it is of neither.
unsigned korSymbolFileType(const char* path, unsigned arch);

} // namespace internal

} // namespace ORN_3_30

#endif
