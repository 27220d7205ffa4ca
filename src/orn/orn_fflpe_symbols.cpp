// Symbols of a PE module: the functions of its export table, on their way into a symbol table. Runs when a
// module's scope first wants symbols. An export has an address and no size: where it ends follows from the
// next symbol and from the section ends, which are told here too. Exports of data and those that name a
// function of another module lie outside code and give nothing. Duplicates are the table's matter.

#include "orn/scope.h"
#include "orn/symbol_table.h"
#include "orn_ffl_arith.h"
#include "orn_fflpe.h"
#include "orn_file.h"
#include "orn_log.h"
#include "orn_scope.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace ORN_3_30 {

namespace {

constexpr unsigned kindCode = 1;

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

/// An array of numbers out of the export section.
template <typename Number>
struct ExportArray {
    std::unique_ptr<Number[], FreeBlock> numbers; // NOLINT(modernize-avoid-c-arrays)
    std::uint32_t count = 0;

    unsigned long long size() const { return static_cast<unsigned long long>(count) * sizeof(Number); }

    /// An empty array asks for one byte, so that null always means that there is no memory.
    bool allocate(std::uint32_t wanted) {
        count = wanted;
        numbers.reset(static_cast<Number*>(std::malloc(size() != 0 ? size() : 1)));
        return numbers != nullptr;
    }
    bool read(File& file, std::uint32_t offset) {
        file.seek(offset);
        return file.read(size(), numbers.get()) == static_cast<std::int64_t>(size());
    }
};

} // namespace

/// Walks the export table of one module.
class PEExecFileLoader::ExportReader {
public:
    ExportReader(PEExecFileLoader& loader, const IMAGE_EXPORT_DIRECTORY& directory, ISymbolTable& sink,
                 const LoadFilter* filter)
        : m_loader(loader),
          m_directory(directory),
          m_sink(sink),
          m_filter(filter),
          m_file(loader.m_path.c_str()) {}

    bool isOpen() const { return m_file.status() == fosOK; }

    status_t readArrays();
    status_t readFunctions();

private:
    static constexpr std::uint32_t noName = ~0U;

    template <typename Number>
    bool liesInFile(std::uint32_t rva, std::uint32_t count);
    void mapFunctionsToNames();
    status_t readFunction(std::uint32_t index);
    status_t readName(std::uint32_t index, std::string& name);
    void followDescriptor(unsigned long long& address);
    bool isCode(unsigned long long address);
    void addSymbol(const std::string& name, unsigned long long address);
    std::uint32_t fileOffset(std::uint32_t rva) const { return rva - m_loader.m_exportDelta; }

    PEExecFileLoader& m_loader;
    const IMAGE_EXPORT_DIRECTORY& m_directory;
    ISymbolTable& m_sink;
    const LoadFilter* m_filter;
    File m_file;
    ExportArray<std::uint32_t> m_functions;
    ExportArray<std::uint16_t> m_ordinals;
    ExportArray<std::uint32_t> m_names;
    std::vector<std::uint32_t> m_nameOfFunction; ///< by the index of a function; shorter than the functions
};

template <typename Number>
bool PEExecFileLoader::ExportReader::liesInFile(std::uint32_t rva, std::uint32_t count) {
    return internal::fitsInside(fileOffset(rva), static_cast<unsigned long long>(count) * sizeof(Number),
                                m_file.size());
}

/// An array that the file can't hold is known to be cut short before memory is asked for: a count out of a
/// damaged file may stand for 16 GiB. An empty array may lie anywhere.
status_t PEExecFileLoader::ExportReader::readArrays() {
    const std::uint32_t functions = m_directory.NumberOfFunctions;
    const std::uint32_t names = m_directory.NumberOfNames;
    if ((functions != 0 && !liesInFile<std::uint32_t>(m_directory.AddressOfFunctions, functions)) ||
        (names != 0 && !liesInFile<std::uint16_t>(m_directory.AddressOfNameOrdinals, names)) ||
        (names != 0 && !liesInFile<std::uint32_t>(m_directory.AddressOfNames, names)))
        return status_CantReadFile;
    if (!m_functions.allocate(functions) || !m_ordinals.allocate(names) || !m_names.allocate(names))
        return status_OutOfMemory;
    if (!m_functions.read(m_file, fileOffset(m_directory.AddressOfFunctions)) ||
        !m_ordinals.read(m_file, fileOffset(m_directory.AddressOfNameOrdinals)) ||
        !m_names.read(m_file, fileOffset(m_directory.AddressOfNames)))
        return status_CantReadFile;
    mapFunctionsToNames();
    return status_Ok;
}

