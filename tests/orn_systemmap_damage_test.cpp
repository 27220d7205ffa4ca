// Listings of a real kernel's size, and listings that are damaged in every way: reading ends, touches nothing
// outside and takes a time that grows with the listing.

#include "orn_systemmap.h"

#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "orn_fflelf.h"
#include "orn_scope.h"
#include "support/elf_assembler.h"
#include "support/kernel_listing.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace ORN_3_30::test {
namespace {

using orn_test::ListedSymbol;
using orn_test::TempDir;

constexpr unsigned long long textStart = 0xFFFFFFFF81000000;

orn_test::ElfAssembler kernel(unsigned long long base = textStart) {
    orn_test::ElfAssembler elf;
    elf.loadRange(base, 0x10000000, PF_R | PF_X);
    return elf;
}

// --- Size

class LargeListingTest : public OrnTest {
protected:
    SymMgrObjectPtr<IModuleSymbolBank> load() {
        const std::string path = m_dir.path("vmlinux-big");
        kernel().write(path);
        SymMgrObjectPtr<ISymbolManager> manager;
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
                  status_Ok);
        return bank;
    }

    /// Every symbol is found at its address and in front of the next one; which of several at one address
    /// does not matter.
    static void expectAllFound(IModuleSymbolBank& bank, const std::vector<ListedSymbol>& symbols) {
        std::map<unsigned long long, std::set<std::string>> names;
        for (const ListedSymbol& symbol : symbols)
            if (symbol.kernelModule.empty() && symbol.address >= textStart &&
                std::string("TtDd").find(symbol.letter) != std::string::npos)
                names[symbol.address].insert(symbol.name);
        ASSERT_GT(names.size(), symbols.size() / 2);
        std::size_t wrong = 0;
        for (auto name = names.begin(); name != names.end(); ++name) {
            const auto next = std::next(name);
            for (const auto address :
                 {name->first, next != names.end() ? next->first - 1 : name->first + 1}) {
                SymMgrObjectPtr<IAddress> place;
                ASSERT_EQ(bank.addressFromPseudoAddress(address, place), status_Ok);
                SymMgrObjectPtr<ISymbolRange> range;
                ASSERT_EQ(bank.symbolRangeByAddress(place, range, symbol_kind_all, nullptr), status_Ok);
                wrong += name->second.count(range->symbol()->rawName()) == 0;
            }
        }
        EXPECT_EQ(wrong, 0U);
    }

    TempDir m_dir;
};

TEST_F(LargeListingTest, EverySymbolOfALargeSystemMapIsFound) {
    const auto symbols = orn_test::madeUpKernel(120000, textStart);
    m_dir.write("System.map-big", orn_test::listingOf(symbols));
    expectAllFound(*load(), symbols);
}

TEST_F(LargeListingTest, EverySymbolOfKallsymsIsFoundUpToTheFirstOfAKernelModule) {
    auto symbols = orn_test::madeUpKernel(120000, textStart);
    const unsigned long long end = symbols.back().address + 0x1000;
    for (unsigned i = 0; i < 20000; ++i)
        symbols.push_back({end + 0x20 * i, 't', "ext4_" + std::to_string(i), i % 2 == 0 ? "ext4" : "xfs"});
    m_dir.write("kallsyms", orn_test::listingOf(symbols, 0x1D400000));
    const auto bank = load();
    EXPECT_STREQ(bank->symFileName(), m_dir.path("kallsyms").c_str());
    expectAllFound(*bank, symbols);
    SymMgrObjectPtr<IAddress> place;
    ASSERT_EQ(bank->addressFromPseudoAddress(end + 0x20 * 100, place), status_Ok);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(place, range, symbol_kind_all, nullptr), status_Ok);
    EXPECT_FALSE(std::string(range->symbol()->rawName()).starts_with("ext4_"))
        << "no symbol of a kernel module";
}

// --- Damage

/// A file in memory under a name that any code may open.
class MemoryFile {
public:
    MemoryFile() : m_descriptor(::memfd_create("listing", MFD_CLOEXEC)) { EXPECT_GE(m_descriptor, 0); }
    ~MemoryFile() { ::close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }
    void write(const std::string& contents) const {
        EXPECT_EQ(::ftruncate(m_descriptor, 0), 0);
        EXPECT_EQ(::pwrite(m_descriptor, contents.data(), contents.size(), 0),
                  static_cast<ssize_t>(contents.size()));
    }

private:
    int m_descriptor;
};

class ListingDamageTest : public OrnTest {
protected:
    ListingDamageTest() {
        // The name decides whether a bias is sought; the contents are the same file.
        EXPECT_EQ(::symlink(m_file.path().c_str(), m_dir.path("kallsyms").c_str()), 0);
        EXPECT_EQ(::symlink(m_file.path().c_str(), m_dir.path("System.map").c_str()), 0);
    }

