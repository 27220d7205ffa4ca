#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orn_test {

/// One symbol of a made-up kernel.
struct ListedSymbol {
    uint64_t address;
    char letter;
    std::string name;
    std::string kernelModule; ///< empty: the kernel's own
};

/// A kernel as its listings show it: per-CPU data at low addresses, text, read-only data and data one behind
/// the other, names of all lengths, local names that come several times.
inline std::vector<ListedSymbol> madeUpKernel(std::size_t count, uint64_t textStart) {
    std::vector<ListedSymbol> symbols;
    symbols.reserve(count);
    symbols.push_back({0, 'A', "fixed_percpu_data", ""});
    symbols.push_back({0x1000, 'd', "percpu_counter", ""});
    uint64_t address = textStart;
    uint64_t state = 1;
    while (symbols.size() < count) {
        state = state * 6364136223846793005 + 1442695040888963407;
        const auto choice = static_cast<unsigned>(state >> 33);
        const bool isText = symbols.size() < count * 7 / 10;
        const char letter = isText ? "Ttttt"[choice % 5] : "DdrRbdD"[choice % 7];
        std::string name = isText ? "do_work_" : "table_";
        if (choice % 50 == 0)
            name = "cleanup"; // one of many of its name
        else
            name += std::string(choice / 5 % 24, 'x') + std::to_string(symbols.size());
        symbols.push_back({address, letter, std::move(name), ""});
        address += 16 * (1 + choice / 64 % 20);
    }
    return symbols;
}

/// As text, every address moved by `shift`.
inline std::string listingOf(const std::vector<ListedSymbol>& symbols, uint64_t shift = 0) {
    std::string text;
    text.reserve(symbols.size() * 48);
    for (const ListedSymbol& symbol : symbols) {
        char digits[17];
        uint64_t address = symbol.address + (symbol.letter == 'A' ? 0 : shift);
        for (int place = 15; place >= 0; --place, address >>= 4)
            digits[place] = "0123456789abcdef"[address & 15];
        digits[16] = '\0';
        text.append(digits).append(1, ' ').append(1, symbol.letter).append(1, ' ').append(symbol.name);
        if (!symbol.kernelModule.empty())
            text.append("\t[").append(symbol.kernelModule).append("]");
        text += '\n';
    }
    return text;
}

} // namespace orn_test
