// The rules. Each one looks at one difference, with everything else at hand, and is as narrow as what it
// tells: what a program is known to do, or what our own tables are meant to do, and nothing near it. How
// often a rule may apply is limited as well, where a mistake of ours could hide behind it.

#include "support/peer_rules.h"

#include <algorithm>
#include <cstdlib>
#include <cxxabi.h>
#include <iomanip>
#include <iterator>
#include <memory>
#include <sstream>
#include <string_view>

namespace orn_test {

namespace {

enum class Field { Coverage, Depth, Function, File, Line };

/// `frame` counts from the innermost one.
struct Difference {
    Field field;
    std::size_t frame;
};

struct Case {
    const ProgramFacts& facts;
    const Answers& answers;
    Peer peer;

    const PeerFrames& ours() const { return answers.ours->frames; }
    const PeerFrames& theirs() const { return *answers.peers[static_cast<std::size_t>(peer)]; }
    /// Null if it was not asked.
    const PeerFrames* of(Peer other) const { return answers.peers[static_cast<std::size_t>(other)]; }
    const std::string& ourFunction(const Difference& at) const { return ours()[at.frame].function; }
    const std::string& theirFunction(const Difference& at) const { return theirs()[at.frame].function; }
    bool isOutermost(const Difference& at) const { return at.frame + 1 == ours().size(); }
};

struct Rule {
    const char* name;
    const char* why;
    bool (*explains)(const Case&, const Difference&);
    bool isSameAnswer; ///< whether both mean the same
    double mostOfAll;  ///< the greatest share of all comparisons that it may explain
};

std::string demangled(const std::string& name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
    return text ? text.get() : name;
}

/// What a compiler appends to a name is no part of the scheme.
std::string plainNameOfSymbol(const std::string& raw) {
    return plainFunction(demangled(raw.substr(0, raw.starts_with("_Z") ? raw.find('.') : std::string::npos)));
}

bool sameName(const std::string& a, const std::string& b) {
    return withoutSpaces(a) == withoutSpaces(b);
}

bool samePlainName(const std::string& a, const std::string& b) {
    return plainFunction(a) == plainFunction(b);
}

/// Without a scope and without parameters: what the name of an entry looks like, and no linkage name.
bool isUnqualified(const std::string& name) {
    if (name.starts_with("operator"))
        return true;
    const std::string outside = name.substr(0, name.find('<'));
    return outside.find("::") == std::string::npos && outside.find('(') == std::string::npos;
}

/// What demanglers make of a name, or what they could not read.
bool isMangledForm(const std::string& name) {
    return name.starts_with("_Z") || name.find('(') != std::string::npos;
}

/// What a person wrote to name the function; of an operator the word alone.
std::string wordOf(const std::string& function) {
    const std::string name =
        isUnqualified(function) ? function.substr(0, function.find('<')) : plainFunction(function);
    return name.starts_with("operator") ? "operator" : name;
}

bool samePlaces(const PeerFrames& a, const PeerFrames& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const PeerFrame& x, const PeerFrame& y) {
        return x.file == y.file && x.line == y.line;
    });
}

/// One way of writing what demanglers write in two ways.
std::string unified(std::string name) {
    const auto replaceAll = [&name](std::string_view from, std::string_view to) {
        for (std::size_t at = name.find(from); at != std::string::npos; at = name.find(from, at + to.size()))
            name.replace(at, from.size(), to);
    };
    name = withoutSpaces(name);
    replaceAll("'lambda'", "{lambda");
    replaceAll("#1}", "");
    replaceAll("[clone", "(");
    replaceAll("]", ")");
    return name;
}

/// "ns::S::" of "ns::S::f".
std::string scopeOf(const std::string& qualified) {
    const std::size_t colons = qualified.rfind("::");
    return colons == std::string::npos ? std::string() : qualified.substr(0, colons + 2);
}

// --- Addresses

