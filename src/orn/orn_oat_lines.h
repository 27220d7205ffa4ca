// From the native addresses of compiled managed code to lines of its source.
#ifndef ORN_OAT_LINES_H
#define ORN_OAT_LINES_H

#include "orn/buffer.h"
#include "orn/status.h"
#include "orn_oat_budget.h"
#include "orn_walker.h"

#include <cstdint>
#include <map>
#include <set>

namespace ORN_3_30 {

class DexLoader;
class OATSrcLineResolver;

/// Native offsets, from the container's start.
struct DexToNativeRange {
    unsigned long long start;
    unsigned long long end;
};

/// Which native offset belongs to which place in the dex code of one method. There are two tables, made for
/// the two directions, and both are read into the one map.
class OatMappingTable {
public:
    using Map = std::map<std::uint32_t, DexToNativeRange>; ///< by dex pc

    /// `codeOffset` as stored, the Thumb bit included: what the native offsets start from.
    OatMappingTable(IBuffer* buffer, std::uint32_t codeOffset, long long version);

    /// Where the table lies, from the container's start; 0: there is none.
    void setOffset(std::uint32_t offset) { m_offset = offset; }
    std::uint32_t offset() const { return m_offset; }
    /// Once; later calls do nothing. `status_False` if there is no table. What was read in front of a failure
    /// stays.
    status_t readMappingTable(OatBudget& budget);
    const Map& map() const { return m_map; }

private:
    status_t readSizes(SectionWalker& walker);
    status_t readEntries(SectionWalker& walker, std::uint32_t count, OatBudget& budget);

    std::uint32_t m_offset = 0;
    std::uint32_t m_totalSize = 0; ///< entries of both tables
    std::uint32_t m_nativeToDexSize = 0;
    std::uint32_t m_codeOffset;
    bool m_read = false;
    Map m_map;
    SymMgrObjectPtr<IBuffer> m_buffer;
    long long m_version;
};

/// State of the walk over one method, which goes through its mapping table and its line program side by side.
struct MethodLineContext {
    static constexpr std::uint32_t none = 0xFFFFFFFF;

    MethodLineContext(OATSrcLineResolver& resolver, const OatMappingTable::Map& map);

    std::uint32_t m_fileId = none; ///< while there is none no line is entered
    OATSrcLineResolver& m_resolver;
    OatMappingTable::Map::const_iterator m_cursor;
    OatMappingTable::Map::const_iterator m_end;
    std::uint32_t m_dexPc; ///< of the cursor
    std::uint32_t m_currentLine = none;
    std::uint32_t m_firstLine = none;
    std::uint32_t m_executableOffset = 0;
    unsigned long long m_executableAddress = 0; ///< where the code at m_executableOffset is loaded
    unsigned long long m_methodAddress = 0;
    unsigned long long m_methodSize = 0;
    std::set<unsigned long long> m_covered; ///< native addresses that have a line
};

/// Goes on to `dexPc`: what lies in front of it has the current line, and it has `line` itself.
void addLine(MethodLineContext& context, std::uint32_t dexPc, std::uint32_t line);

/// Gives what the mapping table says nothing about to the first line of the method.
void finishMethod(MethodLineContext& context);

/// Runs the line program at `debugInfoOffset` of the dex file. Its lines start in the source file of the
/// class.
status_t runLineMachine(const DexLoader& dexLoader, std::uint32_t debugInfoOffset, std::uint32_t classIndex,
                        MethodLineContext& context, OatBudget& budget);

} // namespace ORN_3_30

#endif
