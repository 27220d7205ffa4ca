#include "support/real_module.h"

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace orn_test {

namespace {

std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// readelf shows the version of a dynamic symbol behind its name; the name in the file's table has none.
std::string withoutVersion(const std::string& name) {
    return name.substr(0, name.find('@'));
}

bool isNamed(const ElfSymbol& symbol, const std::string& name) {
    return symbol.name == name || withoutVersion(symbol.name) == name;
}

int priorityOf(const ElfSymbol& symbol) {
    return symbol.type == "FUNC" ? 1 : symbol.type == "NOTYPE" ? 3 : 4;
}

/// Whether the table's ranking lets `winner` have the start of `loser`.
bool outranks(const ElfSymbol& winner, const ElfSymbol& loser) {
    if (priorityOf(winner) != priorityOf(loser))
        return priorityOf(winner) < priorityOf(loser);
    return winner.binding != "LOCAL" && loser.binding == "LOCAL";
}

} // namespace

// --- ReadelfModule

ReadelfModule::ReadelfModule(const std::string& path) {
    const auto listing = [&](const char* what) {
        return commandOutput("readelf " + std::string(what) + " '" + path + "' 2>/dev/null");
    };
    readHeader(listing("-hW"));
    readSymbols(listing("-sW"));
    readSections(listing("-SW"));
    readLoads(listing("-lW"));
    const std::string notes = listing("-nW");
    constexpr const char* buildIdLabel = "Build ID: ";
    if (const auto place = notes.find(buildIdLabel); place != std::string::npos)
        buildId = wordsOf(notes.substr(place + std::char_traits<char>::length(buildIdLabel)))[0];
    if (isRelocatable)
        collectRangesOfText();
    else
        collectRanges();
}

std::string ReadelfModule::dropRule(const ElfSymbol& symbol) const {
    if (symbol.name.empty())
        return "no name";
    if (symbol.binding != "LOCAL" && symbol.binding != "GLOBAL" && symbol.binding != "WEAK")
        return "binding " + symbol.binding;
    if (symbol.section == "UND" || symbol.section == "COM")
        return "section " + symbol.section;
    if (symbol.type == "FUNC")
        return isIn(m_code, symbol.value) ? "" : "function outside code";
    if (symbol.type != "OBJECT" && symbol.type != "NOTYPE")
        return "type " + symbol.type;
    return isIn(m_code, symbol.value) || isIn(m_data, symbol.value) ? "" : "outside code and data";
}

const ElfSection* ReadelfModule::section(const std::string& name) const {
    const auto found = std::find_if(sections.begin(), sections.end(),
                                    [&](const ElfSection& section) { return section.name == name; });
    return found != sections.end() ? &*found : nullptr;
}

void ReadelfModule::readHeader(const std::string& listing) {
    is64Bit = listing.find("ELF64") != std::string::npos;
    isRelocatable = listing.find("REL (Relocatable file)") != std::string::npos;
    std::istringstream lines(listing);
    while (std::getline(lines, machine))
        if (machine.find("Machine:") != std::string::npos)
            break;
}

void ReadelfModule::readSymbols(const std::string& listing) {
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        const auto words = wordsOf(line);
        if (words.size() < 7 || words[0].back() != ':' || !isNumber(words[0].substr(0, words[0].size() - 1)))
            continue;
        symbols.push_back({std::stoull(words[1], nullptr, 16), std::stoull(words[2], nullptr, 0), words[3],
                           words[4], words[6], words.size() > 7 ? words[7] : ""});
    }
}

/// Fields are counted from both ends: the name may be missing, and so may the flags.
void ReadelfModule::readSections(const std::string& listing) {
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        const auto open = line.find('[');
        const auto close = line.find(']');
        if (open == std::string::npos || close == std::string::npos)
            continue;
        const auto index = wordsOf(line.substr(open + 1, close - open - 1));
        if (index.size() != 1 || !isNumber(index[0]))
            continue;
        const auto words = wordsOf(line.substr(close + 1));
        if (words.size() < 9)
            sections.push_back({});
        else
            sections.push_back({words[0], words[1], std::stoull(words[2], nullptr, 16),
                                std::stoull(words[3], nullptr, 16), std::stoull(words[4], nullptr, 16),
                                words.size() == 10 ? words[6] : ""});
    }
}

void ReadelfModule::readLoads(const std::string& listing) {
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        const auto words = wordsOf(line);
        if (words.size() > 5 && words[0] == "LOAD") {
            const std::uint64_t begin = std::stoull(words[2], nullptr, 16);
            m_loads.emplace_back(begin, begin + std::stoull(words[5], nullptr, 16));
        }
    }
}