bool isLineWithoutFunction(const Case& at, const Difference& difference) {
    return difference.field == Field::Coverage && at.ours().empty() && at.theirs().front().function.empty() &&
           !at.facts.isInFunction(at.answers.address);
}

bool isNearestSymbol(const Case& at, const Difference& difference) {
    return difference.field == Field::Coverage && at.ours().empty() && at.theirs().size() == 1 &&
           !at.facts.isInFunction(at.answers.address) &&
           at.facts.symbolsBefore(at.answers.address).contains(plainFunction(at.theirs()[0].function));
}

// --- Files and lines

bool isFileSymbol(const Case& at, const Difference& difference) {
    return difference.field == Field::File && at.isOutermost(difference) &&
           at.ours()[difference.frame].file.empty() && at.theirs()[difference.frame].line == 0 &&
           at.facts.isFileSymbol(at.theirs()[difference.frame].file);
}

/// Both others know no line there.
bool isRowOfEndedSequence(const Case& at, const Difference& difference) {
    const auto hasNoLine = [](const PeerFrames* frames) {
        return frames && frames->size() == 1 && frames->front().line == 0;
    };
    return (difference.field == Field::File || difference.field == Field::Line) &&
           at.peer == Peer::elfutils && hasNoLine(&at.ours()) && hasNoLine(at.of(Peer::addr2line)) &&
           hasNoLine(at.of(Peer::llvm));
}

// --- Names

bool isNameOfEntry(const Case& at, const Difference& difference) {
    return difference.field == Field::Function && !at.isOutermost(difference) &&
           isUnqualified(at.ourFunction(difference)) &&
           samePlainName(at.ourFunction(difference), at.theirFunction(difference));
}

bool isFortranName(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function || !at.facts.isFortran())
        return false;
    const std::string& ours = at.ourFunction(difference);
    const std::string& theirs = at.theirFunction(difference);
    return theirs == ours + '_' || (theirs.starts_with("__") && theirs.ends_with("_MOD_" + ours));
}

bool isFortranProgram(const Case& at, const Difference& difference) {
    return difference.field == Field::Function && at.facts.isFortran() && at.isOutermost(difference) &&
           at.theirFunction(difference) == "MAIN__" &&
           at.facts.functionsAt(at.answers.address).contains("MAIN__");
}

/// Names of instances for types that have none can be anything; then the word that was written has to do.
bool isNameInSymbolTable(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function || !at.isOutermost(difference))
        return false;
    const std::string& ours = at.ourFunction(difference);
    const std::string& theirs = at.theirFunction(difference);
    if (samePlainName(ours, theirs) &&
        at.facts.functionsAt(at.answers.address).contains(plainFunction(theirs)))
        return true;
    const std::string word = wordOf(ours);
    return isUnqualified(ours) && ours.find('<') != std::string::npos &&
           theirs.find(word) != std::string::npos && at.facts.isWordOfFunctionAt(at.answers.address, word);
}

/// An instance of a template; the word that was written is the same, and so is the place.
bool isOtherForm(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function)
        return false;
    const PeerFrame& ours = at.ours()[difference.frame];
    const PeerFrame& theirs = at.theirs()[difference.frame];
    const std::string word = wordOf(ours.function);
    return !word.empty() && ours.file == theirs.file && ours.line == theirs.line && ours.line != 0 &&
           ours.function.find('<') != std::string::npos && theirs.function.find('<') != std::string::npos &&
           theirs.function.find(word) != std::string::npos;
}

bool isNameWithoutSymbolTable(const Case& at, const Difference& difference) {
    return difference.field == Field::Function && at.isOutermost(difference) && at.peer == Peer::elfutils &&
           isUnqualified(at.theirFunction(difference)) &&
           samePlainName(at.ourFunction(difference), at.theirFunction(difference));
}

