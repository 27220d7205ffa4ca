// Functions, lines and expanded calls of programs that gcc has made, beside the answers of addr2line.

#include "orn/address.h"
#include "orn/module_symbol_bank.h"
#include "orn/source.h"
#include "orn/symbol.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace ORN_3_30::test {
namespace {

/// Functions of several levels of expansion, blocks, a cold part, static variables, members.
constexpr const char* source = R"(
#include <cstdio>
#include <cstdlib>
#include <vector>
static int counter;
static inline int leaf(int x) { for (int i = 0; i < x; ++i) counter += i * x; return counter; }
static inline int middle(int x) { if (x > 3) { int y = leaf(x); return y + leaf(x + 1); } return leaf(x); }
template <typename T> struct Box {
    T value;
    T scaled(T by) const { return static_cast<T>(middle(static_cast<int>(value)) * by); }
};
__attribute__((noinline)) int outer(int x) {
    static int calls;
    Box<int> box{x};
    Box<long> other{x + 1};
    if (x == 1000) { std::fprintf(stderr, "never\n"); std::abort(); }
    return box.scaled(2) + static_cast<int>(other.scaled(3)) + ++calls;
}
namespace deep { namespace er {
__attribute__((noinline)) int loop(int n) { int sum = 0; while (n-- > 0) sum += middle(n) + outer(n); return sum; }
} }
int main(int argc, char**) {
    std::vector<int> results;
    for (int i = 0; i < argc * 3; ++i) results.push_back(deep::er::loop(i));
    return results.empty() ? 0 : results.back() & 1;
}
)";

struct Frame {
    std::string function; ///< without parameters and scope
    std::string file;     ///< without directories
    unsigned line;

    bool operator==(const Frame&) const = default;
};

void PrintTo(const Frame& frame, std::ostream* out) {
    *out << frame.function << ' ' << frame.file << ':' << frame.line;
}

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// What all ways of writing a function have in common: of "int ns::S<T>::f<U>(int) [clone .x]" it is "f".
std::string plainName(std::string name) {
    name = name.substr(0, name.find('('));
    name = name.substr(0, name.find('<', name.rfind("::") == std::string::npos ? 0 : name.rfind("::")));
    name = name.substr(0, name.find('.'));
    const std::size_t scope = name.rfind("::");
    return scope == std::string::npos ? name : name.substr(scope + 2);
}

class RealDwarfTest : public OrnTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override {
        if (!run("g++ --version && addr2line --version"))
            GTEST_SKIP() << "there is no g++ or no addr2line";
        m_dir.write("prog.cpp", source);
        ASSERT_TRUE(run("g++ " + GetParam() + " prog.cpp -o prog")) << output();
    }

    bool run(const std::string& command) const {
        return std::system(("cd " + m_dir.path() + " && { " + command + "; } >output 2>&1").c_str()) == 0;
    }
    std::string output() const { return orn_test::TempDir::contents(m_dir.path("output")); }

    /// Starts and sizes of the functions that the source names.
    std::vector<unsigned long long> addresses() {
        EXPECT_TRUE(run("nm -S --defined-only prog | c++filt"));
        std::vector<unsigned long long> list;
        std::istringstream lines(output());
        std::string line;
        while (std::getline(lines, line)) {
            if (line.find("outer(") == std::string::npos && line.find("loop(") == std::string::npos &&
                line.find(" main") == std::string::npos && line.find("middle(") == std::string::npos &&
                line.find("leaf(") == std::string::npos)
                continue;
            std::istringstream fields(line);
            unsigned long long begin = 0;
            unsigned long long size = 0;
            char kind = 0;
            fields >> std::hex >> begin >> size >> kind;
            if (kind != 't' && kind != 'T' && kind != 'W')
                continue;
            for (unsigned long long offset = 0; offset < size; ++offset)
                list.push_back(begin + offset);
        }
        return list;
    }

    /// The frames that addr2line tells for each address.
    std::vector<std::vector<Frame>> framesOfPeer(const std::vector<unsigned long long>& list) {
        {
            std::ofstream file(m_dir.path("addresses"));
            for (unsigned long long address : list)
                file << std::hex << "0x" << address << '\n';
        }
        EXPECT_TRUE(run("addr2line -afiC -e prog < addresses"));
        std::vector<std::vector<Frame>> all;
        std::istringstream lines(output());
        std::string first;
        while (std::getline(lines, first)) {
            if (first.rfind("0x", 0) == 0) {
                all.emplace_back();
                continue;
            }
            std::string place;
            std::getline(lines, place);
            place = place.substr(0, place.find(" ("));
            const std::size_t colon = place.rfind(':');
            all.back().push_back({plainName(first), baseName(place.substr(0, colon)),
                                  static_cast<unsigned>(std::atoi(place.c_str() + colon + 1))});
        }
        return all;
    }

    static Frame frameOf(ISymbol* symbol, ISourceLocation* location) {
        Frame frame{plainName(symbol->demangledName(0)), "", 0};
        if (location) {
            frame.file = location->file() ? baseName(location->file()->name()) : "";
            frame.line = location->line();
        }
        return frame;
    }

    std::vector<Frame> framesAt(IModuleSymbolBank& bank, unsigned long long value) {
        std::vector<Frame> frames;
        SymMgrObjectPtr<IAddress> address;
        SymMgrObjectPtr<ISymbolRange> range;
        EXPECT_EQ(bank.addressFromPseudoAddress(value, address), status_Ok);
        if (bank.symbolRangeByAddress(address, range, symbol_kind_function, nullptr) != status_Ok)
            return frames;
        std::vector<SymMgrObjectPtr<ISymbolRange>> chain;
        while (range) {
            chain.push_back(range);
            SymMgrObjectPtr<ISymbolRange> nested;
            range->nestedRangeByAddress(nested, address);
            range = nested && nested->inlineInstance() ? nested : nullptr;
        }
        SymMgrObjectPtr<ISourceLocation> location;
        static_cast<void>(bank.sourceLocationByAddress(address, location, 0, nullptr));
        for (std::size_t i = chain.size(); i-- > 0;) {
            frames.push_back(frameOf(chain[i]->symbol(), location));
            location = nullptr;
            if (IInlineInstance* instance = chain[i]->inlineInstance())
                instance->callSite(location);
        }
        return frames;
    }

    orn_test::TempDir m_dir;
};

