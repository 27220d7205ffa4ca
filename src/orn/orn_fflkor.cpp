// KorBinFileLoader: a GPU binary as one segment and one candidate. Made by IFileFormatLoader::create once the
// file's name is recognised. The file's contents are not read, and there are no sections and no symbols of
// its own; what stands in for a symbol gives a search something to end at.

#include "orn_fflkor.h"

#include "orn/symbol_table.h"
#include "orn_dilkor.h"
#include "orn_dilkor_lun_utils.h"
#include "orn_dilkor_symbolfile.h"
#include "orn_fflelf.h"
#include "orn_file.h"
#include "orn_log.h"
#include "orn_moduleimage.h"
#include "orn_scope.h"

#include <cstring>
#include <memory>
#include <new>

namespace ORN_3_30 {

namespace {

/// The older compiler's, at least in part: their debug information names no symbols.
bool isTavArch(arch_t arch) {
    return arch == arch_gpu_tav_first || arch == arch_gpu_either;
}

} // namespace

ILock* const KorBinFileLoader::m_debugInfoLock = new OrnLock;

/// Quirk: anywhere in the path, directories included, and not at its end only.
bool isKorBin(const char* path) {
    return path && (std::strstr(path, ".clbin") || std::strstr(path, ".metalbin"));
}

KorBinFileLoader::KorBinFileLoader(const char* path, const char* kernelName, arch_t arch)
    : m_path(path ? path : ""),
      m_kernelName(kernelName ? kernelName : ""),
      m_baseAddress(0),
      m_fileSize(0),
      m_arch(arch),
      m_segmentsRead(false) {
    File file(path);
    const file_op_status_t status = file.status();
    ORN_ASSERT(status == fosOK);
    m_fileSize = file.size();
}

void KorBinFileLoader::ensureRead() {
    ScopedLock guard(&m_symbolFilesLock);
    if (m_segmentsRead)
        return;
    addSegment(m_baseAddress, ".text", 0, 0, getImageSize(), getImageSize(), 1);
    m_segmentsRead = true;
}

void KorBinFileLoader::getSectionByName(SymMgrObjectPtr<ISection>& out, const char*) {
    out = nullptr;
}

void KorBinFileLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) {
    out = nullptr;
}

/// Whatever kinds are asked for: the names of the newer compiler's kernels come with its debug information.
status_t KorBinFileLoader::readSymbols(ISymbolTable* sink, LoadFilter*, symbol_kind_t) {
    if (!isTavArch(m_arch))
        return status_Ok;
    ORN_LOG_WARNING("TAV format, creating bogus symbol to continue resolving");
    std::unique_ptr<SymbolScope> symbol(
        createSymbolScope(*this, ".code_kor", 0, sink->scope(), symbol_visibility_local, symbol_kind_other));
    symbol->addRange(0, getImageSize());
    sink->addScopeRange(0, getImageSize(), symbol.release());
    return status_Ok;
}

status_t
KorBinFileLoader::collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) {
    symbolFiles.emplace_back(KorSymbolFileToResolve::create(0, m_path.c_str(), m_arch, &m_sharedLock).get());
    return status_Ok;
}

/// The lock of these loaders' counts comes first, as that of the others does in the base: a loader that is
/// found in the list must not be dying.
status_t KorBinFileLoader::getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) {
    ScopedLock countGuard(m_debugInfoLock);
    return FileFormatLoader::getDebugInfoLoader(out, index);
}

IDebugInfoLoader* KorBinFileLoader::createDebugInfoLoader(const char* path, unsigned type, long long) {
    try {
        SymMgrObjectPtr<IBuffer> buffer;
        const status_t status = internal::readDebugInfoFile(buffer, path);
        if (status == status_OutOfMemory)
            throw std::bad_alloc();
        if (isFailure(status))
            return nullptr;
        switch (type) {
        case symbol_file_gpu_lun:
            return createLunLoader(path, buffer);
        case symbol_file_gpu_tav:
            return new KorDebugInfoLoader(this, path, buffer, m_debugInfoLock);
        default:
            ORN_LOG_WARNING("Unable to create debug info parser");
            return nullptr;
        }
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Unable to allocate memory to create debug info pointer");
        return nullptr;
    }
}

/// Null for a kernel that the file does not have, and nothing is said of it: without debug information the
/// module is as usable as any other.
IDebugInfoLoader* KorBinFileLoader::createLunLoader(const char* path,
                                                    const SymMgrObjectPtr<IBuffer>& buffer) {
    SymMgrObjectPtr<KorLunDebugInfoParser> parser;
    unsigned long long elfOffset = 0;
    if (KorLunDebugInfoParser::create(parser, buffer, path) != status_Ok ||
        !parser->findMiraImage(getKernelName(), elfOffset))
        return nullptr;
    const SymMgrObjectPtr<ElfHelper> elfHelper = new ElfHelper(new FileImage(path, elfOffset, arch_unknown));
    return new KorDebugInfoLoader(this, path, buffer, m_debugInfoLock, new ElfFileFormatHelper(elfHelper));
}

} // namespace ORN_3_30