/// LLVM says what we say.
bool isNameOfOutermost(const Case& at, const Difference& difference) {
    const PeerFrames* llvm = at.of(Peer::llvm);
    if (difference.field != Field::Function || at.peer != Peer::addr2line || at.isOutermost(difference) ||
        !llvm || llvm->size() != at.ours().size() ||
        !samePlainName((*llvm)[difference.frame].function, at.ourFunction(difference)))
        return false;
    const std::string& theirs = at.theirFunction(difference);
    if (at.facts.functionsAt(at.answers.address).contains(plainFunction(theirs)))
        return true;
    const std::string word = wordOf(at.ours().back().function);
    return theirs.find(word) != std::string::npos && at.facts.isWordOfFunctionAt(at.answers.address, word);
}

/// LLVM says what we say. Without a line addr2line knows of no expanded calls either.
bool isLineThatAddr2lineMisses(const Case& at, const Difference&) {
    const PeerFrames* llvm = at.of(Peer::llvm);
    return at.peer == Peer::addr2line && (at.answers.address & 0xff) == 0xff && at.theirs().size() == 1 &&
           at.theirs().front().line == 0 && llvm && samePlaces(*llvm, at.ours());
}

/// addr2line, whose demangler is not LLVM's, writes it as we do, or it is the name of a lambda.
bool isWayOfWriting(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function || at.peer != Peer::llvm)
        return false;
    const std::string& ours = at.ourFunction(difference);
    const std::string& theirs = at.theirFunction(difference);
    if (unified(ours) == unified(theirs))
        return true;
    const PeerFrames* addr2line = at.of(Peer::addr2line);
    const bool isOurs = addr2line && addr2line->size() == at.ours().size() &&
                        sameName((*addr2line)[difference.frame].function, ours);
    const bool isLambda =
        ours.find("{lambda(") != std::string::npos && theirs.find("'lambda") != std::string::npos;
    return (isOurs && isMangledForm(ours)) || (isLambda && samePlainName(ours, theirs));
}

/// It is the name that we demangle, or that of the symbol there.
bool isNotDemangled(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function || !at.theirFunction(difference).starts_with("_Z"))
        return false;
    const std::string& theirs = at.theirFunction(difference);
    const bool isOfSymbol = at.isOutermost(difference) && isUnqualified(at.ourFunction(difference)) &&
                            at.facts.functionsAt(at.answers.address).contains(plainNameOfSymbol(theirs));
    return isOfSymbol || sameName(at.ourFunction(difference), demangled(theirs));
}

/// Of functions with the same code only one is left, and it has the names of all.
bool isOtherNameOfSameCode(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function || !at.isOutermost(difference))
        return false;
    const std::set<std::string> names = at.facts.functionsAt(at.answers.address);
    return !samePlainName(at.ourFunction(difference), at.theirFunction(difference)) &&
           names.contains(plainFunction(at.ourFunction(difference))) &&
           names.contains(plainFunction(at.theirFunction(difference)));
}

/// One has the name of the class that the scope says, the other one that of the class which it inherits from.
bool isInheritedConstructor(const Case& at, const Difference& difference) {
    if (difference.field != Field::Function)
        return false;
    const std::string ours = qualifiedFunction(at.ourFunction(difference));
    const std::string theirs = qualifiedFunction(at.theirFunction(difference));
    const auto isConstructorOf = [](const std::string& scope, const std::string& name) {
        return scope == name + "::" || scope.ends_with("::" + name + "::");
    };
    const std::string scope = scopeOf(theirs);
    const bool isOfScope =
        isConstructorOf(scope, plainFunction(theirs)) || isConstructorOf(scope, plainFunction(ours));
    return isOfScope && (scopeOf(ours) == scope || scopeOf(ours).empty());
}

bool isDataOfObjectFile(const Case& at, const Difference& difference) {
    const bool isBetweenFunctions = difference.field == Field::Coverage && at.ours().empty() &&
                                    !at.facts.isInFunction(at.answers.address);
    const bool isOutermost = difference.field == Field::Function && at.isOutermost(difference);
    return at.peer == Peer::llvm && (isBetweenFunctions || isOutermost) &&
           at.facts.isDataOfObjectFile(at.theirs().back().function);
}

