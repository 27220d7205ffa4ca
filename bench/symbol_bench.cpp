// Load plus first query, and a million random queries, of the library and of a plain reading of the same
// symbol tables. The modules are those named in ORN_BENCH_MODULES (separated by ':'), otherwise this program
// itself and a few libraries of the system. Memory is what malloc holds after a load more than before it.

#include "plain_symbols.h"

#include "orn/orn.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace ORN_3_30;

namespace orn_bench {

namespace {

constexpr std::size_t queryCount = 1000000;

std::size_t heapInUse() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

SymMgrObjectPtr<ISymbolManager> manager() {
    SymMgrObjectPtr<ISymbolManager> out;
    if (isFailure(ISymbolManager::create(out)))
        throw std::runtime_error("no symbol manager");
    return out;
}

SymMgrObjectPtr<IModuleSymbolBank> load(ISymbolManager& manager, const std::string& path) {
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    // Symbols of the file's own tables are what the plain reading has too.
    if (isFailure(manager.loadSymbolsFromModuleEx(path.c_str(), nullptr, bank, arch_unknown,
                                                  load_flag_no_symbol_file | load_flag_no_cache, nullptr)))
        throw std::runtime_error("cannot load " + path);
    return bank;
}

SymMgrObjectPtr<ISymbolRange> query(IModuleSymbolBank& bank, std::uint64_t address) {
    SymMgrObjectPtr<ISymbolRange> range;
    SymMgrObjectPtr<IAddress> place;
    if (!isFailure(bank.addressFromPseudoAddress(address, place)))
        (void)bank.symbolRangeByAddress(place, range, symbol_kind_all, nullptr);
    return range;
}

std::vector<std::uint64_t> randomAddresses(const PlainSymbols& symbols) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<std::uint64_t> inCode(symbols.codeBegin(), symbols.codeEnd() - 1);
    std::vector<std::uint64_t> addresses(queryCount);
    for (auto& address : addresses)
        address = inCode(random);
    return addresses;
}

void loadAndFirstSymbolOfOrn(benchmark::State& state, const std::string& path) {
    const PlainSymbols plain(path);
    const std::uint64_t address = (plain.codeBegin() + plain.codeEnd()) / 2;
    auto front = manager();
    for (auto _ : state) {
        auto bank = load(*front, path);
        benchmark::DoNotOptimize(query(*bank, address).get());
    }
    const std::size_t before = heapInUse();
    auto bank = load(*front, path);
    benchmark::DoNotOptimize(query(*bank, address).get());
    const double symbols = static_cast<double>(plain.entries().size());
    const double held = static_cast<double>(heapInUse() - before);
    state.counters["symbols"] = symbols;
    state.counters["bytes/symbol"] = held / symbols;
    state.counters["beyond_tables/symbol"] = (held - static_cast<double>(plain.tableBytes())) / symbols;
}

void loadAndFirstSymbolOfPlainReading(benchmark::State& state, const std::string& path) {
    for (auto _ : state) {
        PlainSymbols symbols(path);
        benchmark::DoNotOptimize(symbols.find((symbols.codeBegin() + symbols.codeEnd()) / 2));
    }
}

void millionQueriesOfOrn(benchmark::State& state, const std::string& path) {
    const auto addresses = randomAddresses(PlainSymbols(path));
    auto front = manager();
    auto bank = load(*front, path);
    for (auto _ : state)
        for (std::uint64_t address : addresses)
            benchmark::DoNotOptimize(query(*bank, address).get());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * addresses.size()));
}

void millionQueriesOfPlainReading(benchmark::State& state, const std::string& path) {
    const PlainSymbols symbols(path);
    const auto addresses = randomAddresses(symbols);
    for (auto _ : state)
        for (std::uint64_t address : addresses)
            benchmark::DoNotOptimize(symbols.find(address));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * addresses.size()));
}

std::vector<std::string> modules() {
    std::vector<std::string> paths;
    if (const char* named = std::getenv("ORN_BENCH_MODULES")) {
        std::string rest = named;
        while (!rest.empty()) {
            const auto end = rest.find(':');
            paths.push_back(rest.substr(0, end));
            rest = end == std::string::npos ? "" : rest.substr(end + 1);
        }
        return paths;
    }
    paths = {"/proc/self/exe", "/lib/x86_64-linux-gnu/libc.so.6", "/usr/lib/x86_64-linux-gnu/libstdc++.so.6",
             "/usr/lib/x86_64-linux-gnu/libLLVM-14.so.1"};
    return paths;
}

void registerModule(const std::string& path) {
    std::error_code ignored;
    const std::string real = std::filesystem::canonical(path, ignored).string();
    if (real.empty())
        return;
    const std::string name = std::filesystem::path(real).filename().string();
    const auto add = [&](const char* what, void (*run)(benchmark::State&, const std::string&)) {
        benchmark::RegisterBenchmark((what + ("/" + name)).c_str(), run, real)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    };
    add("LoadAndFirstSymbol/orn", loadAndFirstSymbolOfOrn);
    add("LoadAndFirstSymbol/plain", loadAndFirstSymbolOfPlainReading);
    add("MillionQueries/orn", millionQueriesOfOrn);
    add("MillionQueries/plain", millionQueriesOfPlainReading);
}

} // namespace

} // namespace orn_bench

int main(int argc, char** argv) {
    for (const auto& path : orn_bench::modules())
        orn_bench::registerModule(path);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
