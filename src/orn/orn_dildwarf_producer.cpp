// Reads which compiler made a unit out of its producer text, and merges compile options. Called when a unit's
// top entry is read, and for the vendor entry with further options. The result is no mere report: siblings,
// ranges and names are read differently by compiler.
//
// Only what later code asks for is taken from a producer: its rest is kept as text.

#include "orn_dildwarf_unit.h"
#include "orn_log.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t firstNewVexorMajor = 8;

/// `text` has an end mark.
std::uint32_t numberAt(std::string_view text, std::size_t position) {
    return static_cast<std::uint32_t>(std::atol(text.data() + position));
}

bool startsWith(const char* text, std::string_view start) {
    return std::strncmp(text, start.data(), start.size()) == 0;
}

} // namespace

void DWARFCompilationUnit::parseProducer() {
    m_compilerKind = compiler_Unknown;
    m_compilerMajor = 0;
    m_compilerMinor = 0;
    const bool isGnu = startsWith(m_producer, "GNU ");
    if (!isGnu && !startsWith(m_producer, "Vexor"))
        return;
    // Only the start says whose it is; the rest is searched.
    if (!m_sections->affordsText(m_producer))
        return;
    if (isGnu)
        parseGnuProducer(m_producer);
    else
        parseVexorProducer(m_producer);
}

void DWARFCompilationUnit::parseGnuProducer(std::string_view producer) {
    m_compilerKind = compiler_Gnu;
    std::string_view marker = "GNU C++ ";
    std::size_t position = producer.find(marker);
    if (position == std::string_view::npos) {
        marker = "GNU C ";
        position = producer.find(marker);
    }
    if (position == std::string_view::npos)
        return;
    position += marker.size();
    if (position >= producer.size())
        return;
    m_compilerMajor = numberAt(producer, position);
    const std::size_t dot = producer.find('.', position);
    if (dot == std::string_view::npos)
        return;
    if (dot + 1 < producer.size())
        m_compilerMinor = numberAt(producer, dot + 1);
    if (m_compilerMajor == 2 && m_compilerMinor == 96)
        m_compilerKind = compiler_Gnu296;
}

void DWARFCompilationUnit::parseVexorProducer(std::string_view producer) {
    // Quirk: where the longer marker stands in mid-text the shorter one at the start is not looked for.
    std::size_t position = producer.find("Vexor(R) ");
    if (position == std::string_view::npos)
        position = producer.find("Vexor");
    if (position != 0)
        return;
    m_compilerKind = compiler_VexorOld;

    constexpr std::string_view version = "Version ";
    const std::size_t number = producer.find(version);
    if (number != std::string_view::npos && number + version.size() < producer.size()) {
        m_compilerMajor = numberAt(producer, number + version.size());
        if (m_compilerMajor >= firstNewVexorMajor)
            m_compilerKind = compiler_Vexor;
    }
    parseOptReportFile(producer);
}

void DWARFCompilationUnit::parseOptReportFile(std::string_view producer) {
    constexpr std::string_view option = "Opt_report_file ";
    const std::size_t found = producer.find(option);
    if (found == std::string_view::npos)
        return;
    const std::size_t begin = found + option.size();
    std::size_t end = producer.find_first_of(" \\", begin);
    // Quirk: a backslash ends the name and is its last character: a blank behind it is not read across.
    if (end != std::string_view::npos && producer[end] == '\\')
        ++end;
    m_optReportFile = producer.substr(begin, end == std::string_view::npos ? end : end - begin);
}

const char* DWARFCompilationUnit::getOptReportFile() {
    return m_optReportFile.empty() ? nullptr : m_optReportFile.c_str();
}

const char* DWARFCompilationUnit::getCompilerName() {
    if (!*m_producer) {
        switch (m_compilerKind) {
        case compiler_Gnu:
        case compiler_Gnu296:
            m_producer = "GNU";
            break;
        case compiler_VexorOld:
        case compiler_Vexor:
            m_producer = "Vexor(R)";
            break;
        case compiler_Unknown:
            break;
        }
    }
    return m_producer;
}

void DWARFCompilationUnit::mergeCompileOptions(const char* text) {
    static const std::array<std::string, 3> debugOptions = {"-g ", "debug:all ", "debug:full "};
    static const std::array<std::string, 4> optimisationOptions = {"-O2 ", "-O3 ", "-Ox ", "-fast "};
    static const std::string stackCheck = "-check stack ";
    if (!text || !m_sections->affordsSearches(text) || !m_sections->affordsSearches(m_compileOptions))
        return;
    const std::string_view further = text;
    const std::string_view known = m_compileOptions;
    // Presence is tested against the options as they stood: what this merge appends does not count.
    std::string merged = m_compileOptions;
    const auto appendIfNew = [&](const std::string& option) {
        if (known.find(option) == std::string_view::npos && further.find(option) != std::string_view::npos)
            merged += " " + option;
    };
    for (const std::string& option : debugOptions)
        appendIfNew(option);
    if (further.find(stackCheck) == std::string_view::npos) {
        for (const std::string& option : optimisationOptions)
            appendIfNew(option);
    }
    m_mergedOptions = std::move(merged);
    m_compileOptions = m_mergedOptions.c_str();
}

} // namespace ORN_3_30
