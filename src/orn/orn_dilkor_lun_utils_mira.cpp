// The mira stream of a GPU kernel: an ELF object with DWARF inside the debug file, read by the ordinary
// loaders as a module of its own. Only its lines and files are taken here, and then it is gone; its symbols
// are the business of the kernel's debug info loader, which makes loaders that last.

#include "orn_dilkor_lun_utils.h"

#include "orn/address.h"
#include "orn/source.h"
#include "orn_dildwarf.h"
#include "orn_fflelf.h"
#include "orn_linetable_impl.h"
#include "orn_log.h"
#include "orn_moduleimage.h"
#include "orn_scope.h"

#include <algorithm>

namespace ORN_3_30 {

namespace {

/// The module, for as long as one question takes: nobody else sees it, so nothing in it is counted under a
/// lock.
class MiraModule {
public:
    MiraModule(const char* path, unsigned long long fileOffset)
        : m_fileLoader(new ElfFileLoader(new FileImage(path, fileOffset, arch_unknown))),
          m_debugLoader(new DWARFDebugInfoLoader(
              m_fileLoader, path, new ElfFileFormatHelper(m_fileLoader->getElfHelper()), 0, nullptr)),
          m_scope(m_fileLoader, m_debugLoader, nullptr) {}

    status_t load() {
        status_t status = m_scope.load(symbol_kind_function);
        if (!ORN_ASSERT(status == status_Ok))
            return status;
        status = m_debugLoader->loadLineTable(resolver().lineTable());
        if (!ORN_ASSERT(status == status_Ok))
            return status;
        return status_Ok;
    }
    ISrcLineResolver& resolver() const { return *m_scope.lineResolver(); }

private:
    SymMgrObjectPtr<ElfFileLoader> m_fileLoader;
    SymMgrObjectPtr<DWARFDebugInfoLoader> m_debugLoader;
    GlobalScope m_scope;
};

/// A row with its whole address, which decides the order.
struct MiraRow {
    unsigned long long address;
    KorTavLineEntry entry;
};

MiraRow rowOf(ISourceLine& line) {
    SymMgrObjectPtr<IAddress> address;
    line.address(address);
    const unsigned long long pseudoAddr = address->pseudoAddr();
    ISourceLocation& location = *line.location();
    ISourceFile* file = location.file();
    return {pseudoAddr,
            {static_cast<std::uint32_t>(pseudoAddr), location.line(), location.column(),
             file ? file->id() : ~0U}};
}

/// Every line once, those without extent too. The table gives them file by file.
std::vector<MiraRow> allRows(ILineTable& table) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
    table.sourceLinesInRange(lines, ~0ULL, LineQuery::everyFile, 0, ~0ULL);
    std::vector<MiraRow> rows;
    for (auto line = lines ? lines->current() : nullptr; line;
         line = lines->next() ? lines->current() : nullptr)
        rows.push_back(rowOf(*line));
    std::stable_sort(rows.begin(), rows.end(),
                     [](const MiraRow& a, const MiraRow& b) { return a.address < b.address; });
    return rows;
}

} // namespace

status_t KorLunDebugInfoParser::readMiraLines(const SKernelDebugDataHeaderLUN* kernelHeader,
                                              LineEntries& out) const {
    const Bytes stream = miraStream(kernelHeader);
    if (!stream)
        return status_BadFileFormat;
    MiraModule module(m_path.c_str(), offsetOf(stream));
    if (const status_t status = module.load(); status != status_Ok)
        return status;
    for (const MiraRow& row : allRows(*module.resolver().lineTable()))
        out.push_back(row.entry);
    return status_Ok;
}

/// In the order of their ids, by which rows name them.
status_t KorLunDebugInfoParser::readMiraFiles(const SKernelDebugDataHeaderLUN* kernelHeader,
                                              std::vector<std::string>& out) const {
    const Bytes stream = miraStream(kernelHeader);
    if (!stream)
        return status_BadFileFormat;
    MiraModule module(m_path.c_str(), offsetOf(stream));
    if (const status_t status = module.load(); status != status_Ok)
        return status;
    const unsigned count = module.resolver().fileCount();
    for (unsigned id = 0; id < count; ++id) {
        ISourceFile* file = module.resolver().fileAt(id);
        const char* sourceFileName = file ? file->name() : nullptr;
        if (!ORN_ASSERT(sourceFileName))
            return status_Fail;
        out.emplace_back(sourceFileName);
    }
    return status_Ok;
}

} // namespace ORN_3_30
