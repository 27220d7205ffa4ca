// Load plus first query of a kernel through its listing, in lines a second, beside a plain reading of the
// same file: its lines taken apart into a sorted array. The listing is the one named in ORN_BENCH_LISTING (a
// System.map of x86-64), otherwise a made-up one of 150,000 lines.

#include "support/kernel_listing.h"

#include "orn/orn.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

using namespace ORN_3_30;

namespace orn_bench {

namespace {

constexpr std::uint64_t textStart = 0xFFFFFFFF81000000;
constexpr std::size_t lineCount = 150000;

/// A compressed kernel of which nothing can be read, and its listings beside it, in a directory of their own.
class KernelFiles {
public:
    KernelFiles() {
        std::string pattern = (std::filesystem::temp_directory_path() / "orn-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("cannot make a directory from " + pattern);
        m_directory = pattern;
        std::filesystem::create_directories(m_directory + "/running");
        std::string listing;
        if (const char* named = std::getenv("ORN_BENCH_LISTING"))
            listing = contentsOf(named);
        else
            listing = orn_test::listingOf(orn_test::madeUpKernel(lineCount, textStart));
        m_lines = static_cast<std::size_t>(std::count(listing.begin(), listing.end(), '\n'));
        for (const char* name : {"/vmlinuz-x86_64", "/running/vmlinuz-x86_64"})
            write(name, "nothing");
        write("/System.map-x86_64", listing);
        write("/running/kallsyms", listing);
    }
    ~KernelFiles() {
        std::error_code ignored; // a destructor has no one to tell
        std::filesystem::remove_all(m_directory, ignored);
    }
    KernelFiles(const KernelFiles&) = delete;
    KernelFiles& operator=(const KernelFiles&) = delete;

    std::string built() const { return m_directory + "/vmlinuz-x86_64"; }
    std::string running() const { return m_directory + "/running/vmlinuz-x86_64"; }
    std::string listing() const { return m_directory + "/System.map-x86_64"; }
    std::size_t lines() const { return m_lines; }

private:
    static std::string contentsOf(const std::string& path) {
        std::ifstream stream(path, std::ios::binary);
        if (!stream)
            throw std::runtime_error("cannot read " + path);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }
    void write(const std::string& name, const std::string& contents) const {
        std::ofstream(m_directory + name, std::ios::binary) << contents;
    }

    std::string m_directory;
    std::size_t m_lines;
};

std::size_t heapInUse() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

SymMgrObjectPtr<IModuleSymbolBank> loadAndAsk(ISymbolManager& manager, const std::string& path) {
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    SymMgrObjectPtr<IAddress> place;
    SymMgrObjectPtr<ISymbolRange> range;
    if (isFailure(manager.loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, true, nullptr)) ||
        isFailure(bank->addressFromPseudoAddress(textStart + 0x1000, place)) ||
        isFailure(bank->symbolRangeByAddress(place, range, symbol_kind_all, nullptr)) || !range)
        throw std::runtime_error("cannot load " + path);
    benchmark::DoNotOptimize(range->symbol());
    return bank;
}

void listingOfOrn(benchmark::State& state, const std::string& path, std::size_t lines) {
    SymMgrObjectPtr<ISymbolManager> manager;
    if (isFailure(ISymbolManager::create(manager)))
        throw std::runtime_error("no symbol manager");
    for (auto _ : state)
        loadAndAsk(*manager, path);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines));
    const std::size_t before = heapInUse();
    const auto bank = loadAndAsk(*manager, path);
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["bytes/line"] = static_cast<double>(heapInUse() - before) / static_cast<double>(lines);
}

struct PlainSymbol {
    std::uint64_t address;
    char letter;
    std::string name;
};

void listingOfPlainReading(benchmark::State& state, const std::string& path, std::size_t lines) {
    for (auto _ : state) {
        std::ifstream stream(path, std::ios::binary);
        std::vector<PlainSymbol> symbols;
        for (std::string line; std::getline(stream, line);) {
            PlainSymbol symbol{};
            std::from_chars(line.data(), line.data() + 16, symbol.address, 16);
            symbol.letter = line[17];
            symbol.name = line.substr(19);
            if (std::strchr("TtDdGg", symbol.letter))
                symbols.push_back(std::move(symbol));
        }
        std::sort(symbols.begin(), symbols.end(),
                  [](const PlainSymbol& a, const PlainSymbol& b) { return a.address < b.address; });
        benchmark::DoNotOptimize(symbols.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines));
}

} // namespace

} // namespace orn_bench

int main(int argc, char** argv) {
    const orn_bench::KernelFiles files;
    const auto add = [&](const char* name, auto run, const std::string& path) {
        benchmark::RegisterBenchmark(name, run, path, files.lines())
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    };
    add("LoadListing/System.map", orn_bench::listingOfOrn, files.built());
    add("LoadListing/kallsyms", orn_bench::listingOfOrn, files.running());
    add("LoadListing/plain", orn_bench::listingOfPlainReading, files.listing());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
