// The parsers that are fed hostile bytes. Each function takes any input whatever and must come back: the fuzz
// programs call one of them, the tests replay the corpus through all.
#ifndef ORN_FUZZ_TARGETS_H
#define ORN_FUZZ_TARGETS_H

#include <cstddef>
#include <cstdint>

namespace orn_fuzz {

void cfi(const std::uint8_t* data, std::size_t size);
void elf(const std::uint8_t* data, std::size_t size);
void pe(const std::uint8_t* data, std::size_t size);
void filename(const std::uint8_t* data, std::size_t size);
void demangler(const std::uint8_t* data, std::size_t size);
void section_data(const std::uint8_t* data, std::size_t size);
void optreport(const std::uint8_t* data, std::size_t size);
void systemmap(const std::uint8_t* data, std::size_t size);
void tav(const std::uint8_t* data, std::size_t size);
void lun(const std::uint8_t* data, std::size_t size);
void oat(const std::uint8_t* data, std::size_t size);
void dex(const std::uint8_t* data, std::size_t size);
void dwarf_info(const std::uint8_t* data, std::size_t size);
void dwarf_line(const std::uint8_t* data, std::size_t size);
void dwarf_ranges(const std::uint8_t* data, std::size_t size);

struct Target {
    const char* name; ///< also the folder of its corpus
    void (*run)(const std::uint8_t* data, std::size_t size);
};

inline constexpr Target targets[] = {
    {"cfi", cfi},
    {"elf", elf},
    {"pe", pe},
    {"filename", filename},
    {"demangler", demangler},
    {"section_data", section_data},
    {"optreport", optreport},
    {"systemmap", systemmap},
    {"tav", tav},
    {"lun", lun},
    {"oat", oat},
    {"dex", dex},
    {"dwarf_info", dwarf_info},
    {"dwarf_line", dwarf_line},
    {"dwarf_ranges", dwarf_ranges},
};

} // namespace orn_fuzz

#endif
