// The debug info loader of containers of compiled managed code. The ELF loader makes it where the legacy
// reader is switched on and the container was found; a module's scope asks it for symbols. Here the
// container's header is read, up to its dex files; orn_oat_walk.cpp goes on from there. Trampolines and the
// trailing store of keys and values are stepped over: nobody asks for them.

#include "orn_oat.h"

#include "orn_ffl_arith.h"
#include "orn_file.h"
#include "orn_log.h"
#include "orn_oat_symbol.h"
#include "orn_oat_walk.h"
#include "orn_scope.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace ORN_3_30 {

namespace {

constexpr char magic[] = "oat\n";
constexpr unsigned magicSize = 4;
constexpr unsigned wordSize = 4;

constexpr long long versionsRead[] = {7, 14, 15, 22, 23, 24, 25, 26, 27, 28};
/// The versions from which on the header has something more.
constexpr long long versionOfAnotherWord = 14;
constexpr long long versionOfMoreTrampolines = 14;
constexpr long long versionOfAllTrampolines = 22;

constexpr unsigned trampolinesSize(long long version) {
    if (version < versionOfMoreTrampolines)
        return 28;
    return version < versionOfAllTrampolines ? 36 : 40;
}

bool isRead(long long version) {
    return std::find(std::begin(versionsRead), std::end(versionsRead), version) != std::end(versionsRead);
}

} // namespace

// --- The candidate

OATSymbolFileToResolve::OATSymbolFileToResolve(long long index, const char* path, ILock* lock)
    : SymMgrObject<ISymbolFileToResolve>(lock), m_index(index), m_path(path) {}

long long OATSymbolFileToResolve::resolve(const char* path) {
    constexpr long long refused = -1;
    return path && samePath(path, m_path.c_str()) ? m_index : refused;
}

// --- The loader

OATDebugInfoLoader::OATDebugInfoLoader(FileFormatLoader* formatLoader, const char* path, ILock* lock,
                                       IBuffer* buffer, IAddress* oatData, IAddress* oatExec)
    : DebugInfoLoader(formatLoader, lock),
      m_oatData(buffer),
      m_walker(buffer ? SectionWalker(buffer->data(), buffer->size()) : SectionWalker()),
      m_executableOffset(0),
      m_oatDataStartAddress(oatData ? oatData->pseudoAddr() : 0),
      m_headerWord(0),
      m_oatDataStart(oatData),
      m_oatDataExec(oatExec),
      m_version(-1),
      m_path(path),
      m_loadSymbolsLock(lock) {}

OATDebugInfoLoader::~OATDebugInfoLoader() = default;