// --- Expanded calls

/// Places, and with them the number of levels, are the same for the two others and us.
bool isElfutilsAlone(const Case& at, const Difference&) {
    const PeerFrames* addr2line = at.of(Peer::addr2line);
    const PeerFrames* llvm = at.of(Peer::llvm);
    return at.peer == Peer::elfutils && addr2line && llvm && !at.ours().empty() &&
           samePlaces(at.ours(), *addr2line) && samePlaces(at.ours(), *llvm);
}

/// clang keeps the definition of a function in the entry of its name space, and gcc that of a member of a
/// local class in the entry of the class.
bool isDefinedInside(const Case& at, const Difference& difference) {
    if (difference.field != Field::Depth || at.ours().size() != 1 || at.theirs().size() < 2)
        return false;
    if (at.facts.isClang())
        return at.ours().front().function.find("::") != std::string::npos &&
               samePlainName(at.ours().front().function, at.theirs().back().function);
    return at.answers.ours->rawSymbol.starts_with("_ZZ");
}

/// Nothing but the line 0 is known of the call.
bool isCallWithoutLine(const Case& at, const Difference& difference) {
    return difference.field == Field::File && difference.frame > 0 &&
           at.ours()[difference.frame].file.empty() && at.ours()[difference.frame].line == 0 &&
           at.theirs()[difference.frame].line == 0;
}

constexpr double any = 1;
constexpr double many = 0.2;
constexpr double some = 0.1;
constexpr double few = 0.02;
constexpr double rare = 0.002;

constexpr Rule rules[] = {
    {"line without a function",
     "between functions: rows reach over padding, but no function covers the address, and we answer for "
     "functions",
     isLineWithoutFunction, false, some},
    {"nearest symbol", "they name an address that no function covers after what stands in front of it",
     isNearestSymbol, false, some},
    {"file of a FILE symbol", "without debug information they name the source file after the symbol table",
     isFileSymbol, true, many},
    {"row of an ended sequence", "eu-addr2line lets the last row reach beyond the end of its sequence",
     isRowOfEndedSequence, false, some},
    {"name of the entry", "an expanded function that was not declared before has the name of its entry",
     isNameOfEntry, true, any},
    {"name in Fortran", "we give the name that was written, without the compiler's marks", isFortranName,
     true, any},
    {"program of Fortran", "the entry has the name that was written; the symbol table calls it MAIN__",
     isFortranProgram, true, some},
    {"way of writing", "LLVM's demangler writes some names in another way than the other ones",
     isWayOfWriting, true, some},
    {"not demangled", "not every demangler reads every name", isNotDemangled, true, few},
    {"other name of the same code", "of several functions with one code each program tells another one",
     isOtherNameOfSameCode, true, few},
    {"inherited constructor",
     "some name it after the class that inherits, others after the class whose own it is",
     isInheritedConstructor, true, few},
    {"name in the symbol table",
     "they name the outermost function after the symbol, which may be a part or a copy of it",
     isNameInSymbolTable, true, many},
    {"data of an object file",
     "llvm-symbolizer does not tell the sections of an object file apart in its symbol table",
     isDataOfObjectFile, false, few},
    {"name without the symbol table", "eu-addr2line takes the name of the entry alone",
     isNameWithoutSymbolTable, true, some},
    {"name of the symbol", "addr2line gives the name of the symbol for an expanded function",
     isNameOfOutermost, false, some},
    {"line that addr2line misses", "addr2line has no line for some addresses that end in 0xff",
     isLineThatAddr2lineMisses, false, rare},
    {"defined inside",
     "entries of name spaces and classes are not entered: what is defined inside one has no expanded calls",
     isDefinedInside, false, many},
    {"call without a line", "a call that has no line has no place", isCallWithoutLine, false, some},
    {"eu-addr2line alone", "it finds other levels at the edges of split blocks than the two others and we",
     isElfutilsAlone, false, few},
    {"other form of the name", "demanglers disagree on names of instances for types that have none",
     isOtherForm, true, rare},
};

