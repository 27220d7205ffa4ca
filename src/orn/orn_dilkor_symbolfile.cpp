// Which file holds the debug information of a GPU binary. The compiler leaves it beside the binary, under the
// binary's name; a resolver may offer any other place. The format loader of GPU binaries makes the one
// candidate that there is; whether a file is the right one is told by its head, which the parsers know.

#include "orn_dilkor_symbolfile.h"

#include "orn_dilkor_lun_utils.h"
#include "orn_dilkor_tav_utils.h"
#include "orn_file.h"
#include "orn_filename.h"
#include "orn_log.h"

#include <new>

namespace ORN_3_30 {

namespace {

constexpr long long noCandidate = -1;

template <typename Parser>
bool hasHeadOf(const char* path, unsigned arch) {
    SymMgrObjectPtr<IBuffer> head;
    internal::readDebugInfoHeader(head, path, Parser::minimumSize());
    return Parser::validate(head, arch, false);
}

} // namespace

std::string internal::korSymbolFileName(const std::string& modulePath) {
    std::string name;
    baseName(name, modulePath);
    for (const char* extension : {".clbin", ".metalbin", "."}) {
        if (const std::size_t place = name.rfind(extension); place != std::string::npos) {
            name.erase(place);
            break;
        }
    }
    return name + ".clpdb";
}

unsigned internal::korSymbolFileType(const char* path, unsigned arch) {
    if (hasHeadOf<KorTavDebugInfoParser>(path, arch))
        return symbol_file_gpu_tav;
    if (hasHeadOf<KorLunDebugInfoParser>(path, arch))
        return symbol_file_gpu_lun;
    return symbol_file_none;
}

SymMgrObjectPtr<KorSymbolFileToResolve>
KorSymbolFileToResolve::create(long long index, const char* modulePath, arch_t arch, ILock* lock) {
    SymMgrObjectPtr<KorSymbolFileToResolve> candidate;
    switch (arch) {
    case arch_gpu_tav_first:
        candidate = new KorTavSymbolFileToResolve(index, modulePath, arch, lock);
        break;
    case arch_gpu_either:
        candidate = new KorSymbolFileToResolve(index, modulePath, arch, symbol_file_gpu_tav, lock);
        break;
    default:
        candidate = new KorLunSymbolFileToResolve(index, modulePath, arch, lock);
        break;
    }
    candidate->setUp();
    return candidate;
}

KorSymbolFileToResolve::KorSymbolFileToResolve(long long index, const char* modulePath, arch_t arch,
                                               unsigned kind, ILock* lock)
    : SymMgrObject<ISymbolFileToResolve>(lock),
      m_modulePath(modulePath ? modulePath : ""),
      m_arch(arch),
      m_kind(kind),
      m_state(symbol_file_not_set_up),
      m_index(index) {}

/// Not in the constructor: what a valid file is the derived class says.
void KorSymbolFileToResolve::setUp() {
    const std::string name = internal::korSymbolFileName(m_modulePath);
    std::string directory;
    dirName(directory, m_modulePath);
    if (!accept(directory + name)) {
        m_wantedName = name;
        m_state = symbol_file_to_search_for;
    }
}

bool KorSymbolFileToResolve::accept(const std::string& path) {
    if (!isValidSymbolFile(path.c_str()))
        return false;
    m_wantedName = path;
    m_state = symbol_file_usable;
    return true;
}

const char* KorSymbolFileToResolve::wantedName() {
    ScopedLock guard(&m_lock);
    return m_wantedName.c_str();
}

unsigned KorSymbolFileToResolve::kind() {
    ScopedLock guard(&m_lock);
    return m_kind;
}

unsigned KorSymbolFileToResolve::state() {
    ScopedLock guard(&m_lock);
    return m_state;
}

long long KorSymbolFileToResolve::resolve(const char* path) {
    try {
        return judge(path);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
        return noCandidate;
    }
}

long long KorSymbolFileToResolve::judge(const char* path) {
    if (!path)
        return noCandidate;
    ScopedLock guard(&m_lock);
    if (m_state == symbol_file_usable && samePath(path, m_wantedName.c_str()))
        return m_index;
    return accept(path) ? m_index : noCandidate;
}

bool KorSymbolFileToResolve::isValidSymbolFile(const char* path) {
    const unsigned type = internal::korSymbolFileType(path, m_arch);
    if (type == symbol_file_none)
        return false;
    ScopedLock guard(&m_lock);
    m_kind = type;
    return true;
}

bool KorTavSymbolFileToResolve::isValidSymbolFile(const char* path) {
    return hasHeadOf<KorTavDebugInfoParser>(path, arch());
}

bool KorLunSymbolFileToResolve::isValidSymbolFile(const char* path) {
    return hasHeadOf<KorLunDebugInfoParser>(path, arch());
}

} // namespace ORN_3_30
