// Real PE modules: what mingw-w64 and lld make on the spot, the libraries of Wine, a managed assembly of
// Mono. Sections, segments and every export of code have to agree with what objdump says of the same file, by
// the rules of the loader; the command line has to answer on such modules too.

#include "orn_fflpe.h"

#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "support/command.h"
#include "support/orn_fixture.h"
#include "support/pe_assembler.h"
#include "support/recording_sink.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::commandOutput;
using orn_test::RecordingSink;
using orn_test::runProcess;
using testing::HasSubstr;

bool isInstalled(const std::string& program) {
    int exitStatus = 1;
    commandOutput("command -v " + program + " 2>/dev/null", &exitStatus);
    return exitStatus == 0;
}

unsigned long long hexNumber(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 16);
}

/// A module as objdump tells it.
struct ObjdumpModule {
    struct Section {
        std::string name;
        unsigned long long size;
        unsigned long long address;
        unsigned long long fileOffset;
        bool isCode;
    };
    struct Export {
        unsigned long long rva;
        bool isForwarded;
        unsigned long long ordinal;
    };

    explicit ObjdumpModule(const std::string& path) {
        const std::string dump = commandOutput("objdump -p -h '" + path + "'");
        std::istringstream stream(dump);
        for (std::string line; std::getline(stream, line);)
            readLine(line);
    }

    /// Name and RVA of every export that is in a section of code, as the loader should see it.
    std::multiset<std::pair<std::string, unsigned long long>> codeExports() const {
        std::multiset<std::pair<std::string, unsigned long long>> all;
        for (const auto& [index, exported] : exports) {
            if (exported.isForwarded || !isCode(exported.rva))
                continue;
            const auto name = names.find(index);
            all.emplace(name != names.end() ? name->second : "ORD_" + std::to_string(exported.ordinal),
                        exported.rva);
        }
        return all;
    }

    std::string format;
    unsigned long long imageBase = 0;
    unsigned long long imageSize = 0;
    unsigned long long entryRva = 0;
    bool isManaged = false;
    std::string pdb;
    std::string guid; ///< as objdump prints it
    std::vector<Section> sections;
    std::map<unsigned long long, Export> exports;    ///< by index
    std::map<unsigned long long, std::string> names; ///< by index, the first of each

private:
    enum class Table { None, Functions, Names };

    bool isCode(unsigned long long rva) const {
        return std::any_of(sections.begin(), sections.end(), [&](const Section& section) {
            const unsigned long long begin = section.address - imageBase;
            return section.isCode && rva >= begin && rva - begin < section.size;
        });
    }

    void readLine(const std::string& line) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        words >> first >> second;
        if (line.find("file format ") != std::string::npos)
            format = line.substr(line.find("file format ") + 12);
        else if (first == "ImageBase")
            imageBase = hexNumber(second);
        else if (first == "SizeOfImage")
            imageSize = hexNumber(second);
        else if (first == "AddressOfEntryPoint")
            entryRva = hexNumber(second);
        else if (line.find("CLR Runtime Header") != std::string::npos)
            isManaged = line.find("Entry e") == 0 && line.find_first_not_of(" 0", 8) != line.find('C', 8) &&
                        hexNumber(line.substr(8)) != 0;
        else if (first == "(format" && second == "RSDS")
            readDatabase(line);
        else if (line.starts_with("Export Address Table --"))
            m_table = Table::Functions;
        else if (first == "[Ordinal/Name")
            m_table = Table::Names;
        else if (line.empty() || line == "Sections:")
            m_table = Table::None;
        else if (first[0] == '[')
            readTableRow(line);
        else if (std::isdigit(static_cast<unsigned char>(first[0])) && line.find("2**") != std::string::npos)
            readSection(line);
        else if (second == "ALLOC," || line.find("CONTENTS,") != std::string::npos)
            sections.back().isCode = line.find(" CODE") != std::string::npos;
    }

    void readDatabase(const std::string& line) {
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            if (word == "signature")
                words >> guid;
            if (word == "pdb" && words >> pdb)
                pdb.pop_back(); // the bracket
        }
        if (pdb == "(none)")
            pdb.clear();
    }

    void readTableRow(const std::string& line) {
        const unsigned long long index = std::strtoull(line.c_str() + line.find('[') + 1, nullptr, 10);
        std::istringstream rest(line.substr(line.find(']') + 1));
        std::string word;
        if (m_table == Table::Names) {
            rest >> word;
            names.emplace(index, word);
        } else if (m_table == Table::Functions) {
            const std::string text = rest.str();
            const std::size_t bracket = text.find('[');
            const unsigned long long ordinal = std::strtoull(text.c_str() + bracket + 1, nullptr, 10);
            const unsigned long long rva = hexNumber(text.substr(text.find(']') + 1));
            exports[index] = {rva, text.find("Forwarder") != std::string::npos, ordinal};
        }
    }

    void readSection(const std::string& line) {
        std::istringstream words(line);
        std::string index;
        std::string name;
        std::string size;
        std::string address;
        std::string loadAddress;
        std::string offset;
        words >> index >> name >> size >> address >> loadAddress >> offset;
        sections.push_back({name, hexNumber(size), hexNumber(address), hexNumber(offset), false});
    }

    Table m_table = Table::None;
};

