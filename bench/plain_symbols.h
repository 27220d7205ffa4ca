// The yardstick of the symbol benchmarks: the least that any reader has to do.
#ifndef ORN_BENCH_PLAIN_SYMBOLS_H
#define ORN_BENCH_PLAIN_SYMBOLS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orn_bench {

/// The symbol tables of a 64-bit ELF file, read and sorted by plain code: no overlaps, no ranking, no
/// demangling, no checks beyond what keeps a benchmark alive.
class PlainSymbols {
public:
    struct Entry {
        std::uint64_t address;
        std::uint64_t size;
        const char* name;
    };

    explicit PlainSymbols(const std::string& path);

    /// The last entry at or below `address`; null below the first.
    const Entry* find(std::uint64_t address) const;

    const std::vector<Entry>& entries() const { return m_entries; }
    /// Bytes of the symbol and string tables in the file.
    std::size_t tableBytes() const { return m_tableBytes; }
    /// [begin, end) of the code sections taken together.
    std::uint64_t codeBegin() const { return m_codeBegin; }
    std::uint64_t codeEnd() const { return m_codeEnd; }

private:
    void readTable(int file, const std::vector<unsigned char>& headers, std::size_t count, std::size_t index);

    std::vector<std::vector<char>> m_tables;
    std::vector<Entry> m_entries;
    std::size_t m_tableBytes = 0;
    std::uint64_t m_codeBegin = ~0ULL;
    std::uint64_t m_codeEnd = 0;
};

} // namespace orn_bench

#endif