std::vector<Difference> differencesOf(const PeerFrames& ours, const PeerFrames& theirs) {
    if (ours.empty() != theirs.empty())
        return {{Field::Coverage, 0}};
    std::vector<Difference> found;
    const bool sameDepth = ours.size() == theirs.size();
    if (!sameDepth)
        found.push_back({Field::Depth, 0});
    // The functions and callers of different levels cannot be compared; the place of the innermost one can.
    const std::size_t count = sameDepth ? ours.size() : 1;
    for (std::size_t i = 0; i < count; ++i) {
        if (sameDepth && !sameName(ours[i].function, theirs[i].function))
            found.push_back({Field::Function, i});
        if (ours[i].file != theirs[i].file)
            found.push_back({Field::File, i});
        if (ours[i].line != theirs[i].line)
            found.push_back({Field::Line, i});
    }
    return found;
}

const Rule* ruleFor(const Case& at, const Difference& difference) {
    const auto found = std::find_if(std::begin(rules), std::end(rules),
                                    [&](const Rule& rule) { return rule.explains(at, difference); });
    return found != std::end(rules) ? &*found : nullptr;
}

} // namespace

// --- ProgramFacts

ProgramFacts::ProgramFacts(const std::string& compiler, const std::vector<ElfSymbol>& symbols,
                           bool isObjectFile)
    : m_compiler(compiler) {
    for (const ElfSymbol& symbol : symbols) {
        if (symbol.type == "FILE") {
            m_files.insert(symbol.name);
            continue;
        }
        if (symbol.section == "UND" || symbol.section == "ABS")
            continue;
        if (isObjectFile && symbol.type != "FUNC")
            m_dataOfObjectFile.insert(symbol.name);
        const std::string name = plainNameOfSymbol(symbol.name);
        if (symbol.type == "FUNC" || (symbol.type == "NOTYPE" && !isObjectFile))
            m_symbols.emplace(symbol.value, name);
        if (symbol.type != "FUNC" || symbol.size == 0)
            continue;
        m_functions.emplace(symbol.value, Function{symbol.value + symbol.size, name, symbol.name});
        m_longest = std::max(m_longest, symbol.size);
    }
}

template <typename Visit>
void ProgramFacts::visitFunctionsAt(std::uint64_t address, const Visit& visit) const {
    auto function = m_functions.lower_bound(address > m_longest ? address - m_longest : 0);
    for (; function != m_functions.end() && function->first <= address; ++function) {
        if (address < function->second.end)
            visit(function->second);
    }
}

std::set<std::string> ProgramFacts::functionsAt(std::uint64_t address) const {
    std::set<std::string> names;
    visitFunctionsAt(address, [&names](const Function& function) { names.insert(function.name); });
    return names;
}

bool ProgramFacts::isWordOfFunctionAt(std::uint64_t address, const std::string& word) const {
    bool isWord = false;
    visitFunctionsAt(address, [&](const Function& function) {
        // An operator has no word in a mangled name; a conversion is one that not every demangler reads.
        const bool isConversion = word == "operator" && function.raw.find("cv") != std::string::npos;
        const std::string name = word == "operator" ? demangled(function.raw) : function.raw;
        isWord = isWord || isConversion || name.find(word) != std::string::npos;
    });
    return isWord;
}

std::set<std::string> ProgramFacts::symbolsBefore(std::uint64_t address) const {
    std::set<std::string> names;
    auto symbol = m_symbols.upper_bound(address);
    if (symbol == m_symbols.begin())
        return names;
    const auto [begin, end] = m_symbols.equal_range(std::prev(symbol)->first);
    std::transform(begin, end, std::inserter(names, names.end()),
                   [](const auto& entry) { return entry.second; });
    return names;
}

