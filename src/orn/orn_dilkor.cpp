// The debug info loader of GPU kernels. KorBinFileLoader makes it when a kernel's symbol file is accepted;
// the module's scope asks it for the line resolver at once, so that a kernel's lines are read before its
// symbols. That order matters: reading lines is what tells where generated code went, and the symbols of the
// newer compiler are moved there.
//
// Nothing here is lazy but the DWARF: a kernel has few lines compared with a module of the host.

#include "orn_dilkor.h"

#include "orn/address.h"
#include "orn/line_table.h"
#include "orn_dilkor_lun_utils.h"
#include "orn_dilkor_symbolfile.h"
#include "orn_dilkor_tav_utils.h"
#include "orn_linetable_impl.h"
#include "orn_linetable_iterators.h"
#include "orn_log.h"

#include <algorithm>
#include <memory>
#include <new>

namespace ORN_3_30 {

namespace {

constexpr unsigned long long everyUnit = ~0ULL;
/// Rows of a kernel belong to no unit.
constexpr unsigned long long noUnit = 0;
/// The last row reaches to the end of everything.
constexpr std::uint32_t endlessSize = 0xffffffff;

constexpr char bogusSymbolName[] = ".dbginfo_kor";

} // namespace

// --- KorAddressMapping

KorAddressMapping::KorAddressMapping(unsigned long long imageSize)
    : SymMgrObject<IAddressMapping>(nullptr), m_imageSize(imageSize) {}

void KorAddressMapping::addMapping(unsigned long long from, unsigned long long to) {
    if (m_several.count(from) != 0)
        return;
    if (m_single.emplace(from, to).second)
        return;
    m_single.erase(from);
    m_several.insert(from);
}

/// The end of a function is looked for in the whole image, its begin in front of its end.
status_t KorAddressMapping::convert(unsigned long long& low, unsigned long long& high) {
    const unsigned long long* kernelLow = find(low, high);
    if (!kernelLow)
        ORN_LOG_ERROR("Failed to convert low function address");
    const unsigned long long* kernelHigh = find(high, m_imageSize);
    if (!kernelHigh)
        ORN_LOG_ERROR("Failed to convert high function address");
    if (kernelLow)
        low = *kernelLow;
    if (kernelHigh)
        high = *kernelHigh;
    return kernelLow && kernelHigh ? status_Ok : status_Fail;
}

/// The only entry of the first address from `start` on that has just one, if it lies in front of `limit`.
/// Address 0 lies in front of everything, since an interval without extent may begin there.
const unsigned long long* KorAddressMapping::find(unsigned long long start, unsigned long long limit) const {
    const auto isInFront = [limit](unsigned long long address) { return address < limit || address == 0; };
    if (!isInFront(start))
        return nullptr;
    const auto found = m_single.lower_bound(start);
    return found != m_single.end() && isInFront(found->first) ? &found->second : nullptr;
}

// --- KorSrcLineResolver

KorSrcLineResolver::KorSrcLineResolver(IFileFormatLoader& loader, IDebugInfoLoader& debugLoader,
                                       IAddressMapping* mapping, IScope* scope, ILock* loadLock)
    : LineResolver(&loader, &debugLoader, scope, loadLock),
      m_symbolFile(debugLoader),
      m_addressMapping(mapping) {
    setLineTable(ILineTable::create(loader, *this));
    const std::string kernelName = loader.getKernelName();
    SymMgrObjectPtr<IKorDebugInfoParser> parser;
    const status_t status = loadKernelLines(kernelName, parser);
    if (isFailure(status))
        ORN_LOG_ERROR("Unable to load line info for OCL kernel "
                      << kernelName << ". Result status code: " << toUString(status));
}

status_t KorSrcLineResolver::loadKernelLines(const std::string& kernelName,
                                             SymMgrObjectPtr<IKorDebugInfoParser>& parserHolder) {
    status_t status = createParser(parserHolder);
    if (isFailure(status))
        return status;
    std::vector<std::string> kernels;
    if (!kernelName.empty())
        static_cast<void>(parserHolder->getKernelNames(kernels));
    if (std::find(kernels.begin(), kernels.end(), kernelName) == kernels.end()) {
        ORN_LOG_ERROR("Unable to obtain any info for wrong OCL kernel name " << kernelName);
        return status_InvalidArg;
    }
    std::vector<KorTavLineEntry> lines;
    status = parserHolder->getLines(kernelName, lines, m_addressMapping);
    if (isFailure(status)) {
        ORN_LOG_ERROR("Unable to obtain line info for OCL kernel " << kernelName
                                                                   << ". DebugInfoParser status: " << status);
        return status;
    }
    std::vector<std::string> files;
    status = parserHolder->getSourceFileNames(kernelName, files);
    if (isFailure(status)) {
        ORN_LOG_ERROR("Unable to obtain source files info for OCL kernel "
                      << kernelName << ". DebugInfoParser status: " << status);
        return status;
    }
    addFiles(files);
    addLines(lines);
    return status_Ok;
}

/// Of the format that the symbol file's head tells.
status_t KorSrcLineResolver::createParser(SymMgrObjectPtr<IKorDebugInfoParser>& parserHolder) {
    const char* path = m_symbolFile.getPath();
    SymMgrObjectPtr<IBuffer> dbgInfo;
    const status_t read = internal::readDebugInfoFile(dbgInfo, path);
    // Without memory nothing can be read either.
    if (!ORN_ASSERT_TEXT(read != status_OutOfMemory, "dbgInfo->size() == dbgInfoSize"))
        return status_CantReadFile;
    if (isFailure(read))
        return read;
    switch (m_symbolFile.getType()) {
    case symbol_file_gpu_tav:
        return KorTavDebugInfoParser::create(parserHolder, dbgInfo);
    case symbol_file_gpu_lun: {
        SymMgrObjectPtr<KorLunDebugInfoParser> parser;
        const status_t status = KorLunDebugInfoParser::create(parser, dbgInfo, path);
        parserHolder = parser.get();
        return status;
    }
    default:
        return status_Fail;
    }
}

void KorSrcLineResolver::addFiles(const std::vector<std::string>& files) {
    for (const std::string& file : files) {
        if (!file.empty())
            addFile(file, 0, 0);
    }
}

/// Quirk: the index of a file in the parser's list counts as its id here, which it is only while no name in
/// the list is empty or stands there twice. Rows beyond the files that there are go without a word.
void KorSrcLineResolver::addLines(const std::vector<KorTavLineEntry>& lines) {
    const unsigned files = fileCount();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const KorTavLineEntry& line = lines[i];
        if (line.fileIndex >= files)
            continue;
        const std::uint32_t size = i + 1 < lines.size() ? lines[i + 1].address - line.address : endlessSize;
        lineTable()->addLineRange(noUnit, line.fileIndex, line.line, line.column, line.address, size, 0);
    }
}