status_t OATDebugInfoLoader::loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t,
                                         ISrcLineResolver* resolver) {
    if (!sink)
        return status_InvalidPointer;
    try {
        ScopedLock guard(m_loadSymbolsLock);
        const status_t status = readOatHeader();
        if (status != status_Ok) {
            ORN_LOG_WARNING("Failed to read OAT header: Invalid format or unsupported version");
            return status;
        }
        return loadAllDexFiles(*sink, filter, dynamic_cast<OATSrcLineResolver*>(resolver));
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t OATDebugInfoLoader::loadAllDexFiles(ISymbolTable& sink, LoadFilter* filter,
                                             OATSrcLineResolver* resolver) {
    OATSymbolCallBack callBack(*formatLoader(), sink, resolver);
    const OatLayout layout{m_oatData, m_version, m_executableOffset, m_oatDataExec->pseudoAddr()};
    OATSymbolWalk walk(layout, callBack, filter, resolver);
    for (const SymMgrObjectPtr<DexLoader>& dexFile : m_dexLoaders)
        if (const status_t status = walk.loadDexFile(dexFile); isFailure(status))
            return status;
    return status_Ok;
}

ISrcLineResolver* OATDebugInfoLoader::getLineResolver(GlobalScope* scope, ILock* loadLock) {
    if (m_lineResolver)
        m_lineResolver->setScope(scope, loadLock);
    else if (formatLoader())
        m_lineResolver = new OATSrcLineResolver(formatLoader(), scope, loadLock);
    return m_lineResolver;
}

status_t OATDebugInfoLoader::findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                                               SymMgrObjectPtr<ISymbol>&, bool*) {
    return status_False;
}

// --- The header

status_t OATDebugInfoLoader::readOatHeader() {
    if (!formatLoader() || !m_oatDataStart || !m_oatDataExec)
        return status_InvalidPointer;
    m_walker.seek(0);
    m_dexLoaders.clear();
    if (const status_t status = readVersion(); isFailure(status))
        return status;
    std::uint32_t dexFileCount = 0;
    if (const status_t status = readFields(dexFileCount); isFailure(status))
        return status;
    checkExecutableOffset();
    return readDexEntries(dexFileCount);
}

status_t OATDebugInfoLoader::readVersion() {
    constexpr unsigned versionSize = 4;
    if (m_walker.remaining() < magicSize || std::memcmp(m_walker.cursor(), magic, magicSize) != 0)
        return status_BadFileFormat;
    m_walker.skip(magicSize);
    if (m_walker.remaining() < versionSize)
        return status_BadFileFormat;
    // Three digits and a NUL, if all is well.
    char digits[versionSize + 1] = {};
    std::memcpy(digits, m_walker.cursor(), versionSize);
    m_walker.skip(versionSize);
    m_version = std::strtol(digits, nullptr, 10);
    ORN_LOG_INFO("OAT file version " << m_version);
    if (!isRead(m_version)) {
        ORN_LOG_WARNING("Unsupported version of OAT file");
        return status_UnsupportedFormatVersion;
    }
    return status_Ok;
}

status_t OATDebugInfoLoader::readFields(std::uint32_t& dexFileCount) {
    m_walker.skip(wordSize); // checksum
    std::uint32_t unused = 0;
    std::uint32_t storeSize = 0;
    status_t status = status_Ok;
    const auto read = [&](std::uint32_t& word) {
        if (!isFailure(status))
            status = m_walker.getUnsigned4(word);
    };
    read(unused); // instruction set
    read(unused); // its features
    if (m_version >= versionOfAnotherWord)
        read(unused);
    read(dexFileCount);
    read(m_executableOffset);
    m_walker.skip(trampolinesSize(m_version));
    read(unused);
    read(m_headerWord);
    read(storeSize);
    m_walker.skip(storeSize);
    return isFailure(status) ? status_BadFileFormat : status_Ok;
}

void OATDebugInfoLoader::checkExecutableOffset() {
    ORN_ASSERT_TEXT(m_oatDataExec->pseudoAddr() - m_oatDataStartAddress == m_executableOffset,
                    "m_oatDataExec->pseudoAddr() - m_oatDataStart->pseudoAddr() == m_executableOffset");
}

/// Quirk: a container that ends between two entries, a broken one with a store that leads past its end among
/// them, has as many dex files as there are.
status_t OATDebugInfoLoader::readDexEntries(std::uint32_t dexFileCount) {
    for (std::uint32_t index = 0; index < dexFileCount; ++index) {
        if (m_walker.remaining() < wordSize)
            return status_Ok;
        if (const status_t status = readDexEntry(index); status != status_Ok)
            return status;
    }
    return status_Ok;
}

/// Quirk: behind the location 12 bytes have to be left, although an entry without classes ends after 8.
status_t OATDebugInfoLoader::readDexEntry(std::uint32_t index) {
    constexpr unsigned leastBehindLocation = 12;
    m_walker.skip(m_walker.readU32()); // location
    if (m_walker.remaining() < leastBehindLocation)
        return status_BadFileFormat;
    m_walker.skip(wordSize); // checksum
    const std::uint32_t dexOffset = m_walker.readU32();
    if (!internal::fitsInside(dexOffset, DexLoader::headerSize, m_walker.size()))
        return status_BadFileFormat;
    const unsigned char* classOffsets = m_walker.cursor();
    m_walker.skip(static_cast<unsigned long long>(DexLoader::classCountOf(*m_oatData, dexOffset)) * wordSize);
    if (m_walker.offset() > m_walker.size())
        return status_BadFileFormat;
    if (const status_t status = DexLoader::checkHeader(*m_oatData, dexOffset); status != status_Ok)
        return status;
    m_dexLoaders.push_back(new DexLoader(m_oatData, dexOffset, classOffsets, m_executableOffset, index));
    return status_Ok;
}

} // namespace ORN_3_30
