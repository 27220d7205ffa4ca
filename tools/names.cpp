// Words for the library's enumerations, one table each. A value that is not in its table is "unknown": newer
// libraries may know more than this program.

#include "names.h"

namespace orn_tool {

using ORN_3_30::arch_t;
using ORN_3_30::exec_format_t;
using ORN_3_30::language_t;
using ORN_3_30::symbol_kind_t;
using ORN_3_30::symbol_visibility_t;
using enum ORN_3_30::arch_t;
using enum ORN_3_30::exec_format_t;
using enum ORN_3_30::language_t;
using enum ORN_3_30::symbol_file_type_t;
using enum ORN_3_30::symbol_kind_t;
using enum ORN_3_30::symbol_visibility_t;

const char* wordFor(symbol_kind_t kind) {
    switch (kind) {
    case symbol_kind_function:
        return "function";
    case symbol_kind_label:
        return "label";
    case symbol_kind_variable:
        return "variable";
    case symbol_kind_other:
        return "other";
    case symbol_kind_entry_point:
        return "entry-point";
    default:
        return "unknown";
    }
}

const char* wordFor(symbol_visibility_t visibility) {
    switch (visibility) {
    case symbol_visibility_local:
        return "local";
    case symbol_visibility_global:
        return "global";
    }
    return "unknown";
}

const char* wordFor(exec_format_t format) {
    switch (format) {
    case exec_format_pe:
        return "pe";
    case exec_format_elf:
        return "elf";
    case exec_format_gpu:
        return "gpu";
    }
    return "unknown";
}

const char* wordFor(arch_t architecture) {
    switch (architecture) {
    case arch_ia32:
        return "ia32";
    case arch_itanium:
        return "itanium";
    case arch_x86_64:
        return "x86-64";
    case arch_arm:
        return "arm";
    case arch_arm_thumb:
        return "arm-thumb";
    case arch_coprocessor_1:
    case arch_coprocessor_2:
        return "coprocessor";
    default:
        return architecture >= arch_gpu_tav_first && architecture <= arch_gpu_lun_last ? "gpu" : "unknown";
    }
}

const char* wordFor(language_t language) {
    switch (language) {
    case language_Ada:
        return "ada";
    case language_C:
        return "c";
    case language_Cplusplus:
        return "c++";
    case language_Fortran:
        return "fortran";
    }
    return "unknown";
}

const char* wordForSymbolFile(unsigned type) {
    switch (type) {
    case symbol_file_none:
        return "none";
    case symbol_file_dwarf:
        return "dwarf";
    case symbol_file_kernel_map:
        return "kernel-map";
    case symbol_file_oat:
        return "oat";
    case symbol_file_gpu_tav:
    case symbol_file_gpu_lun:
        return "gpu";
    default:
        return "unknown";
    }
}

const char* wordForCandidate(unsigned state) {
    switch (state) {
    case 0:
        return "not set up";
    case 1:
        return "usable";
    case 2:
        return "no debug information in the module";
    case 3:
        return "checksum differs";
    case 4:
        return "to be searched for";
    default:
        return "unknown";
    }
}

namespace {
constexpr arch_t namedArchitectures[] = {arch_ia32, arch_x86_64, arch_arm};
}

const std::vector<std::string>& architectureWords() {
    static const std::vector<std::string> words = [] {
        std::vector<std::string> all;
        for (const arch_t architecture : namedArchitectures)
            all.emplace_back(wordFor(architecture));
        for (unsigned number = arch_gpu_tav_first; number <= arch_gpu_lun_last; ++number)
            all.push_back(std::to_string(number));
        return all;
    }();
    return words;
}

arch_t architectureFor(const std::string& word) {
    for (const arch_t architecture : namedArchitectures)
        if (word == wordFor(architecture))
            return architecture;
    for (unsigned number = arch_gpu_tav_first; number <= arch_gpu_lun_last; ++number)
        if (word == std::to_string(number))
            return static_cast<arch_t>(number);
    return arch_unknown;
}

const std::vector<std::string>& kindWords() {
    static const std::vector<std::string> words = {"function",    "label", "variable", "other",
                                                   "entry-point", "code",  "all"};
    return words;
}

symbol_kind_t kindMask(const std::string& word) {
    for (const symbol_kind_t kind : {symbol_kind_function, symbol_kind_label, symbol_kind_variable,
                                     symbol_kind_other, symbol_kind_entry_point})
        if (word == wordFor(kind))
            return kind;
    return word == "code" ? symbol_kind_code : symbol_kind_all;
}

} // namespace orn_tool
