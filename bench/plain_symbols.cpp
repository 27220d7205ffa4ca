// Reads `.symtab` and `.dynsym` with one pread a section, keeps what is defined and named, sorts by address.
// Only the benchmarks call it; it trusts the file.

#include "plain_symbols.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace orn_bench {

namespace {

void readAt(int file, void* buffer, std::size_t size, std::uint64_t offset) {
    if (pread(file, buffer, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
        throw std::runtime_error("short read");
}

const Elf64_Shdr& headerAt(const std::vector<unsigned char>& headers, std::size_t index) {
    return reinterpret_cast<const Elf64_Shdr*>(headers.data())[index];
}

bool isWanted(const Elf64_Sym& symbol) {
    const unsigned type = ELF64_ST_TYPE(symbol.st_info);
    return symbol.st_name != 0 && symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_COMMON &&
           (type == STT_FUNC || type == STT_OBJECT || type == STT_NOTYPE);
}

} // namespace

PlainSymbols::PlainSymbols(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        throw std::runtime_error("cannot open " + path);
    Elf64_Ehdr header;
    readAt(file, &header, sizeof header, 0);
    std::vector<unsigned char> headers(header.e_shnum * sizeof(Elf64_Shdr));
    readAt(file, headers.data(), headers.size(), header.e_shoff);
    for (std::size_t index = 0; index < header.e_shnum; ++index) {
        const Elf64_Shdr& section = headerAt(headers, index);
        if (section.sh_flags & SHF_EXECINSTR) {
            m_codeBegin = std::min<std::uint64_t>(m_codeBegin, section.sh_addr);
            m_codeEnd = std::max<std::uint64_t>(m_codeEnd, section.sh_addr + section.sh_size);
        }
        if (section.sh_type == SHT_SYMTAB || section.sh_type == SHT_DYNSYM)
            readTable(file, headers, header.e_shnum, index);
    }
    close(file);
    std::sort(m_entries.begin(), m_entries.end(),
              [](const Entry& a, const Entry& b) { return a.address < b.address; });
}

void PlainSymbols::readTable(int file, const std::vector<unsigned char>& headers, std::size_t count,
                             std::size_t index) {
    const Elf64_Shdr& table = headerAt(headers, index);
    if (table.sh_link >= count)
        return;
    const Elf64_Shdr& strings = headerAt(headers, table.sh_link);
    std::vector<char> names(strings.sh_size + 1);
    std::vector<char> symbols(table.sh_size);
    readAt(file, names.data(), strings.sh_size, strings.sh_offset);
    readAt(file, symbols.data(), symbols.size(), table.sh_offset);
    for (std::size_t offset = 0; offset + sizeof(Elf64_Sym) <= symbols.size(); offset += sizeof(Elf64_Sym)) {
        Elf64_Sym symbol;
        std::memcpy(&symbol, symbols.data() + offset, sizeof symbol);
        if (isWanted(symbol) && symbol.st_name < strings.sh_size)
            m_entries.push_back({symbol.st_value, symbol.st_size, names.data() + symbol.st_name});
    }
    m_tableBytes += strings.sh_size + table.sh_size;
    m_tables.push_back(std::move(names));
}

const PlainSymbols::Entry* PlainSymbols::find(std::uint64_t address) const {
    auto after =
        std::upper_bound(m_entries.begin(), m_entries.end(), address,
                         [](std::uint64_t value, const Entry& entry) { return value < entry.address; });
    return after == m_entries.begin() ? nullptr : &*std::prev(after);
}

} // namespace orn_bench