/// A function that several names lead to has the first of them.
void PEExecFileLoader::ExportReader::mapFunctionsToNames() {
    for (std::uint32_t i = 0; i < m_ordinals.count; ++i) {
        const std::uint16_t function = m_ordinals.numbers[i];
        if (function >= m_nameOfFunction.size())
            m_nameOfFunction.resize(function + std::size_t{1}, noName);
        if (m_nameOfFunction[function] == noName)
            m_nameOfFunction[function] = i;
    }
}

status_t PEExecFileLoader::ExportReader::readFunctions() {
    for (std::uint32_t i = 0; i < m_functions.count; ++i) {
        if (m_functions.numbers[i] == 0)
            continue;
        const status_t status = readFunction(i);
        if (status != status_Ok)
            return status;
    }
    return status_Ok;
}

status_t PEExecFileLoader::ExportReader::readFunction(std::uint32_t index) {
    const bool isNamed = index < m_nameOfFunction.size() && m_nameOfFunction[index] != noName;
    unsigned long long address = m_loader.m_imageBase + m_functions.numbers[index];
    std::string name;
    if (isNamed) {
        const status_t status = readName(m_nameOfFunction[index], name);
        if (status != status_Ok)
            return status;
        followDescriptor(address);
    }
    if (!isCode(address) || (m_filter && !m_filter->passes(address, address)))
        return status_Ok;
    if (name.empty())
        name = "ORD_" + std::to_string(static_cast<unsigned long long>(index) + m_directory.Base);
    addSymbol(name, address);
    return status_Ok;
}

/// A longer name is cut. One that the file's end cuts is taken as it is; only one that is not there at all is
/// an error.
status_t PEExecFileLoader::ExportReader::readName(std::uint32_t index, std::string& name) {
    constexpr std::size_t longestName = 255;
    char text[longestName + 1] = {};
    m_file.seek(fileOffset(m_names.numbers[index]));
    if (m_file.read(longestName, text) <= 0)
        return status_CantReadFile;
    name = text;
    return status_Ok;
}

/// On a processor whose functions are named by descriptors an export leads to the entry point and the global
/// pointer, which tells it from code, of which it is a part.
///
/// Quirk: the first section stands for every one in finding the descriptor's place in the file, so only those
/// in that section, or in one with the same distance, are found.
void PEExecFileLoader::ExportReader::followDescriptor(unsigned long long& address) {
    if (m_loader.m_globalPtrRva == 0 || m_loader.m_imageBase == 0 || !isCode(address))
        return;
    struct {
        unsigned long long entry = 0;
        unsigned long long globalPointer = 0;
    } descriptor;
    const IMAGE_SECTION_HEADER& first = m_loader.m_sectionHeaders.front(); // where code is a section is
    const auto rva = static_cast<std::uint32_t>(address - m_loader.m_imageBase);
    m_file.seek(static_cast<std::uint32_t>(rva - first.VirtualAddress + first.PointerToRawData));
    if (m_file.read(sizeof(descriptor), &descriptor) != sizeof(descriptor))
        return;
    if (descriptor.globalPointer - m_loader.m_imageBase == m_loader.m_globalPtrRva)
        address = descriptor.entry;
}

bool PEExecFileLoader::ExportReader::isCode(unsigned long long address) {
    ISegment* segment = m_loader.findSegment(address);
    return segment && segment->getKind() == kindCode;
}

void PEExecFileLoader::ExportReader::addSymbol(const std::string& name, unsigned long long address) {
    std::unique_ptr<SymbolScope> symbol(createSymbolScope(m_loader, name.c_str(), address, m_sink.scope(),
                                                          symbol_visibility_global, symbol_kind_other));
    symbol->addRange(address, address);
    // The table owns the scope from here on and may have destroyed it when this returns.
    m_sink.addScopeRange(address, address, symbol.release());
}

/// Quirk: the kinds that are asked for do not matter.
status_t PEExecFileLoader::readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t) try {
    ScopedLock guard(&m_symbolFilesLock);
    if (!m_exportDirectory) {
        addSectionEnds(sink);
        return status_False;
    }
    ExportReader reader(*this, *m_exportDirectory, *sink, filter);
    if (!reader.isOpen())
        return status_False;
    status_t status = reader.readArrays();
    if (status == status_Ok)
        status = reader.readFunctions();
    if (status == status_Ok)
        addSectionEnds(sink);
    return status;
}
ORN_CATCH_OUT_OF_MEMORY

void PEExecFileLoader::addSectionEnds(ISymbolTable* sink) {
    for (const IMAGE_SECTION_HEADER& header : m_sectionHeaders) {
        const unsigned long long end = m_imageBase + header.VirtualAddress + header.VirtualSize;
        sink->addScopeRange(end, end, nullptr);
    }
}

} // namespace ORN_3_30
