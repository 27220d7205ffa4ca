// The line number program of one unit, run into a line resolver.
#ifndef ORN_DILDWARF_LINES_H
#define ORN_DILDWARF_LINES_H

#include "orn_dil.h"
#include "orn_dildwarf_unit.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ORN_3_30 {

/// The line resolver of a DWARF loader: it owns the line table that its units' programs fill.
class DWARFLineResolver : public LineResolver {
public:
    /// All but `loader` may be null; borrowed as LineResolver says.
    DWARFLineResolver(IFileFormatLoader& loader, IDebugInfoLoader* debugLoader, IScope* scope,
                      ILock* loadLock);

    void addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                      unsigned long long address, unsigned long long size, unsigned long long extra) override;
};

/// The registers of a line program; a value in the caller's frame. The first group comes from the header and
/// does not change while the program runs.
struct DWARFLineState {
    std::uint8_t minimumInstructionLength = 0;
    std::uint8_t defaultIsStmt = 0;
    std::int8_t lineBase = 0;
    std::uint8_t lineRange = 0;
    std::uint8_t opcodeBase = 0;
    SectionWalker walker; ///< over the program, ending at the unit's end

    unsigned long long address = 0;
    unsigned long long file = 1;
    unsigned long long line = 1;
    unsigned long long column = 0;
    unsigned long long discriminator = 0;
    bool isStmt = false;
    bool basicBlock = false;
    bool endSequence = false;
    bool rowPending = false;   ///< a row was delivered: the next step clears what belongs to one row
    bool resetPending = false; ///< a sequence ended: the next step begins a new one

    /// Gives every register its value at the start of a sequence.
    void restart();
};

/// One run of a unit's line program: header, files, rows. Made and dropped by
/// DWARFCompilationUnit::loadLines, under the unit's lock.
class DWARFLineProgram {
public:
    /// The unit has a line resolver, and `.debug_line` its `stmtList`. `ranges` may be null.
    DWARFLineProgram(DWARFCompilationUnit& unit, RangeFilter* ranges);

    /// Reads the header with its directories and files. A failure is that of a version that is not read, or
    /// of a program that units have run too often.
    status_t readHeader();
    /// Runs all rows into the line resolver.
    void runRows();

    /// Runs opcodes until a row is ready (true) or the bytes run out (false).
    bool step();
    /// Reads one file entry and registers its path. False at an empty name if `stopOnEmpty`.
    bool addFile(SectionWalker& walker, bool stopOnEmpty);

    const DWARFLineState& state() const { return m_state; }

private:
    /// What a special opcode adds; a division for each row would cost more than the row.
    struct Special {
        std::int16_t line;
        std::uint8_t instructions;
    };
    /// The registers of the row before, which a row makes a range of.
    struct Row {
        unsigned long long address;
        unsigned long long file;
        unsigned long long line;
        unsigned long long column;
        unsigned long long discriminator;
    };

    bool readLength(SectionWalker& walker) const;
    void readFixedFields(SectionWalker& walker, std::uint32_t version);
    void readIncludeDirs(SectionWalker& walker);
    void tabulateSpecials();
    void runExtended(const SectionWalker& position);
    void addRange(const Row& row, unsigned long long size);
    const std::string& directoryAt(unsigned long long index);
    void joinDirectory(unsigned long long index, std::string& out);
    const std::string& compilationDirectory();
    bool affordsDirectory(const std::string& directory);

    DWARFCompilationUnit& m_unit;
    LineResolver& m_resolver;
    RangeFilter* m_ranges;
    IFileFormatHelper& m_helper;
    std::array<Special, 256> m_specials; ///< by opcode
    DWARFLineState m_state;
    std::optional<std::string> m_compilationDirectory; ///< at most so much of it that it shows to be too long
    std::vector<std::string> m_directories; ///< joined with the compilation directory, by index; filled late
    std::vector<bool> m_hasDirectory;
    std::string m_name; ///< kept for their memory
    std::string m_path;
};

} // namespace ORN_3_30

#endif