    /// Loads the listing into a table and asks it; gives the result of the load.
    status_t load(const std::string& listing, const char* name = "System.map", arch_t arch = arch_x86_64) {
        m_file.write(listing);
        const SymMgrObjectPtr<SystemMap> candidate = new SystemMap(m_kernel.c_str(), 0, nullptr, true);
        candidate->resolve(m_dir.path(name).c_str());
        const SymMgrObjectPtr<SystemMAPDebugInfoLoader> loader = new SystemMAPDebugInfoLoader(
            m_module, m_dir.path(name).c_str(), m_module->getElfHelper(), arch, nullptr);
        GlobalScope scope(m_module, nullptr, nullptr);
        const SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(&scope);
        const status_t status = loader->loadSymbols(table, nullptr, symbol_kind_all, nullptr);
        SymMgrObjectPtr<ISymbolRange> range;
        table->symbolRangeByAddress(range, textStart + 0x18, symbol_kind_all, nullptr);
        if (range && range->symbol()) {
            EXPECT_STRNE(range->symbol()->rawName(), "");
        }
        return status;
    }
    void loadInEveryWay(const std::string& listing) {
        for (const char* name : {"System.map", "kallsyms"})
            for (const arch_t arch : {arch_x86_64, arch_ia32})
                (void)load(listing, name, arch);
    }

    /// Fails if it takes longer than what is linear could ever take.
    template <typename Run>
    static void expectQuick(const Run& run) {
        const auto begin = std::chrono::steady_clock::now();
        run();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    }

    static constexpr const char* soundListing = "ffffffff81000000 T _text\nffffffff81000010 t early\n"
                                                "ffffffff81000020 D data\t[m]\n";
    TempDir m_dir;
    MemoryFile m_file;
    std::string m_kernel = m_dir.path("vmlinux");
    SymMgrObjectPtr<ElfFileLoader> m_module = new ElfFileLoader(new orn_test::MemoryImage(kernel().build()));
};

TEST_F(ListingDamageTest, EveryPrefixIsRead) {
    const std::string sound = soundListing;
    EXPECT_EQ(load(sound), status_Ok);
    for (std::size_t size = 0; size < sound.size(); ++size)
        loadInEveryWay(sound.substr(0, size));
}

TEST_F(ListingDamageTest, EveryChangeOfAByteIsRead) {
    std::string listing = soundListing;
    for (char& byte : listing) {
        const char sound = byte;
        for (int value = 0; value < 256; ++value) {
            byte = static_cast<char>(value);
            (void)load(listing, value % 2 == 0 ? "System.map" : "kallsyms");
        }
        byte = sound;
    }
}

std::string lineAt(unsigned long long address, const std::string& name) {
    return orn_test::listingOf({{address, 'T', name, ""}});
}

TEST_F(ListingDamageTest, ManySymbolsAtOneAddressAreReadInLinearTime) {
    std::string listing;
    for (unsigned i = 0; i < 100000; ++i)
        listing += lineAt(textStart, "f" + std::to_string(i));
    expectQuick([&] { EXPECT_EQ(load(listing), status_Ok); });
}

TEST_F(ListingDamageTest, OneLineManyTimesIsReadInLinearTime) {
    std::string listing;
    for (unsigned i = 0; i < 100000; ++i)
        listing += lineAt(textStart, "f");
    expectQuick([&] { EXPECT_EQ(load(listing), status_Ok); });
}

TEST_F(ListingDamageTest, SymbolsInDescendingOrderAreReadInLinearTime) {
    std::string listing;
    for (unsigned i = 100000; i > 0; --i)
        listing += lineAt(textStart + 16 * i, "f" + std::to_string(i));
    expectQuick([&] { EXPECT_EQ(load(listing), status_Ok); });
}

TEST_F(ListingDamageTest, ALineMayBeAsLongAsTheBufferAndNoLonger) {
    const std::string line = lineAt(textStart, "f");
    EXPECT_EQ(load(line.substr(0, line.size() - 1) + std::string(0x200000 - line.size(), 'x') + "\n" + line),
              status_Ok);
    EXPECT_EQ(load(line + line.substr(0, line.size() - 1) + std::string(0x200000, 'x') + "\n" + line),
              status_BadDebugInfo);
    EXPECT_EQ(load(std::string(0x400000, '0')), status_BadDebugInfo);
}

TEST_F(ListingDamageTest, LinesAcrossTheEdgeOfTheBufferAreWhole) {
    // Lines of a length that divides nothing, so that every place of one comes to lie on an edge.
    std::string listing;
    std::set<std::string> names;
    for (unsigned i = 0; listing.size() < 0x200000 * 3; ++i) {
        names.insert("function_" + std::to_string(i) + std::string(i % 61, 'y'));
        listing += lineAt(textStart + 16 * i, "function_" + std::to_string(i) + std::string(i % 61, 'y'));
    }
    m_file.write(listing);
    const SymMgrObjectPtr<SystemMAPDebugInfoLoader> loader = new SystemMAPDebugInfoLoader(
        m_module, m_file.path().c_str(), m_module->getElfHelper(), arch_x86_64, nullptr);
    GlobalScope scope(m_module, nullptr, nullptr);
    const SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(&scope);
    EXPECT_EQ(loader->loadSymbols(table, nullptr, symbol_kind_all, nullptr), status_Ok);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    table->symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    ASSERT_TRUE(ranges);
    while (SymMgrObjectPtr<ISymbolRange> range = ranges->current()) {
        EXPECT_EQ(names.erase(range->symbol()->rawName()), 1U);
        ranges->next();
    }
    EXPECT_TRUE(names.empty());
}

} // namespace
} // namespace ORN_3_30::test