bool ReadelfModule::holds(const Range& range, std::uint64_t address) {
    return range.first <= address && address < range.second;
}

bool ReadelfModule::isIn(const Ranges& ranges, std::uint64_t address) {
    const auto after = ranges.upper_bound(address);
    return after != ranges.begin() && address < std::prev(after)->second;
}

/// A section reaches up to the next one if both begin in the same one of the first two loads.
std::uint64_t ReadelfModule::endOf(std::size_t index) const {
    const ElfSection& section = sections[index];
    const std::uint64_t end = section.address + section.size;
    if (index + 1 < sections.size()) {
        const std::uint64_t next = sections[index + 1].address;
        for (std::size_t number : {0, 1})
            if (end < next && holds(load(number), section.address) && holds(load(number), next))
                return next;
    }
    return end;
}

void ReadelfModule::collectRanges() {
    for (std::size_t index = 0; index < sections.size(); ++index) {
        const ElfSection& section = sections[index];
        if (section.size == 0)
            continue;
        const std::uint64_t end = endOf(index);
        if (section.has('X'))
            m_code[section.address] = end;
        else if (section.has('W') || (section.has('A') && section.type == "PROGBITS"))
            for (std::size_t number : {1, 0})
                if (holds(load(number), section.address) && end <= load(number).second) {
                    m_data[section.address] = end;
                    break;
                }
        if (section.name == ".rodata")
            m_data.emplace(section.address, section.address + section.size);
    }
}

/// Every section of a relocatable file begins at 0. Of those that lie on one another ".text" has the better
/// right, and without a place of its own ".data" is no data.
void ReadelfModule::collectRangesOfText() {
    if (const ElfSection* text = section(".text"))
        m_code[text->address] = text->address + text->size;
}

// --- RealModule

RealModule::RealModule(const std::string& path, Tally& tally) : m_path(path), m_elf(path), m_tally(tally) {
    for (const ElfSymbol& symbol : m_elf.symbols) {
        const std::string rule = m_elf.dropRule(symbol);
        if (rule.empty())
            m_kept.emplace(symbol.value, symbol);
        else
            ++m_tally["dropped: " + rule];
    }
}

void RealModule::check() {
    const auto answers = askForStarts();
    for (auto group = m_kept.begin(); group != m_kept.end();) {
        const std::uint64_t address = group->first;
        const auto end = m_kept.upper_bound(address);
        const auto answer = answers.find(address);
        ASSERT_NE(answers.end(), answer) << m_path << ": no answer at " << std::hex << address;
        for (; group != end; ++group)
            ++m_tally[explain(answer->second, address, m_kept.lower_bound(address), end)];
    }
}

std::map<std::uint64_t, std::string> RealModule::askForStarts() {
    const TempDir directory;
    const std::string list = directory.path("addresses");
    {
        std::ofstream stream(list);
        for (auto it = m_kept.begin(); it != m_kept.end(); it = m_kept.upper_bound(it->first))
            stream << std::hex << it->first << "\n";
    }
    std::map<std::uint64_t, std::string> answers;
    std::istringstream lines(
        commandOutput("'" ORN_TOOL_PATH "' symbolize --json '" + m_path + "' < '" + list + "'"));
    for (std::string line; std::getline(lines, line);) {
        const auto answer = nlohmann::json::parse(line);
        const auto& symbol = answer["symbol"];
        answers[std::stoull(answer["address"].get<std::string>(), nullptr, 16)] =
            symbol.is_null() ? "" : symbol["raw"].get<std::string>();
    }
    return answers;
}

std::string RealModule::explain(const std::string& answer, std::uint64_t address, Kept::const_iterator begin,
                                Kept::const_iterator end) {
    for (auto it = begin; it != end; ++it)
        if (isNamed(it->second, answer))
            return "answered by a name of the table at that address";
    for (const auto& kept : m_kept) {
        const ElfSymbol& symbol = kept.second; // no structured binding: a lambda could not take it
        if (kept.first > address)
            break;
        const bool covers = address < kept.first + symbol.size;
        if (covers && isNamed(symbol, answer) &&
            std::all_of(begin, end, [&](const auto& here) { return outranks(symbol, here.second); }))
            return "covered by a stronger symbol";
    }
    ADD_FAILURE() << m_path << ": at " << std::hex << address << " the answer is '" << answer
                  << "', the table has " << begin->second.name;
    return "not explained";
}

} // namespace orn_test
