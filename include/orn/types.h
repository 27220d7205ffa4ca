// Enumerations that several interfaces share.
#ifndef ORN_TYPES_H
#define ORN_TYPES_H

#include "orn/export.h"

#include <cstdint>

namespace ORN_3_30 {

/// Container format of a module file.
enum exec_format_t : std::uint32_t {
    exec_format_pe = 1,
    exec_format_elf = 2,
    exec_format_gpu = 4 ///< GPU kernel binary
};

/// Processor a module is made for.
enum arch_t : std::int32_t {
    arch_unknown = 0,
    arch_ia32 = 1,
    arch_itanium = 2,
    arch_x86_64 = 3,
    arch_arm = 4,
    arch_arm_thumb = 5,     ///< PE only
    arch_coprocessor_1 = 6, ///< ELF machine 180
    arch_coprocessor_2 = 7, ///< ELF machine 181
    arch_gpu_tav_first = 8, ///< the older GPU compiler alone
    arch_gpu_either = 9,    ///< either GPU compiler; the symbol file's format version tells
    arch_gpu_lun_first = 10,
    arch_gpu_lun_last = 15
};

/// What a symbol is. The values are single bits, so the type is a mask in queries and loads too. A mask says
/// both what to look for and what has to be read for it.
enum symbol_kind_t : std::uint32_t {
    symbol_kind_none = 0, ///< as a mask in IScope::symbolRanges: the kinds already loaded
    symbol_kind_function = 1,
    symbol_kind_label = 2,
    symbol_kind_variable = 4,
    symbol_kind_other = 8,
    symbol_kind_entry_point = 16,
    symbol_kind_code = 27,        ///< mask: every kind except `symbol_kind_variable`
    symbol_kind_all = 0xFFFFFFFFu ///< mask: everything
};

constexpr symbol_kind_t operator|(symbol_kind_t a, symbol_kind_t b) noexcept {
    return static_cast<symbol_kind_t>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}
constexpr symbol_kind_t operator&(symbol_kind_t a, symbol_kind_t b) noexcept {
    return static_cast<symbol_kind_t>(static_cast<std::uint32_t>(a) & static_cast<std::uint32_t>(b));
}
constexpr symbol_kind_t operator~(symbol_kind_t a) noexcept {
    return static_cast<symbol_kind_t>(~static_cast<std::uint32_t>(a));
}
constexpr symbol_kind_t& operator|=(symbol_kind_t& a, symbol_kind_t b) noexcept {
    return a = a | b;
}

/// How far a symbol is visible. The greater value wins where two symbols compete.
enum symbol_visibility_t : std::uint32_t { symbol_visibility_local = 1, symbol_visibility_global = 2 };

/// Rank of a kind where symbols compete for an address: the smaller number is the stronger symbol. Any value
/// that is not one single kind has rank 10.
ORN_API unsigned symbolPriorityByKind(symbol_kind_t kind);

/// Format of a symbol file: what a candidate reports and what a debug info loader reads.
enum symbol_file_type_t : std::uint32_t {
    symbol_file_none = 0,
    symbol_file_dwarf = 1,
    symbol_file_kernel_map = 4,
    symbol_file_oat = 5,
    symbol_file_gpu_tav = 6, ///< GPU debug file of the older compiler
    symbol_file_gpu_lun = 7  ///< GPU debug file of the newer compiler
};

/// Sections that the debug information readers ask for by number. The numbers are fixed.
enum section_kind_t : std::uint32_t {
    section_debug_info = 0,
    section_debug_abbrev = 1,
    section_debug_str = 2,
    section_debug_line = 3,
    section_debug_ranges = 4,
    section_debug_loc = 5,
    section_note_gnu_build_id = 6,
    section_gnu_debuglink = 7,
    section_eh_frame = 8
};

/// Source language of a compilation unit. 2 is a hole that stays.
enum language_t : std::uint32_t {
    language_Ada = 1,
    language_C = 3,
    language_Cplusplus = 4,
    language_Fortran = 5
};

} // namespace ORN_3_30

#endif
