// Which file holds a module's debug information: the candidates of the DWARF family and the standard choice
// among them.
//
// The ELF loader makes the candidates, once for a module, and the load step of the manager hands them to a
// resolver, a caller's or the one below. A candidate reads the module through its format's helper, and the
// files that it is offered through the file layer; other candidates (kernel maps, managed and GPU files) live
// with their formats. Searching is left out on purpose: directories of debug files are the callers' matter,
// and only what lies beside the module is looked at here.
//
// The names come out of the module and the files out of anywhere, so a pipe, a device or a file without end
// under such a name is refused before anything is read.

#include "orn_symbolfileresolver.h"

#include "orn_crc32.h"
#include "orn_debuglink.h"
#include "orn_elf.h"
#include "orn_fflelf.h"
#include "orn_file.h"
#include "orn_filename.h"
#include "orn_log.h"
#include "orn_moduleimage.h"

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <sys/stat.h>

namespace ORN_3_30 {

namespace {

constexpr long long noCandidate = -1;

/// The largest file that is judged. No debug file comes near; what does are sparse files and the kernel's
/// memory under a file's name, whose checksum would take hours.
constexpr std::uint64_t fileSizeLimit = std::uint64_t{1} << 36;

constexpr std::size_t checksumBlockSize = 0x2000;

/// Runs what judges a path and may run out of memory.
template <typename Judge>
long long guarded(const Judge& judge) {
    try {
        return judge();
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
        return noCandidate;
    }
}

SymMgrObjectPtr<ISectionData> sectionOf(IFileFormatHelper* helper, section_kind_t kind) {
    SymMgrObjectPtr<ISectionData> section;
    if (helper)
        helper->getSectionData(section, kind);
    return section;
}

/// A file that can be read from its beginning to its end.
bool isReadableFile(const char* path) {
    struct stat info;
    return ::stat(path, &info) == 0 && S_ISREG(info.st_mode) && fileExists(path);
}

/// Nothing if the file cannot be read whole. A file that grows meanwhile is summed up to the size it had.
std::optional<std::uint32_t> checksumOf(const char* path) {
    File file(path);
    std::uint64_t left = file.size();
    if (left > fileSizeLimit)
        return std::nullopt;
    std::array<unsigned char, checksumBlockSize> block;
    std::uint32_t crc = 0;
    while (left > 0) {
        const std::int64_t count = file.read(std::min<std::uint64_t>(left, block.size()), block.data());
        if (count <= 0)
            return std::nullopt;
        crc = crc32(crc, block.data(), static_cast<std::size_t>(count));
        left -= static_cast<std::uint64_t>(count);
    }
    return crc;
}

/// The view of an ELF file that lies at `path`; null if there is none.
SymMgrObjectPtr<IFileFormatHelper> makeElfFormatHelper(const char* path) {
    try {
        const SymMgrObjectPtr<IModuleImage> image = new FileImage(path, 0, arch_unknown);
        const SymMgrObjectPtr<ElfHelper> elfHelper = new ElfHelper(image);
        if (!elfHelper->isValid())
            return nullptr;
        return new ElfFileFormatHelper(elfHelper);
    } catch (const std::bad_alloc&) {
        // The file asks for more memory than there is. That speaks against the file and is no reason to end
        // the whole resolution.
        ORN_LOG_WARNING("cannot create ffHelper for " << path);
        return nullptr;
    }
}

} // namespace

// Out of line, so that the interface has its table of operations here and nowhere else.
ISymbolFileResolver::~ISymbolFileResolver() = default;

// SymbolFileResolver

SymbolFileResolver::SymbolFileResolver() {
    ORN_TRACE("SymbolFileResolver");
}

long long SymbolFileResolver::resolveSymbolFile(
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& candidates) {
    ORN_TRACE("resolveSymbolFile");
    if (!candidates)
        return noCandidate;
    candidates->reset();
    for (long long index = 0;; ++index) {
        const SymMgrObjectPtr<ISymbolFileToResolve> candidate = candidates->current();
        if (!candidate)
            return noCandidate;
        if (candidate->state() == symbol_file_usable)
            return index;
        candidates->next();
    }
}

// DWARFSymbolFileToResolve

DWARFSymbolFileToResolve::DWARFSymbolFileToResolve(long long index, const char* modulePath,
                                                   IFileFormatHelper* helper, ILock* lock)
    : SymMgrObject<ISymbolFileToResolve>(lock),
      m_modulePath(modulePath),
      m_ffHelper(helper),
      m_state(symbol_file_not_set_up),
      m_crc(0),
      m_hasDebugLink(false),
      m_index(index) {
    if (m_modulePath)
        setUp();
}

void DWARFSymbolFileToResolve::setUp() {
    const SymMgrObjectPtr<ISectionData> section = sectionOf(m_ffHelper, section_gnu_debuglink);
    const std::optional<DebugLink> link = section ? readDebugLink(*section) : std::nullopt;
    if (!link) {
        takeModuleItself();
        return;
    }
    m_hasDebugLink = true;
    m_crc = link->crc;
    if (!takeFromBesideModule(link->name))
        m_wantedName = link->name;
}

void DWARFSymbolFileToResolve::takeModuleItself() {
    m_state = symbol_file_to_search_for;
    if (sectionOf(m_ffHelper, section_debug_info)) {
        m_wantedName = m_modulePath;
        m_state = symbol_file_usable;
    }
}

/// Looks in the two places that need no resolver; the state says what was met there.
bool DWARFSymbolFileToResolve::takeFromBesideModule(const std::string& name) {
    std::string directory;
    dirName(directory, m_modulePath);
    const std::string besideModule = directory + name;
    std::string inDebugDirectory;
    appendPath(inDebugDirectory, directory + ".debug", name);

    bool seen = false;
    for (const std::string& path : {besideModule, inDebugDirectory}) {
        if (!isReadableFile(path.c_str()))
            continue;
        seen = true;
        if (acceptIfChecksumFits(path))
            return true;
    }
    m_state = seen ? symbol_file_wrong_crc : symbol_file_to_search_for;
    return false;
}

bool DWARFSymbolFileToResolve::acceptIfChecksumFits(const std::string& path) {
    const std::optional<std::uint32_t> crc = checksumOf(path.c_str());
    if (!crc || *crc != m_crc)
        return false;
    m_wantedName = path;
    m_state = symbol_file_usable;
    return true;
}

const char* DWARFSymbolFileToResolve::wantedName() {
    ScopedLock guard(&m_lock);
    return m_wantedName.c_str();
}

unsigned DWARFSymbolFileToResolve::state() {
    ScopedLock guard(&m_lock);
    return m_state;
}

long long DWARFSymbolFileToResolve::resolve(const char* path) {
    return guarded([&] { return judge(path); });
}

long long DWARFSymbolFileToResolve::judge(const char* path) {
    if (!path)
        return noCandidate;
    ScopedLock guard(&m_lock);
    if (m_state == symbol_file_usable && samePath(path, m_wantedName.c_str()))
        return m_index;
    if (m_hasDebugLink && isReadableFile(path) && acceptIfChecksumFits(path))
        return m_index;
    return noCandidate;
}

// DWARFBuildIdSymbolFileToResolve

DWARFBuildIdSymbolFileToResolve::DWARFBuildIdSymbolFileToResolve(long long index, const char* modulePath,
                                                                 IFileFormatHelper* helper, ILock* lock)
    : SymMgrObject<ISymbolFileToResolve>(lock),
      m_modulePath(modulePath),
      m_ffHelper(helper),
      m_state(symbol_file_not_set_up),
      m_hasBuildId(false),
      m_index(index) {
    if (m_modulePath)
        setUp();
}

void DWARFBuildIdSymbolFileToResolve::setUp() {
    const SymMgrObjectPtr<ISectionData> section = sectionOf(m_ffHelper, section_note_gnu_build_id);
    if (!section)
        return;
    m_buildId = readBuildId(section);
    m_wantedName = debugFileOfBuildId(m_buildId);
    if (m_wantedName.empty())
        return;
    m_hasBuildId = true;
    // Quirk: even where the file lies in the usual place this is not usable yet; a resolver has to offer it.
    m_state = symbol_file_to_search_for;
}

const char* DWARFBuildIdSymbolFileToResolve::wantedName() {
    ScopedLock guard(&m_lock);
    return m_wantedName.c_str();
}

unsigned DWARFBuildIdSymbolFileToResolve::state() {
    ScopedLock guard(&m_lock);
    return m_state;
}

long long DWARFBuildIdSymbolFileToResolve::resolve(const char* path) {
    return guarded([&] { return judge(path); });
}

long long DWARFBuildIdSymbolFileToResolve::judge(const char* path) {
    if (!path)
        return noCandidate;
    ScopedLock guard(&m_lock);
    if (m_state == symbol_file_usable && samePath(path, m_wantedName.c_str()))
        return m_index;
    if (!m_hasBuildId || !isReadableFile(path) || !hasSameBuildId(path))
        return noCandidate;
    m_wantedName = path;
    m_state = symbol_file_usable;
    return m_index;
}

bool DWARFBuildIdSymbolFileToResolve::hasSameBuildId(const char* path) const {
    ORN_LOG_INFO("validating Build ID for symbol file candidate: " << path);
    if (fileSize(path) > fileSizeLimit)
        return false;
    const SymMgrObjectPtr<IFileFormatHelper> helper = makeElfFormatHelper(path);
    const SymMgrObjectPtr<ISectionData> section = sectionOf(helper, section_note_gnu_build_id);
    if (!section || readBuildId(section) != m_buildId)
        return false;
    ORN_LOG_INFO("validation passed for symbol file: " << path);
    return true;
}

// BinaryWithDWARFInfo

BinaryWithDWARFInfo::BinaryWithDWARFInfo(long long index, const char* modulePath, IFileFormatHelper* helper,
                                         ILock* lock)
    : SymMgrObject<ISymbolFileToResolve>(lock),
      m_ffHelper(helper),
      m_index(index),
      m_state(symbol_file_not_set_up) {
    if (!modulePath)
        return;
    canonicalPath(m_modulePath, modulePath);
    judge(m_modulePath.c_str());
}

const char* BinaryWithDWARFInfo::wantedName() {
    ScopedLock guard(&m_lock);
    return m_resolvedPath.c_str();
}

unsigned BinaryWithDWARFInfo::state() {
    ScopedLock guard(&m_lock);
    return m_state;
}

long long BinaryWithDWARFInfo::resolve(const char* path) {
    return guarded([&] { return judge(path); });
}

long long BinaryWithDWARFInfo::judge(const char* path) {
    if (!path)
        return 0; // Quirk: not -1, though no path is no module
    ScopedLock guard(&m_lock);
    std::string canonical;
    canonicalPath(canonical, path);
    long long result = noCandidate;
    if (canonical == m_modulePath) {
        if (!ORN_ASSERT_TEXT(m_ffHelper != nullptr, "m_ffHelper != 0L"))
            return m_state; // Quirk: the state, though it reads as an index
        result = judgeModule();
    }
    ORN_LOG_INFO("Symbol file: " << path << " validity: " << m_state);
    return result;
}

long long BinaryWithDWARFInfo::judgeModule() {
    if (!sectionOf(m_ffHelper, section_debug_info)) {
        m_state = symbol_file_no_dwarf;
        return noCandidate;
    }
    // A path above its root has no canonical form, and what has no path cannot be opened either.
    const char* resolvedSymFile = m_modulePath.empty() ? nullptr : m_modulePath.c_str();
    if (!ORN_ASSERT_TEXT(resolvedSymFile != nullptr, "resolvedSymFile != 0L"))
        return noCandidate;
    m_resolvedPath = resolvedSymFile;
    m_state = symbol_file_usable;
    return m_index;
}

} // namespace ORN_3_30