class PERealTest : public test::OrnTest {
protected:
    void SetUp() override {
        if (commandOutput("objdump -i 2>/dev/null").find("pei-x86-64") == std::string::npos)
            GTEST_SKIP() << "no objdump that reads PE images";
    }

    /// Opens what loaders keep to themselves.
    class OpenLoader : public PEExecFileLoader {
    public:
        using PEExecFileLoader::getPdbGuid;
        using PEExecFileLoader::getPdbPath;
        using PEExecFileLoader::PEExecFileLoader;
    };

    /// What the loader says of a module against what objdump says. Gives the number of exports of code.
    std::size_t compare(const std::string& path) {
        SCOPED_TRACE(path);
        const ObjdumpModule expected(path);
        SymMgrObjectPtr<OpenLoader> loader(new OpenLoader(path.c_str()));
        compareHeaders(expected, *loader);
        compareSections(expected, *loader);
        return compareExports(expected, *loader);
    }

    bool build(const std::string& command) {
        int exitStatus = 1;
        const std::string output =
            commandOutput("cd '" + directory.path() + "' && " + command + " 2>&1", &exitStatus);
        EXPECT_EQ(exitStatus, 0) << command << "\n" << output;
        return exitStatus == 0;
    }

    orn_test::TempDir directory;

private:
    static void compareHeaders(const ObjdumpModule& expected, OpenLoader& loader) {
        EXPECT_EQ(loader.getStatus(), status_Ok);
        EXPECT_EQ(loader.getArch(), expected.format == "pei-x86-64" ? arch_x86_64 : arch_ia32);
        EXPECT_EQ(loader.getImageBase(), expected.imageBase);
        EXPECT_EQ(loader.getImageSize(), expected.imageSize);
        EXPECT_EQ(loader.getEntryPoint(),
                  expected.entryRva == 0 ? 0 : expected.imageBase + expected.entryRva);
        EXPECT_EQ(loader.isManaged(), expected.isManaged);
        EXPECT_FALSE(loader.isReadyToRun());
        EXPECT_EQ(loader.getPdbPath(), expected.pdb);
        std::ostringstream guid;
        for (const unsigned char byte : loader.getPdbGuid())
            guid << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(byte);
        if (!expected.guid.empty()) {
            EXPECT_EQ(inOrderOfPrinting(guid.str()), expected.guid);
        }
    }

    /// The first three fields of a GUID are numbers, printed with their highest byte first.
    static std::string inOrderOfPrinting(const std::string& guid) {
        std::string printed;
        for (const int byte : {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15})
            printed += guid.substr(2 * byte, 2);
        return printed;
    }

    static void compareSections(const ObjdumpModule& expected, OpenLoader& loader) {
        ASSERT_EQ(loader.getSectionCount(), expected.sections.size());
        for (unsigned i = 0; i < expected.sections.size(); ++i) {
            const ObjdumpModule::Section& section = expected.sections[i];
            SCOPED_TRACE(section.name);
            SymMgrObjectPtr<ISection> own;
            loader.getSectionByIndex(own, i);
            ASSERT_TRUE(own);
            EXPECT_EQ(own->getName(), section.name);
            EXPECT_EQ(own->getAddress() + expected.imageBase, section.address);
            EXPECT_EQ(own->getFileOffset(), section.fileOffset);
            SymMgrObjectPtr<IBuffer> contents;
            EXPECT_EQ(own->read(contents), status_Ok);
            ISegment* segment = loader.findSegment(section.address);
            ASSERT_NE(segment, nullptr);
            EXPECT_EQ(segment->getName(), section.name);
            EXPECT_EQ(segment->getRva() + expected.imageBase, section.address);
            EXPECT_EQ(segment->getFileOffset(), section.fileOffset);
            EXPECT_EQ(segment->getKind() == 1, section.isCode);
            // objdump gives the smaller of the two sizes, or the one that there is.
            const unsigned long long size = own->getSize() == 0
                                                ? segment->getMemorySize()
                                                : std::min(own->getSize(), segment->getMemorySize());
            EXPECT_EQ(segment->getFileSize(), own->getSize());
            EXPECT_EQ(size, section.size);
        }
        EXPECT_NE(loader.getSegmentAt(static_cast<int>(expected.sections.size())), nullptr);
        EXPECT_EQ(loader.getSegmentAt(static_cast<int>(expected.sections.size()) + 1), nullptr);
    }

