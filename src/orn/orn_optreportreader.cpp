// The compiler's optimisation reports. The bank asks the store, which reads the sections of the module, or
// else those of its symbol file, at the first query; the reader takes a section apart. A section holds
// annotation tables one behind the other, anything may lie between them, and of their entries two kinds are
// of use here. What the compiler writes inside a report is nobody's business here: it is passed on.

#include "orn_optreportreader.h"

#include "orn/address.h"
#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"
#include "orn_file.h"
#include "orn_log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

namespace ORN_3_30 {

namespace {

constexpr char sectionName[] = ".debug_opt_report";
constexpr char sectionNamePrefix[] = ".debug_opt_report.";
constexpr char quickPrefix[] = ".debug_o";

/// With its NUL.
constexpr char tableMagic[] = ".oml_notify_tab";
constexpr unsigned long long magicSize = sizeof(tableMagic);

constexpr char versionName[] = "optimization_report_version";
constexpr char reportName[] = "optimization_report";

/// What has to be left of a section for a table to be looked for, and of a table for an entry.
///
/// Quirk: each is a byte more than what is read.
constexpr unsigned long long smallestTable = 49;
constexpr unsigned long long smallestEntry = 17;

constexpr unsigned majorVersion = 1;

enum table_flag_t : unsigned {
    table_RelativeAnchors = 0x1, ///< anchors count from the table
    table_ShortAnchors = 0x4,    ///< anchors have 32 bits and a sign
    table_HoldsReports = 0x8
};

/// The only form of a value that there is.
constexpr unsigned valueForm = 0x10;

/// A value tells its length in one byte; the text that it unpacks to has some room beyond it.
constexpr std::size_t largestLength = 255;
constexpr std::size_t textRoom = 4;
/// Quirk: a shorter text is filled up with NULs to this.
constexpr std::size_t smallestText = 16;

constexpr unsigned char moreBytes = 0x80;
constexpr unsigned groupBits = 7;

bool holdsReports(const char* name) {
    if (std::strncmp(name, quickPrefix, sizeof(quickPrefix) - 1) != 0)
        return false;
    return std::strcmp(name, sectionName) == 0 ||
           std::strncmp(name, sectionNamePrefix, sizeof(sectionNamePrefix) - 1) == 0;
}

/// The sections whose names match.
///
/// A section carries a copy of its name, and names may share their bytes: a damaged file of a few megabytes
/// has gigabytes of names. The walk ends where they are far beyond what linkers make of shared tails.
template <typename Loader>
std::vector<SymMgrObjectPtr<ISection>> findSections(Loader& loader, unsigned long long fileBytes) {
    constexpr unsigned long long nameBytesPerFileByte = 16;
    std::vector<SymMgrObjectPtr<ISection>> sections;
    unsigned long long nameBytes = 0;
    for (unsigned index = 0; fileBytes == 0 || nameBytes / nameBytesPerFileByte <= fileBytes; ++index) {
        SymMgrObjectPtr<ISection> section;
        loader.getSectionByIndex(section, index);
        if (!section)
            break;
        const char* name = section->getName();
        nameBytes += std::strlen(name);
        if (holdsReports(name))
            sections.push_back(section);
    }
    return sections;
}

/// Only 16 bits are kept, so three bytes tell all; a damaged number may run on to the section's end.
unsigned short readVersion(SectionWalker& value) {
    unsigned version = 0;
    for (unsigned shift = 0; shift < 16 && value.remaining() > 0; shift += groupBits) {
        const unsigned char byte = value.readU8();
        version |= static_cast<unsigned>(byte & ~moreBytes) << shift;
        if (!(byte & moreBytes))
            break;
    }
    return static_cast<unsigned short>(version);
}

/// Unpacks groups of seven bits, low bits first, into bytes. A run that does not fit in the `size` bytes of
/// `area`, which are zero, loses what is too much; one that the section cuts off is taken as it is. Gives the
/// number of bytes that were touched.
std::size_t unpackText(SectionWalker& value, unsigned char* area, std::size_t size) {
    std::size_t touched = 0;
    for (std::size_t bit = 0; bit / 8 < size && value.remaining() > 0; bit += groupBits) {
        const unsigned char byte = value.readU8();
        const std::size_t place = bit / 8;
        const unsigned bits = static_cast<unsigned>(byte & ~moreBytes) << (bit % 8);
        area[place] |= static_cast<unsigned char>(bits);
        touched = place + 1;
        if (bit % 8 + groupBits > 8 && touched < size)
            area[touched++] |= static_cast<unsigned char>(bits >> 8);
        if (!(byte & moreBytes))
            break;
    }
    return touched;
}

} // namespace

struct OptReportReader::RawEntry {
    std::uint64_t anchor;
    std::uint32_t nameOffset;
    std::uint32_t valueOffset;
};

OptReportReader::OptReportReader(IBuffer* data, unsigned long long address)
    : SymMgrObject<IIterator<IOptReportEntry*>>(nullptr),
      m_data(data),
      m_address(address),
      m_walker(data ? data->data() : nullptr, data ? data->size() : 0),
      m_header(nullptr),
      m_tableOffset(0),
      m_entryIndex(0),
      m_version(0),
      m_current(nullptr),
      m_openHeader{},
      m_status(status_False) {}

void OptReportReader::reset() {
    m_walker.seek(0);
    m_header = nullptr;
    m_tableOffset = 0;
    m_entryIndex = 0;
    m_version = 0;
    m_entry = OptReportEntry();
    next();
}

bool OptReportReader::next() {
    const status_t st = advance();
    ORN_ASSERT((status_Ok == st) || (st == status_False));
    m_status = st;
    return st == status_Ok;
}

status_t OptReportReader::advance() {
    m_current = nullptr;
    if (!m_header && !findTable())
        return status_False;
    const status_t status = readReport();
    if (isFailure(status))
        leaveSection();
    return status;
}

/// Searches from the walker on. What is between tables, and what only looks like one, is stepped over.
bool OptReportReader::findTable() {
    while (m_walker.remaining() >= smallestTable) {
        const std::string_view rest(reinterpret_cast<const char*>(m_walker.cursor()),
                                    m_walker.remaining() - smallestTable + magicSize);
        const std::size_t distance = rest.find(std::string_view(tableMagic, magicSize));
        if (distance == std::string_view::npos)
            break;
        m_walker.skip(distance);
        if (openTable())
            return true;
    }
    leaveSection();
    return false;
}

/// A table that is of no use is left behind its header. Its header size may be 0, but the search goes on.
bool OptReportReader::openTable() {
    m_tableOffset = m_walker.offset();
    m_walker.skip(magicSize);
    m_openHeader.version = m_walker.readU16();
    m_openHeader.headerSize = m_walker.readU16();
    m_openHeader.entryCount = m_walker.readU32();
    m_openHeader.stringsOffset = m_walker.readU32();
    m_openHeader.stringsSize = m_walker.readU32();
    m_openHeader.valuesOffset = m_walker.readU32();
    m_openHeader.valuesSize = m_walker.readU32();
    m_openHeader.flags = m_walker.readU32();
    const bool isUseful =
        m_openHeader.version >> 8 == majorVersion && (m_openHeader.flags & table_HoldsReports);
    if (!isUseful) {
        m_walker.seek(m_tableOffset + std::max<unsigned>(m_openHeader.headerSize, 1));
        return false;
    }
    m_walker.seek(m_tableOffset + m_openHeader.headerSize);
    m_header = &m_openHeader;
    m_entryIndex = 0;
    return true;
}

/// The next table lies behind the values. Whatever the header says, what was read is not read again.
void OptReportReader::closeTable() {
    const unsigned long long behindValues = m_tableOffset + m_header->valuesOffset + m_header->valuesSize;
    m_walker.seek(std::max({behindValues, m_walker.offset(), m_tableOffset + magicSize}));
    m_header = nullptr;
    m_entryIndex = 0;
}

void OptReportReader::leaveSection() {
    m_walker.seek(m_walker.size());
    m_header = nullptr;
}

/// Quirk: a table that does not end in a report, or has no entries at all, gives the last report of the
/// section once more, or an empty one if there was none. Whoever keeps the reports has it twice.
status_t OptReportReader::readReport() {
    if (!ORN_ASSERT(m_header))
        return status_InvalidPointer;
    bool isReport = false;
    while (!isReport && m_entryIndex < m_header->entryCount) {
        const status_t status = readEntry(isReport);
        if (isFailure(status))
            return status;
    }
    if (m_entryIndex == m_header->entryCount)
        closeTable();
    m_current = &m_entry;
    return status_Ok;
}

status_t OptReportReader::readEntry(bool& isReport) {
    ++m_entryIndex;
    if (m_walker.remaining() < smallestEntry)
        return status_BadFileFormat;
    RawEntry entry{};
    entry.anchor = m_walker.readU64();
    entry.nameOffset = m_walker.readU32();
    entry.valueOffset = m_walker.readU32();
    EntryName name = EntryName::Other;
    status_t status = findName(entry, name);
    if (isFailure(status) || name == EntryName::Other)
        return status;
    SectionWalker value;
    unsigned length = 0;
    status = findValue(entry, value, length);
    if (isFailure(status))
        return status;
    if (name == EntryName::Version) {
        m_version = readVersion(value);
        return status_Ok;
    }
    status = readText(value, length);
    m_entry.setVersion(m_version);
    m_entry.setAddress(anchorOf(entry));
    isReport = true;
    return status;
}

status_t OptReportReader::findName(const RawEntry& entry, EntryName& name) const {
    const unsigned long long place = m_tableOffset + m_header->stringsOffset + entry.nameOffset;
    if (entry.nameOffset >= m_header->stringsSize || place >= m_walker.size())
        return status_BadFileFormat;
    if (isNameAt(place, versionName, sizeof(versionName)))
        name = EntryName::Version;
    else if (isNameAt(place, reportName, sizeof(reportName)))
        name = EntryName::Report;
    return status_Ok;
}

bool OptReportReader::isNameAt(unsigned long long place, const char* name, std::size_t sizeWithNul) const {
    return m_walker.size() - place >= sizeWithNul &&
           std::memcmp(m_walker.begin() + place, name, sizeWithNul) == 0;
}

/// Leaves `value` behind the length and the form. It runs to the section's end: neither the length nor the
/// size of the values limits it.
status_t OptReportReader::findValue(const RawEntry& entry, SectionWalker& value, unsigned& length) const {
    const unsigned long long place = m_tableOffset + m_header->valuesOffset + entry.valueOffset;
    if (entry.valueOffset >= m_header->valuesSize || place >= m_walker.size())
        return status_BadFileFormat;
    value = SectionWalker(m_walker.begin(), m_walker.size(), place);
    length = value.readU8();
    unsigned form = 0;
    if (length == 0 || isFailure(value.getUnsigned1(form)) || form != valueForm)
        return status_BadFileFormat;
    return status_Ok;
}

status_t OptReportReader::readText(SectionWalker& value, unsigned length) {
    std::array<unsigned char, largestLength + textRoom> area{};
    const std::size_t touched = unpackText(value, area.data(), std::max(length + textRoom, smallestText));
    const std::size_t size = std::max(touched, smallestText);
    try {
        m_entry.setText(reinterpret_cast<const char*>(area.data()), size);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("can't allocate memory: " << size);
        return status_OutOfMemory;
    }
    return status_Ok;
}

unsigned long long OptReportReader::anchorOf(const RawEntry& entry) const {
    unsigned long long anchor = entry.anchor;
    if (m_header->flags & table_ShortAnchors)
        anchor = static_cast<unsigned long long>(
            static_cast<long long>(static_cast<std::int32_t>(static_cast<std::uint32_t>(anchor))));
    if (m_header->flags & table_RelativeAnchors)
        anchor += m_tableOffset + m_address;
    // Quirk: only reported, though the upper half of the address space is a place like any other.
    ORN_ASSERT_TEXT(static_cast<long long>(anchor) >= 0, "anchor_address >= 0");
    return anchor;
}

// OptReportStorage

OptReportStorage::OptReportStorage(IFileFormatLoader* formatLoader, IDebugInfoLoader* debugInfoLoader)
    : m_formatLoader(formatLoader), m_debugInfoLoader(debugInfoLoader), m_isRead(false) {}

status_t OptReportStorage::reports(SymMgrObjectPtr<IIterator<IOptReportEntry*>>& out,
                                   const SymMgrObjectPtr<IAddress>& begin, unsigned long long size) {
    ensureRead();
    if (m_reports.empty())
        return status_False;
    const unsigned long long low = begin ? begin->pseudoAddr() : 0;
    // Quirk: the limit is exclusive and a sum that does not fit becomes the begin, so a range up to the very
    // end of the address space holds nothing, and no range holds the last address.
    const unsigned long long limit = std::max(low, begin ? low + size : ~0ULL);
    out = new OptReportStorageIterator(this, low, limit);
    return out->current() ? status_Ok : status_False;
}

status_t OptReportStorage::reportAt(const SymMgrObjectPtr<IAddress>& address, IOptReportEntry*& out) {
    if (!address)
        return status_False;
    ensureRead();
    const unsigned long long wanted = address->pseudoAddr();
    // Not find(), which may give any of those that share an address.
    const auto first = m_reports.lower_bound(wanted);
    if (first == m_reports.end() || first->first != wanted)
        return status_False;
    out = &first->second;
    return status_Ok;
}

/// Once, whatever comes of it: what is broken stays broken.
void OptReportStorage::ensureRead() {
    if (m_isRead)
        return;
    m_isRead = true;
    const bool found = m_formatLoader && readSectionsOf(*m_formatLoader);
    if (!found && m_debugInfoLoader)
        readSectionsOf(*m_debugInfoLoader);
}

/// Gives whether there was a section of reports, read or not.
template <typename Loader>
bool OptReportStorage::readSectionsOf(Loader& loader) {
    const unsigned long long fileBytes = fileSize(loader.getPath());
    const std::vector<SymMgrObjectPtr<ISection>> sections = findSections(loader, fileBytes);
    // Sections do not share bytes, so all of them together are no larger than their file. Headers that say
    // otherwise are damaged; thousands of them may name the same bytes, and the budget ends that.
    unsigned long long left = fileBytes != 0 ? fileBytes : ~0ULL;
    for (const SymMgrObjectPtr<ISection>& section : sections) {
        if (section->getSize() > left)
            continue;
        left -= section->getSize();
        SymMgrObjectPtr<IBuffer> data;
        if (section->read(data) == status_Ok && data)
            readSection(data, section->getAddress());
    }
    return !sections.empty();
}

void OptReportStorage::readSection(IBuffer* data, unsigned long long address) {
    const SymMgrObjectPtr<OptReportReader> reader = new OptReportReader(data, address);
    reader->reset();
    while (IOptReportEntry* entry = reader->current()) {
        m_reports.emplace(entry->address(), *static_cast<OptReportEntry*>(entry));
        reader->next();
    }
    const status_t st = reader->status();
    ORN_ASSERT(status_False == st);
}

// OptReportStorageIterator

OptReportStorageIterator::OptReportStorageIterator(OptReportStorage* storage, unsigned long long begin,
                                                   unsigned long long limit)
    : SymMgrObject<IIterator<IOptReportEntry*>>(nullptr), m_storage(storage), m_limit(limit), m_begin(begin) {
    if (!ORN_ASSERT(m_storage))
        return;
    m_cursor = m_storage->m_reports.lower_bound(m_begin);
    stopAtLimit();
}

void OptReportStorageIterator::stopAtLimit() {
    if (m_cursor != m_storage->m_reports.end() && m_cursor->first >= m_limit)
        m_cursor = m_storage->m_reports.end();
}

IOptReportEntry* OptReportStorageIterator::current() {
    if (!m_storage || m_cursor == m_storage->m_reports.end())
        return nullptr;
    return &m_cursor->second;
}

bool OptReportStorageIterator::next() {
    if (!current())
        return false;
    ++m_cursor;
    stopAtLimit();
    return current() != nullptr;
}

void OptReportStorageIterator::reset() {
    if (!m_storage)
        return;
    m_cursor = m_storage->m_reports.lower_bound(m_begin);
    stopAtLimit();
}

} // namespace ORN_3_30
