// The debug info loader of GPU kernels, of both compilers.
#ifndef ORN_DILKOR_H
#define ORN_DILKOR_H

#include "orn_dil.h"
#include "orn_dildwarf.h"
#include "orn_dilkor_parser.h"

#include <atomic>
#include <map>
#include <set>

namespace ORN_3_30 {

/// Where the code of a kernel went, address by address.
class KorAddressMapping : public SymMgrObject<IAddressMapping> {
public:
    explicit KorAddressMapping(unsigned long long imageSize);

    /// Each end becomes the kernel address of the first address at or behind it that went to one place only.
    /// An end without one stays as it is, with `status_Fail` for the result.
    status_t convert(unsigned long long& low, unsigned long long& high) override;
    void addMapping(unsigned long long from, unsigned long long to) override;

private:
    const unsigned long long* find(unsigned long long start, unsigned long long limit) const;

    unsigned long long m_imageSize;
    // One ordered multimap in two parts. Addresses with several entries are never an answer, and are looked
    // at so often that they must not be walked over.
    std::map<unsigned long long, unsigned long long> m_single; ///< addresses with one entry
    std::set<unsigned long long> m_several;                    ///< addresses with more
};

/// The line resolver of one kernel. It reads the kernel's lines when it is made; what fails there leaves it
/// without lines for good.
class KorSrcLineResolver : public LineResolver {
public:
    /// `debugLoader` tells the symbol file; all pointers but `loader` are borrowed as LineResolver says.
    /// `mapping` is told where the kernel's code went.
    KorSrcLineResolver(IFileFormatLoader& loader, IDebugInfoLoader& debugLoader, IAddressMapping* mapping,
                       IScope* scope, ILock* loadLock);

private:
    status_t loadKernelLines(const std::string& kernelName,
                             SymMgrObjectPtr<IKorDebugInfoParser>& parserHolder);
    status_t createParser(SymMgrObjectPtr<IKorDebugInfoParser>& parserHolder);
    void addFiles(const std::vector<std::string>& files);
    void addLines(const std::vector<KorTavLineEntry>& lines);

    IDebugInfoLoader& m_symbolFile; ///< borrowed
    SymMgrObjectPtr<IAddressMapping> m_addressMapping;
};

/// A symbol that knows no more of its source than the line table does.
class KorSymbol : public Symbol {
public:
    /// `lineResolver` may be null: then there are no lines.
    KorSymbol(IFileFormatLoader* loader, const char* name, unsigned long long value, Scope* scope,
              symbol_visibility_t visibility, symbol_kind_t kind, ISrcLineResolver* lineResolver);
    ~KorSymbol() override;

    /// The position of the symbol's first code.
    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) override;
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                     IAddress* high) override;
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) override;

private:
    ISourceLocation* ensureLocation();

    SymMgrObjectPtr<ISrcLineResolver> m_lineResolver;
    std::atomic<ISourceLocation*> m_location{nullptr}; ///< counted; null until it is known
};

/// Reads the ".clpdb" file of a GPU binary. With a helper the file holds DWARF, of the newer compiler, and
/// the DWARF loader does the work, addresses being those of generated code. Without one all code is one
/// symbol. Lines come from the parsers of the two formats either way.
class KorDebugInfoLoader : public DWARFDebugInfoLoader {
public:
    /// `buffer` is the symbol file's contents. `lock` guards the count.
    KorDebugInfoLoader(FileFormatLoader* loader, const char* path, IBuffer* buffer, ILock* lock);
    /// For the newer compiler. `helper` shows the ELF object of the kernel.
    KorDebugInfoLoader(FileFormatLoader* loader, const char* path, IBuffer* buffer, ILock* lock,
                       IFileFormatHelper* helper);

    /// Told by the file's head, and kept.
    unsigned getType() override;
    status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                         ISrcLineResolver* resolver) override;
    ISrcLineResolver* getLineResolver(GlobalScope* scope, ILock* loadLock) override;
    /// `status_False`: the device has no stack.
    status_t findStackVariable(ISymbol* function, IAddress* codeAddress, unsigned long long dataAddress,
                               IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                               bool* memberFlag) override;
    status_t loadLineTable(ILineTable* lineTable) override;

private:
    void addBogusSymbol(ISymbolTable& sink, ISrcLineResolver* resolver);

    static constexpr unsigned notAsked = ~0U;

    SymMgrObjectPtr<IBuffer> m_debugInfo;
    std::atomic<unsigned> m_type{notAsked};
};

} // namespace ORN_3_30

#endif