    static std::size_t compareExports(const ObjdumpModule& expected, OpenLoader& loader) {
        SymMgrObjectPtr<RecordingSink> sink(new RecordingSink);
        EXPECT_EQ(loader.readSymbols(sink.get(), nullptr, symbol_kind_all),
                  expected.exports.empty() ? status_False : status_Ok);
        std::multiset<std::pair<std::string, unsigned long long>> found;
        for (const RecordingSink::Entry& entry : sink->entries)
            found.emplace(entry.name, entry.low - expected.imageBase);
        EXPECT_EQ(found, expected.codeExports());
        EXPECT_EQ(sink->sectionEnds.size(), expected.sections.size());
        return found.size();
    }
};

constexpr const char* librarySource = R"(
int variable = 42;
__attribute__((noinline)) int add(int a, int b) { return a + b; }
int sub(int a, int b) { return a - b; }
int hidden(int a) { return a * 3; }
)";

constexpr const char* libraryExports = R"(LIBRARY module
EXPORTS
  add @1
  subtract = sub @2
  hidden @7 NONAME
  variable @9 DATA
  forwarded = KERNEL32.GetTickCount @10
  alias = add @11
)";

struct Toolchain {
    const char* compiler;
    arch_t arch;
};

class MingwTest : public PERealTest, public testing::WithParamInterface<Toolchain> {
protected:
    void SetUp() override {
        PERealTest::SetUp();
        if (!IsSkipped() && !isInstalled(GetParam().compiler))
            GTEST_SKIP() << "no " << GetParam().compiler;
    }

    std::string library() {
        directory.write("module.c", librarySource);
        directory.write("module.def", libraryExports);
        build(std::string(GetParam().compiler) +
              " -g -O1 -shared -Wl,--build-id -o module.dll module.c module.def");
        return directory.path("module.dll");
    }
};

// Long section names come with the debug sections; the build id is a CodeView record without a path.
TEST_P(MingwTest, ALibraryIsAsObjdumpSaysIt) {
    EXPECT_EQ(compare(library()), 4u) << "add, subtract, alias and one by its ordinal";
    SymMgrObjectPtr<PEExecFileLoader> loader(new PEExecFileLoader(directory.path("module.dll").c_str()));
    EXPECT_NE(loader->findSegmentByName(".debug_aranges"), nullptr);
    PEFileFormatHelper helper(loader);
    SymMgrObjectPtr<ISectionData> data;
    helper.getSectionData(data, section_debug_abbrev);
    ASSERT_TRUE(data);
    EXPECT_GT(data->getSize(), 0u);
    EXPECT_NE(data->getData(), nullptr);
}

TEST_P(MingwTest, AProgramIsAsObjdumpSaysIt) {
    directory.write("program.c", "int main(void) { return 0; }");
    ASSERT_TRUE(build(std::string(GetParam().compiler) + " -o program.exe program.c"));
    EXPECT_EQ(compare(directory.path("program.exe")), 0u);
}