std::vector<std::uint64_t> ProgramFacts::functionStarts() const {
    std::vector<std::uint64_t> starts;
    for (const auto& [start, function] : m_functions) {
        if (starts.empty() || starts.back() != start)
            starts.push_back(start);
    }
    return starts;
}

std::vector<std::pair<std::uint64_t, std::uint64_t>> ProgramFacts::functionRanges() const {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    for (const auto& [start, function] : m_functions) {
        const std::uint64_t begin = ranges.empty() ? start : std::max(start, ranges.back().second);
        if (begin < function.end)
            ranges.emplace_back(begin, function.end);
    }
    return ranges;
}

// --- PeerLedger

void PeerLedger::compare(const std::string& program, const ProgramFacts& facts, const Answers& answers) {
    for (Peer peer : allPeers) {
        const Case at{facts, answers, peer};
        if (!at.of(peer))
            continue;
        ++m_comparisons;
        Agreement& agreement = m_agreements[static_cast<std::size_t>(peer)];
        ++agreement.asked;
        agreement.depth += at.ours().size() == at.theirs().size();
        m_expanded += at.ours().size() > 1 || at.theirs().size() > 1;
        const std::vector<Difference> differences = differencesOf(at.ours(), at.theirs());
        m_equal += differences.empty();
        std::set<std::string> needed;
        bool isExplained = true;
        bool isInnermost = true;
        bool isNameOfSymbol = false;
        for (const Difference& difference : differences) {
            const Rule* rule = ruleFor(at, difference);
            if (rule)
                needed.insert(rule->name);
            isExplained = isExplained && rule;
            if (difference.frame != 0 || (rule && rule->isSameAnswer))
                continue;
            isNameOfSymbol = isInnermost && rule && rule->explains == isNameOfOutermost;
            isInnermost = false;
        }
        agreement.innermost += isInnermost;
        agreement.nameOfSymbol += isNameOfSymbol;
        for (const std::string& name : needed)
            ++m_counts[name];
        if (isExplained)
            continue;
        constexpr std::size_t enough = 20;
        if (++m_unexplainedCount > enough)
            continue;
        std::ostringstream line;
        line << program << " at 0x" << std::hex << answers.address << ": " << textOf(at.ours())
             << "\n    but " << nameOf(peer) << " says " << textOf(at.theirs()) << '\n';
        m_unexplained += line.str();
    }
}

std::string PeerLedger::overused() const {
    std::ostringstream text;
    for (const Rule& rule : rules) {
        const auto count = m_counts.find(rule.name);
        if (count != m_counts.end() &&
            static_cast<double>(count->second) > rule.mostOfAll * static_cast<double>(m_comparisons))
            text << rule.name << " explains " << count->second << " of " << m_comparisons << '\n';
    }
    return text.str();
}

std::string PeerLedger::rulesText() const {
    std::ostringstream text;
    text << m_comparisons << " comparisons, " << m_expanded << " with expanded calls; " << m_equal
         << " equal, " << m_unexplainedCount << " unexplained\n";
    for (const Rule& rule : rules) {
        if (const auto count = m_counts.find(rule.name); count != m_counts.end())
            text << std::setw(9) << count->second << "  " << rule.name << ": " << rule.why << '\n';
    }
    return text.str();
}

std::string PeerLedger::agreementText() const {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2);
    for (Peer peer : allPeers) {
        const Agreement& agreement = with(peer);
        if (agreement.asked != 0)
            text << "as " << nameOf(peer) << ", of " << agreement.asked
                 << ": innermost function, file and line " << 100 * agreement.share(agreement.innermost)
                 << " %, file and line but the name of the symbol "
                 << 100 * agreement.share(agreement.nameOfSymbol) << " %, depth "
                 << 100 * agreement.share(agreement.depth) << " %\n";
    }
    return text.str();
}

} // namespace orn_test
