// The ELF objects inside the newer GPU compiler's debug files: DWARF whose addresses are instructions of a
// virtual machine.
#pragma once

#include "dwarf_assembler.h"
#include "elf_assembler.h"
#include "orn_dildwarf_constants.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orn_test {

/// One unit with files, rows and functions.
struct MiraObject {
    struct Row {
        uint64_t address;
        unsigned line;
        unsigned file = 1; ///< as DWARF counts
        unsigned column = 0;
    };
    struct Function {
        std::string name;
        uint64_t low;
        uint64_t size;
    };

    std::vector<std::string> files = {"/src/a.cl"};
    std::vector<Row> rows;
    std::vector<Function> functions;
    uint64_t end = 0x40; ///< of the code
    bool hasLines = true;

    std::vector<uint8_t> build() const {
        using namespace ORN_3_30;
        DwarfAssembler dwarf;
        writeLines(dwarf);
        dwarf.abbreviation(1, DW_TAG_compile_unit, true,
                           hasLines ? std::vector<DwarfSpec>{{DW_AT_name, DW_FORM_string},
                                                             {DW_AT_stmt_list, DW_FORM_sec_offset}}
                                    : std::vector<DwarfSpec>{{DW_AT_name, DW_FORM_string}});
        dwarf.abbreviation(
            2, DW_TAG_subprogram, false,
            {{DW_AT_name, DW_FORM_string}, {DW_AT_low_pc, DW_FORM_addr}, {DW_AT_high_pc, DW_FORM_data4}});
        dwarf.endAbbreviations();
        dwarf.beginUnit();
        dwarf.entry(1, hasLines ? std::vector<DwarfValue>{"a.cl", 0} : std::vector<DwarfValue>{"a.cl"});
        for (const Function& function : functions)
            dwarf.entry(2, {function.name.c_str(), function.low, function.size});
        dwarf.null().endUnit();

        ElfAssembler elf(ElfClass::k64, EM_X86_64, ET_REL);
        elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).zeros(end);
        dwarf.addTo(elf);
        return elf.build();
    }

private:
    void writeLines(DwarfAssembler& dwarf) const {
        using namespace ORN_3_30;
        dwarf.beginLines().endIncludeDirectories();
        for (const std::string& file : files)
            dwarf.file(file);
        dwarf.endFiles();
        unsigned line = 1;
        for (const Row& row : rows) {
            dwarf.setAddress(row.address).opULEB(DW_LNS_set_file, row.file);
            dwarf.opULEB(DW_LNS_set_column, row.column);
            dwarf.opSLEB(DW_LNS_advance_line, static_cast<int64_t>(row.line) - line).op(DW_LNS_copy);
            line = row.line;
        }
        dwarf.setAddress(end).endSequence().endLines();
    }
};

} // namespace orn_test