TEST_P(MingwTest, TheCommandLineAnswersOnALibrary) {
    const std::string path = library();
    const ObjdumpModule module(path);
    const auto info = runProcess({ORN_TOOL_PATH, "info", path});
    EXPECT_EQ(info.exitStatus, 0) << info.error;
    EXPECT_THAT(info.output, HasSubstr("Format          pe\n"));
    EXPECT_THAT(info.output, HasSubstr(GetParam().arch == arch_x86_64 ? "Architecture    x86-64\n"
                                                                      : "Architecture    ia32\n"));
    EXPECT_THAT(info.output, HasSubstr("Symbol file     none\n"));
    EXPECT_THAT(info.output, HasSubstr("Managed code    no\n"));
    EXPECT_THAT(info.output, HasSubstr(" .debug_aranges\n"));
    std::ostringstream text;
    text << "0x" << std::hex << module.sections.at(0).address;
    EXPECT_THAT(info.output, testing::ContainsRegex(text.str() + " .* code +.text\n"));

    const auto json = nlohmann::json::parse(runProcess({ORN_TOOL_PATH, "info", "--json", path}).output);
    EXPECT_EQ(json["format"], "pe");
    EXPECT_EQ(json["managed"], false);
    EXPECT_EQ(json["readyToRun"], false);
    EXPECT_EQ(hexNumber(json["sections"][0]["address"].get<std::string>()), module.sections.at(0).address);

    const auto symbols = runProcess({ORN_TOOL_PATH, "symbols", path});
    EXPECT_EQ(symbols.exitStatus, 0) << symbols.error;
    for (const char* name : {"subtract", "ORD_7"})
        EXPECT_THAT(symbols.output, HasSubstr(name));
    EXPECT_THAT(symbols.output, testing::Not(HasSubstr("forwarded")));
    EXPECT_THAT(symbols.output, testing::Not(HasSubstr("variable")));

    std::ostringstream rva;
    rva << "0x" << std::hex << module.imageBase + module.exports.at(1).rva + 1;
    const auto answer = runProcess({ORN_TOOL_PATH, "symbolize", path, rva.str()});
    EXPECT_EQ(answer.exitStatus, 0) << answer.error;
    EXPECT_THAT(answer.output, HasSubstr("subtract"));
}

INSTANTIATE_TEST_SUITE_P(Compilers, MingwTest,
                         testing::Values(Toolchain{"x86_64-w64-mingw32-gcc", arch_x86_64},
                                         Toolchain{"i686-w64-mingw32-gcc", arch_ia32}),
                         [](const auto& info) { return info.param.arch == arch_x86_64 ? "Wide" : "Narrow"; });

TEST_F(PERealTest, ALibraryOfLldNamesItsDatabase) {
    if (!isInstalled("clang") || !isInstalled("lld-link"))
        GTEST_SKIP() << "no clang with lld-link";
    directory.write("module.c", "__declspec(dllexport) int twice(int a) { return 2 * a; }\n"
                                "int _DllMainCRTStartup(void* a, int b, void* c) { return 1; }\n");
    ASSERT_TRUE(build("clang --target=x86_64-pc-windows-msvc -gcodeview -c module.c -o module.obj && "
                      "lld-link /dll /debug /entry:_DllMainCRTStartup /out:module.dll module.obj"));
    const std::string path = directory.path("module.dll");
    EXPECT_EQ(compare(path), 1u);
    SymMgrObjectPtr<OpenLoader> loader(new OpenLoader(path.c_str()));
    EXPECT_EQ(loader->getPdbPath(), directory.path("module.pdb"));
}

/// Those with the most exports, and some of every sort: every n-th of the directory.
std::vector<std::string> wineLibraries(const std::string& directory) {
    constexpr std::size_t wanted = 40;
    std::vector<std::string> all;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing))
        if (entry.path().extension() == ".dll" && entry.file_size() < 2000000)
            all.push_back(entry.path().string());
    std::sort(all.begin(), all.end());
    std::vector<std::string> some;
    for (std::size_t i = 0; i < all.size(); i += std::max<std::size_t>(all.size() / wanted, 1))
        some.push_back(all[i]);
    for (const char* name : {"/ntdll.dll", "/kernel32.dll", "/msvcrt.dll"})
        if (std::filesystem::exists(directory + name))
            some.push_back(directory + name);
    return some;
}

// Some seconds: objdump, asked for everything, walks the unwind tables too.
TEST_F(PERealTest, LibrariesOfWineAreAsObjdumpSaysThem) {
    std::size_t exports = 0;
    std::vector<std::string> libraries = wineLibraries("/usr/lib/x86_64-linux-gnu/wine/x86_64-windows");
    for (const std::string& path : wineLibraries("/usr/lib/x86_64-linux-gnu/wine/i386-windows"))
        libraries.push_back(path);
    if (libraries.empty())
        GTEST_SKIP() << "no libraries of Wine (libwine)";
    for (const std::string& path : libraries)
        exports += compare(path);
    std::cout << exports << " exports of code in " << libraries.size() << " libraries\n";
    EXPECT_GT(exports, 3000u);
}