/// Why frames may differ from those of addr2line, and no other way.
enum class Difference { none, nameOfOuter, lineOfCall, unexplained };

Difference differenceOf(const std::vector<Frame>& frames, const std::vector<Frame>& peer) {
    if (frames == peer)
        return Difference::none;
    if (frames.size() != peer.size() || frames.size() < 2)
        return Difference::unexplained;
    if (!std::equal(frames.begin() + 1, frames.end(), peer.begin() + 1))
        return Difference::unexplained;
    const Frame& mine = frames.front();
    const Frame& other = peer.front();
    // At some addresses the peer tells the name of the whole function for the innermost frame.
    if (other.function == peer.back().function && mine.file == other.file && mine.line == other.line)
        return Difference::nameOfOuter;
    // A row that begins in front of the expansion starts below it, and the greatest start wins: the call's.
    if (mine.line == frames[1].line && mine.file == frames[1].file)
        return Difference::lineOfCall;
    return Difference::unexplained;
}

TEST_P(RealDwarfTest, EveryAddressHasTheFramesThatAddr2lineTells) {
    const std::vector<unsigned long long> list = addresses();
    ASSERT_GT(list.size(), 300u);
    const auto expected = framesOfPeer(list);
    ASSERT_EQ(expected.size(), list.size());
    const SymMgrObjectPtr<IModuleImage> image =
        IModuleImage::create(m_dir.path("prog").c_str(), arch_unknown, false);
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    ASSERT_EQ(IModuleSymbolBank::create(bank, image, nullptr, true, nullptr), status_Ok);
    std::map<Difference, std::size_t> counts;
    std::size_t expanded = 0;
    std::string unexplained;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const std::vector<Frame> frames = framesAt(*bank, list[i]);
        const Difference difference = differenceOf(frames, expected[i]);
        ++counts[difference];
        expanded += frames.size() > 1;
        if (difference != Difference::unexplained || unexplained.size() > 2000)
            continue;
        std::ostringstream text;
        text << std::hex << list[i] << ": " << ::testing::PrintToString(frames) << " and not "
             << ::testing::PrintToString(expected[i]) << '\n';
        unexplained += text.str();
    }
    std::cout << list.size() << " addresses, " << expanded << " expanded; name of the outer function "
              << counts[Difference::nameOfOuter] << ", line of the call " << counts[Difference::lineOfCall]
              << '\n';
    EXPECT_EQ(unexplained, "");
    EXPECT_GT(counts[Difference::none], list.size() * 9 / 10);
    EXPECT_GT(expanded, 100u);
}

INSTANTIATE_TEST_SUITE_P(Programs, RealDwarfTest,
                         ::testing::Values("-O2 -gdwarf-4", "-O2 -gdwarf-3", "-O2 -gdwarf-2",
                                           "-O2 -gdwarf-4 -fno-pie -no-pie", "-O1 -gdwarf-4"));

} // namespace
} // namespace ORN_3_30::test
