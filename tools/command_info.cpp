// "orn info": what a module is, where its parts lie, and where its symbols may come from.

#include "commands.h"

#include "json_writer.h"
#include "module_description.h"
#include "names.h"
#include "output.h"
#include "text_table.h"

#include <unistd.h>

namespace orn_tool {

using enum ORN_3_30::symbol_file_state_t;

namespace {

using Align = TextTable::Align;

// ---- Text

void putField(Output& output, std::string_view title, std::string_view value) {
    constexpr std::size_t titleWidth = 16;
    output.put(title).putSpaces(titleWidth - title.size()).putPrintable(value).put('\n');
}

/// Only modules of this format can hold managed code.
void printTraits(Output& output, const ModuleDescription& module) {
    if (module.format != ORN_3_30::exec_format_pe)
        return;
    putField(output, "Managed code",
             module.isReadyToRun ? "yes, with native code beside it (ReadyToRun)"
             : module.isManaged  ? "yes"
                                 : "no");
}

void printFields(Output& output, const ModuleDescription& module) {
    putField(output, "Module", module.path);
    putField(output, "Format", wordFor(module.format));
    putField(output, "Architecture", wordFor(module.architecture));
    if (module.isGpuBinary) {
        putField(output, "Kernel", module.kernel.empty() ? "none named" : module.kernel);
        putField(output, "Kernels", "not listed: the library's interfaces do not give them");
    }
    putField(output, "Load address", hexText(module.loadAddress));
    putField(output, "Entry point", module.entryPoint ? hexText(*module.entryPoint) : "none");
    putField(output, "Image size", hexText(module.imageSize));
    printTraits(output, module);
    putField(output, "Symbol file",
             module.symbolFile
                 ? module.symbolFile->path + " (" + wordForSymbolFile(module.symbolFile->type) + ")"
                 : "none");
}

/// A cell is never empty: lines do not end in blanks, and something stands where something is said.
std::string orDash(const std::string& text) {
    return text.empty() ? "-" : printable(text);
}

void printTable(Output& output, std::string_view title, const TextTable& table) {
    output.put('\n').put(title).put(table.isEmpty() ? ": none\n" : "\n");
    if (!table.isEmpty())
        table.print(output, 2);
}

/// Its state and, of one that was not taken, what more there is to say of that.
std::string fateOf(const Candidate& candidate) {
    std::string fate = wordForCandidate(candidate.state);
    if (candidate.isChosen)
        return fate + ", chosen";
    if (candidate.state == symbol_file_usable)
        fate += ", not needed";
    else if (candidate.isSearched && candidate.refused.empty())
        fate += ", not found";
    for (const std::string& path : candidate.refused)
        fate += ", refused " + printable(path);
    return fate;
}

void printCandidates(Output& output, const ModuleDescription& module) {
    TextTable table({{"format", Align::Left}, {"state", Align::Left}, {"wanted", Align::Left}});
    for (const Candidate& candidate : module.candidates)
        table.addRow({wordForSymbolFile(candidate.kind), fateOf(candidate), orDash(candidate.wantedName)});
    printTable(output, "Candidates for the symbol file", table);
}

void printSegments(Output& output, const ModuleDescription& module) {
    TextTable table({{"address", Align::Right},
                     {"size", Align::Right},
                     {"file offset", Align::Right},
                     {"file size", Align::Right},
                     {"kind", Align::Left},
                     {"name", Align::Left}});
    for (const SegmentDescription& segment : module.segments)
        table.addRow({hexText(segment.address), hexText(segment.memorySize), hexText(segment.fileOffset),
                      hexText(segment.fileSize), segment.isCode ? "code" : std::to_string(segment.kind),
                      orDash(segment.name)});
    printTable(output, "Segments", table);
}

void printSections(Output& output, const ModuleDescription& module) {
    TextTable table({{"address", Align::Right},
                     {"size", Align::Right},
                     {"file offset", Align::Right},
                     {"name", Align::Left}});
    for (const SectionDescription& section : module.sections)
        table.addRow({hexText(section.address), hexText(section.size),
                      section.fileOffset ? hexText(*section.fileOffset) : "-", orDash(section.name)});
    printTable(output, "Sections", table);
}

void printText(Output& output, const ModuleDescription& module) {
    printFields(output, module);
    printCandidates(output, module);
    printSegments(output, module);
    printSections(output, module);
}

// ---- JSON

void putSegments(JsonWriter& json, const ModuleDescription& module) {
    json.key("segments").beginArray();
    for (const SegmentDescription& segment : module.segments) {
        json.beginObject().key("name").string(segment.name).key("kind").number(segment.kind);
        json.key("address").hex(segment.address).key("size").hex(segment.memorySize);
        json.key("fileOffset").hex(segment.fileOffset).key("fileSize").hex(segment.fileSize).endObject();
    }
    json.endArray();
}

void putSections(JsonWriter& json, const ModuleDescription& module) {
    json.key("sections").beginArray();
    for (const SectionDescription& section : module.sections) {
        json.beginObject().key("name").string(section.name);
        json.key("address").hex(section.address).key("size").hex(section.size);
        json.key("fileOffset").hex(section.fileOffset).endObject();
    }
    json.endArray();
}

void putSymbolFile(JsonWriter& json, const ModuleDescription& module) {
    json.key("symbolFile");
    if (!module.symbolFile) {
        json.null();
        return;
    }
    json.beginObject().key("path").string(module.symbolFile->path);
    json.key("format").string(wordForSymbolFile(module.symbolFile->type)).endObject();
}

void putCandidates(JsonWriter& json, const ModuleDescription& module) {
    json.key("candidates").beginArray();
    for (const Candidate& candidate : module.candidates) {
        json.beginObject().key("format").string(wordForSymbolFile(candidate.kind));
        json.key("state").number(candidate.state).key("meaning").string(wordForCandidate(candidate.state));
        json.key("wanted").string(candidate.wantedName);
        json.key("required").boolean(candidate.isRequired).key("chosen").boolean(candidate.isChosen);
        json.key("searched").boolean(candidate.isSearched).key("refused").beginArray();
        for (const std::string& path : candidate.refused)
            json.string(path);
        json.endArray().endObject();
    }
    json.endArray();
}

void printJson(Output& output, const ModuleDescription& module) {
    JsonWriter json(output);
    json.beginObject().key("module").string(module.path);
    json.key("format").string(wordFor(module.format));
    json.key("architecture").string(wordFor(module.architecture));
    if (module.isGpuBinary) {
        json.key("kernel").stringOrNull(module.kernel.empty() ? nullptr : module.kernel.c_str());
        json.key("kernels").null();
    }
    json.key("loadAddress").hex(module.loadAddress);
    json.key("entryPoint").hex(module.entryPoint);
    json.key("imageSize").hex(module.imageSize);
    json.key("managed").boolean(module.isManaged).key("readyToRun").boolean(module.isReadyToRun);
    putSymbolFile(json, module);
    putCandidates(json, module);
    putSegments(json, module);
    putSections(json, module);
    json.endObject().endLine();
}

} // namespace

int runInfo(const InfoOptions& options) {
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    const ModuleDescription module = describe(session);
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printJson(output, module);
    else
        printText(output, module);
    return finish(output);
}

} // namespace orn_tool
