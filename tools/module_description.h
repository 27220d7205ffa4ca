// Everything that "orn info" tells of a module.
#ifndef ORN_TOOLS_MODULE_DESCRIPTION_H
#define ORN_TOOLS_MODULE_DESCRIPTION_H

#include "module_session.h"

#include <optional>
#include <string>
#include <vector>

namespace orn_tool {

struct SegmentDescription {
    std::string name;
    unsigned kind;              ///< the format's own number
    bool isCode;                ///< as far as the number tells
    unsigned long long address; ///< pseudo address
    unsigned long long memorySize;
    unsigned long long fileOffset;
    unsigned long long fileSize;
};

struct SectionDescription {
    std::string name;
    unsigned long long address; ///< pseudo address; 0 if it is not loaded
    unsigned long long size;
    std::optional<unsigned long long> fileOffset; ///< none if it has no bytes in the file
};

struct SymbolFileDescription {
    std::string path;
    unsigned type; ///< symbol_file_type_t
};

struct ModuleDescription {
    std::string path; ///< as the library has it
    ORN_3_30::exec_format_t format;
    ORN_3_30::arch_t architecture;
    /// Of one only the kernel that was asked for is known: no interface of the library lists the others.
    bool isGpuBinary;
    std::string kernel;
    unsigned long long loadAddress;
    std::optional<unsigned long long> entryPoint; ///< pseudo address
    unsigned long long imageSize;
    bool isManaged;    ///< carries byte code of a managed runtime
    bool isReadyToRun; ///< and native code beside it
    std::vector<SegmentDescription> segments;
    std::vector<SectionDescription> sections;
    std::optional<SymbolFileDescription> symbolFile;
    std::vector<Candidate> candidates;
};

ModuleDescription describe(const ModuleSession& session);

} // namespace orn_tool

#endif
