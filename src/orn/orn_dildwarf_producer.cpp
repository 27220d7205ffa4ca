// Reads which compiler made a unit out of its producer text, and merges compile options. Called when a unit's
// top entry is read, and for the vendor entry with further options. The result is no mere report: siblings,
// ranges and names are read differently by compiler.
//
// Only what later code asks for is taken from a producer: its rest is kept as text.

#include "orn_dildwarf_unit.h"
#include "orn_log.h"

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t firstNewVexorMajor = 8;

std::uint32_t numberAt(const std::string& text, std::size_t position) {
    return static_cast<std::uint32_t>(std::atol(text.c_str() + position));
}

} // namespace

void DWARFCompilationUnit::parseProducer() {
    m_compilerKind = compiler_Unknown;
    m_compilerMajor = 0;
    m_compilerMinor = 0;
    if (m_producer.find("GNU ") == 0)
        parseGnuProducer();
    else
        parseVexorProducer();
}

void DWARFCompilationUnit::parseGnuProducer() {
    m_compilerKind = compiler_Gnu;
    std::string_view marker = "GNU C++ ";
    std::size_t position = m_producer.find(marker);
    if (position == std::string::npos) {
        marker = "GNU C ";
        position = m_producer.find(marker);
    }
    if (position == std::string::npos)
        return;
    position += marker.size();
    if (position >= m_producer.size())
        return;
    m_compilerMajor = numberAt(m_producer, position);
    const std::size_t dot = m_producer.find('.', position);
    if (dot == std::string::npos)
        return;
    if (dot + 1 < m_producer.size())
        m_compilerMinor = numberAt(m_producer, dot + 1);
    if (m_compilerMajor == 2 && m_compilerMinor == 96)
        m_compilerKind = compiler_Gnu296;
}

void DWARFCompilationUnit::parseVexorProducer() {
    // Quirk: where the longer marker stands in mid-text the shorter one at the start is not looked for.
    std::size_t position = m_producer.find("Vexor(R) ");
    if (position == std::string::npos)
        position = m_producer.find("Vexor");
    if (position != 0)
        return;
    m_compilerKind = compiler_VexorOld;

    constexpr std::string_view version = "Version ";
    const std::size_t number = m_producer.find(version);
    if (number != std::string::npos && number + version.size() < m_producer.size()) {
        m_compilerMajor = numberAt(m_producer, number + version.size());
        if (m_compilerMajor >= firstNewVexorMajor)
            m_compilerKind = compiler_Vexor;
    }
    parseOptReportFile();
}

void DWARFCompilationUnit::parseOptReportFile() {
    constexpr std::string_view option = "Opt_report_file ";
    const std::size_t found = m_producer.find(option);
    if (found == std::string::npos)
        return;
    const std::size_t begin = found + option.size();
    std::size_t end = m_producer.find_first_of(" \\", begin);
    // Quirk: a backslash ends the name and is its last character: a blank behind it is not read across.
    if (end != std::string::npos && m_producer[end] == '\\')
        ++end;
    m_optReportFile = m_producer.substr(begin, end == std::string::npos ? end : end - begin);
}

const char* DWARFCompilationUnit::getOptReportFile() {
    return m_optReportFile.empty() ? nullptr : m_optReportFile.c_str();
}

const char* DWARFCompilationUnit::getCompilerName() {
    if (m_producer.empty()) {
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
    return m_producer.c_str();
}

void DWARFCompilationUnit::mergeCompileOptions(const char* text) {
    static const std::array<std::string, 3> debugOptions = {"-g ", "debug:all ", "debug:full "};
    static const std::array<std::string, 4> optimisationOptions = {"-O2 ", "-O3 ", "-Ox ", "-fast "};
    static const std::string stackCheck = "-check stack ";
    if (!text)
        return;
    const std::string_view further = text;
    // Presence is tested against the options as they stood: what this merge appends does not count.
    std::string merged = m_compileOptions;
    const auto appendIfNew = [&](const std::string& option) {
        if (m_compileOptions.find(option) == std::string::npos &&
            further.find(option) != std::string_view::npos)
            merged += " " + option;
    };
    for (const std::string& option : debugOptions)
        appendIfNew(option);
    if (further.find(stackCheck) == std::string_view::npos) {
        for (const std::string& option : optimisationOptions)
            appendIfNew(option);
    }
    m_compileOptions = std::move(merged);
}

} // namespace ORN_3_30