// --- KorSymbol

KorSymbol::KorSymbol(IFileFormatLoader* loader, const char* name, unsigned long long value, Scope* scope,
                     symbol_visibility_t visibility, symbol_kind_t kind, ISrcLineResolver* lineResolver)
    : Symbol(loader, name, value, scope, visibility, kind, everyUnit), m_lineResolver(lineResolver) {}

KorSymbol::~KorSymbol() {
    if (ISourceLocation* location = m_location.load(std::memory_order_relaxed))
        location->release();
}

status_t KorSymbol::sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) {
    try {
        ISourceLocation* location = ensureLocation();
        if (!location)
            return status_False;
        out = location;
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// Of two threads that come first one keeps its own.
ISourceLocation* KorSymbol::ensureLocation() {
    ISourceLocation* known = m_location.load(std::memory_order_acquire);
    if (known || !m_lineResolver)
        return known;
    SymMgrObjectPtr<ISourceLocation> found;
    m_lineResolver->sourceLocationAt(found, value(), everyUnit, nullptr, nullptr);
    if (found && m_location.compare_exchange_strong(known, found.get(), std::memory_order_acq_rel)) {
        known = found;
        known->addRef(); // the symbol's reference
    }
    return known;
}

void KorSymbol::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                            IAddress* high) try {
    out = new SymbolSourceLineIterator(scope(), LineQuery::everyFile, id(), ensureLocation(), low, high,
                                       m_lineResolver);
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

void KorSymbol::sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) try {
    out = nullptr;
    auto* resolver = dynamic_cast<SrcLineResolver*>(m_lineResolver.get());
    if (addr && resolver)
        resolver->sourceLineAt(out, addr->pseudoAddr(), id(), nullptr);
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

// --- KorDebugInfoLoader

KorDebugInfoLoader::KorDebugInfoLoader(FileFormatLoader* loader, const char* path, IBuffer* buffer,
                                       ILock* lock)
    : KorDebugInfoLoader(loader, path, buffer, lock, nullptr) {}

KorDebugInfoLoader::KorDebugInfoLoader(FileFormatLoader* loader, const char* path, IBuffer* buffer,
                                       ILock* lock, IFileFormatHelper* helper)
    : DWARFDebugInfoLoader(loader, path, helper, 0, lock), m_debugInfo(buffer) {
    setAddressMapping(new KorAddressMapping(loader->getImageSize()));
}

unsigned KorDebugInfoLoader::getType() {
    unsigned type = m_type.load(std::memory_order_relaxed);
    if (type == notAsked) {
        type = internal::korSymbolFileType(getPath(), formatLoader()->getArch());
        m_type.store(type, std::memory_order_relaxed);
    }
    return type;
}

status_t KorDebugInfoLoader::loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                                         ISrcLineResolver* resolver) {
    if (helper()) {
        ORN_LOG_WARNING("LUN format, loading symbols using DWARF flow");
        return DWARFDebugInfoLoader::loadSymbols(sink, filter, flags, resolver);
    }
    ORN_LOG_WARNING("TAV format, creating bogus symbol to continue resolving");
    try {
        addBogusSymbol(*sink, resolver);
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// Only lines tell one part of such a kernel from another.
void KorDebugInfoLoader::addBogusSymbol(ISymbolTable& sink, ISrcLineResolver* resolver) {
    const unsigned long long imageSize = formatLoader()->getImageSize();
    auto scope = std::make_unique<SymbolScope>(formatLoader(), sink.scope(), nullptr);
    scope->setSymbol(new KorSymbol(formatLoader(), bogusSymbolName, 0, scope.get(), symbol_visibility_local,
                                   symbol_kind_other, resolver));
    scope->addRange(0, imageSize);
    sink.addScopeRange(0, imageSize, scope.release());
}

ISrcLineResolver* KorDebugInfoLoader::getLineResolver(GlobalScope* scope, ILock* loadLock) {
    if (LineResolver* known = knownLineResolver(scope, loadLock))
        return known;
    return keepLineResolver(
        new KorSrcLineResolver(*formatLoader(), *this, addressMapping(), scope, loadLock));
}

status_t KorDebugInfoLoader::findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                                               SymMgrObjectPtr<ISymbol>&, bool*) {
    return status_False;
}

status_t KorDebugInfoLoader::loadLineTable(ILineTable* lineTable) {
    if (helper()) {
        ORN_LOG_WARNING("LUN format, loading lines using DWARF flow");
        return DWARFDebugInfoLoader::loadLineTable(lineTable);
    }
    ORN_LOG_WARNING("TAV format, don't load lines for it");
    return status_Ok;
}

} // namespace ORN_3_30