TEST_F(PERealTest, TheCommandLineNamesEveryExportOfALibrary) {
    const std::string path = "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows/kernel32.dll";
    if (!std::filesystem::exists(path))
        GTEST_SKIP() << "no libraries of Wine (libwine)";
    const ObjdumpModule module(path);
    std::map<unsigned long long, std::set<std::string>> names;
    for (const auto& [name, rva] : module.codeExports())
        names[module.imageBase + rva].insert(name);
    std::ostringstream addresses;
    for (const auto& [address, ignored] : names)
        addresses << "0x" << std::hex << address << "\n";
    const auto answers = runProcess({ORN_TOOL_PATH, "symbolize", "--json", path}, addresses.str());
    EXPECT_EQ(answers.exitStatus, 0) << answers.error;
    std::istringstream lines(answers.output);
    std::size_t answered = 0;
    for (std::string line; std::getline(lines, line); ++answered) {
        const auto answer = nlohmann::json::parse(line);
        ASSERT_FALSE(answer["symbol"].is_null()) << line;
        const unsigned long long address = hexNumber(answer["address"].get<std::string>());
        EXPECT_EQ(names[address].count(answer["symbol"]["raw"].get<std::string>()), 1u) << line;
    }
    EXPECT_EQ(answered, names.size());
    EXPECT_GT(answered, 500u);
}

// --- Managed modules

class ManagedTest : public PERealTest {
protected:
    static constexpr const char* assembly = "/usr/lib/mono/4.5/mscorlib.dll";

    void SetUp() override {
        PERealTest::SetUp();
        if (!IsSkipped() && !std::filesystem::exists(assembly))
            GTEST_SKIP() << "no managed assembly (libmono-corlib4.5-dll)";
    }

    static unsigned traitsOf(const std::string& path) {
        SymMgrObjectPtr<ISymbolManager> manager;
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        unsigned traits = 99;
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
                  status_Ok);
        EXPECT_EQ(bank->moduleTraits(traits), status_Ok);
        return traits;
    }
};

TEST_F(ManagedTest, AnAssemblyIsAsObjdumpSaysIt) {
    EXPECT_EQ(compare(assembly), 0u);
    EXPECT_EQ(traitsOf(assembly), 1u);
    const auto info = runProcess({ORN_TOOL_PATH, "info", assembly});
    EXPECT_THAT(info.output, HasSubstr("Managed code    yes\n"));
}

// Into a copy of the assembly, over the end of its first section, which is padding.
TEST_F(ManagedTest, AnAssemblyWithANativeHeaderIsReadyToRun) {
    std::string bytes = orn_test::TempDir::contents(assembly);
    SymMgrObjectPtr<PEExecFileLoader> plain(new PEExecFileLoader(assembly));
    SymMgrObjectPtr<ISection> text;
    plain->getSectionByIndex(text, 0);
    ASSERT_TRUE(text);
    constexpr unsigned directoriesAt = 24 + 96; // behind the signature, of a narrow module
    std::uint32_t headers = 0;
    std::memcpy(&headers, bytes.data() + 60, 4);
    std::uint32_t clrRva = 0;
    std::memcpy(&clrRva, bytes.data() + headers + directoriesAt + 14 * 8, 4);
    const std::uint64_t clrOffset = clrRva - text->getAddress() + text->getFileOffset();
    const std::vector<std::uint8_t> header = orn_test::PeAssembler::readyToRunHeader();
    const std::uint64_t place = text->getFileOffset() + text->getSize() - header.size();
    std::copy(header.begin(), header.end(), bytes.begin() + static_cast<std::ptrdiff_t>(place));
    const auto nativeRva = static_cast<std::uint32_t>(place - text->getFileOffset() + text->getAddress());
    std::memcpy(bytes.data() + clrOffset + 64, &nativeRva, 4);

    const std::string path = directory.write("native.dll", bytes);
    EXPECT_EQ(traitsOf(path), 3u);
    const auto info = runProcess({ORN_TOOL_PATH, "info", path});
    EXPECT_THAT(info.output, HasSubstr("Managed code    yes, with native code beside it (ReadyToRun)\n"));
    bytes[place] = 'X';
    EXPECT_EQ(traitsOf(directory.write("broken.dll", bytes)), 1u);
}

} // namespace
} // namespace ORN_3_30
