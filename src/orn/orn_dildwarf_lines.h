// The line number program of one unit, run into a line resolver.
#ifndef ORN_DILDWARF_LINES_H
#define ORN_DILDWARF_LINES_H

#include "orn_dildwarf_unit.h"

#include <cstdint>

namespace ORN_3_30 {

class LineResolver;

/// The registers of a line program; a value in the caller's frame. The first group does not change while a
/// program runs.
struct DWARFLineState {
    std::uint8_t minimumInstructionLength = 0;
    std::uint8_t defaultIsStmt = 0;
    std::int8_t lineBase = 0;
    std::uint8_t lineRange = 0;
    std::uint8_t opcodeBase = 0;
    SectionWalker walker; ///< over the program, ending at the unit's end
    DWARFCompilationUnit* unit = nullptr;

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
/// DWARFCompilationUnit::loadLines.
class DWARFLineProgram {
public:
    /// The unit's line resolver must be set. `ranges` may be null.
    DWARFLineProgram(DWARFCompilationUnit& unit, RangeFilter* ranges);

    /// Reads the header and runs all rows. A status other than `status_Ok` is the run's outcome; only one
    /// that says so in `isFinal` is to be remembered.
    status_t run(bool& isFinal);

    /// Runs opcodes until a row is ready (true) or the bytes run out (false).
    static bool step(DWARFLineState& state, LineResolver& resolver);
    /// Reads one file entry and registers its path. False at an empty name if `stopOnEmpty`.
    static bool addFile(SectionWalker& walker, DWARFCompilationUnit& unit, LineResolver& resolver,
                        bool stopOnEmpty);

private:
    bool readLength();
    status_t readHeader();
    void readIncludeDirs();
    void runRows();
    void addRange(const DWARFLineState& row, const DWARFLineState& next);

    DWARFCompilationUnit& m_unit;
    RangeFilter* m_ranges;
    SectionWalker m_walker; ///< over the unit's part of `.debug_line`, behind the length
    bool m_is64Bit = false;
    DWARFLineState m_start;
};

} // namespace ORN_3_30

#endif
