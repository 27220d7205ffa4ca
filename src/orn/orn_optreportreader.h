// The compiler's optimisation reports that a module carries: the reader of one section, and the store of all.
#ifndef ORN_OPTREPORTREADER_H
#define ORN_OPTREPORTREADER_H

#include "orn/buffer.h"
#include "orn/iterator.h"
#include "orn/opt_report.h"
#include "orn/status.h"
#include "orn_walker.h"

#include <map>
#include <string>

namespace ORN_3_30 {

class IAddress;
class IDebugInfoLoader;
class IFileFormatLoader;

/// One report, by value.
class OptReportEntry final : public IOptReportEntry {
public:
    unsigned short version() override { return m_version; }
    unsigned long long address() override { return m_address; }
    const char* text(unsigned long long& size) override {
        size = m_text.size();
        return m_text.data();
    }

    void setVersion(unsigned short version) { m_version = version; }
    void setAddress(unsigned long long address) { m_address = address; }
    void setText(const char* text, std::size_t size) { m_text.assign(text, size); }

private:
    unsigned short m_version = 0;
    unsigned long long m_address = 0; ///< pseudo address
    std::string m_text;
};

/// Walks the reports of one section, table by table. It stands nowhere until reset() is called, and the entry
/// that it gives is overwritten by next(). Every step goes on by at least one byte of the section.
class OptReportReader : public SymMgrObject<IIterator<IOptReportEntry*>> {
public:
    /// `address` is that of the section, a pseudo address.
    OptReportReader(IBuffer* data, unsigned long long address);

    IOptReportEntry* current() override { return m_current; }
    bool next() override;
    void reset() override;

    /// Of the last step. `status_False`: the section ended; a failure: it was left at a broken table.
    status_t status() const { return m_status; }

protected:
    /// Reads entries of the open table up to the next report.
    status_t readReport();

private:
    /// The head of an annotation table; offsets count from the table's start.
    struct TableHeader {
        std::uint16_t version;
        std::uint16_t headerSize;
        std::uint32_t entryCount;
        std::uint32_t stringsOffset;
        std::uint32_t stringsSize;
        std::uint32_t valuesOffset;
        std::uint32_t valuesSize;
        std::uint32_t flags;
    };
    enum class EntryName { Version, Report, Other };
    struct RawEntry;

    status_t advance();
    bool findTable();
    bool openTable();
    void closeTable();
    void leaveSection();
    status_t readEntry(bool& isReport);
    status_t findName(const RawEntry& entry, EntryName& name) const;
    bool isNameAt(unsigned long long place, const char* name, std::size_t sizeWithNul) const;
    status_t findValue(const RawEntry& entry, SectionWalker& value, unsigned& length) const;
    status_t readText(SectionWalker& value, unsigned length);
    unsigned long long anchorOf(const RawEntry& entry) const;

    SymMgrObjectPtr<IBuffer> m_data;
    unsigned long long m_address;
    SectionWalker m_walker;
    const TableHeader* m_header; ///< null between tables
    unsigned long long m_tableOffset;
    unsigned m_entryIndex;      ///< of the next entry
    unsigned short m_version;   ///< for the reports that follow
    OptReportEntry m_entry;     ///< the one that is given, again and again
    IOptReportEntry* m_current; ///< null if there is none
    TableHeader m_openHeader;   ///< what m_header points to
    status_t m_status;
};

/// All reports of a module, by address, read at the first query. Not guarded: the first query must not race
/// with another one.
class OptReportStorage {
public:
    /// Equal addresses are all kept, in the order of reading.
    using Reports = std::multimap<unsigned long long, OptReportEntry>;

    /// Both loaders are borrowed; `debugInfoLoader` may be null.
    OptReportStorage(IFileFormatLoader* formatLoader, IDebugInfoLoader* debugInfoLoader);

    /// Reports anchored in [begin, begin + size). A null `begin` is the whole store.
    status_t reports(SymMgrObjectPtr<IIterator<IOptReportEntry*>>& out,
                     const SymMgrObjectPtr<IAddress>& begin, unsigned long long size);
    /// The first report at exactly that address, borrowed.
    status_t reportAt(const SymMgrObjectPtr<IAddress>& address, IOptReportEntry*& out);

private:
    friend class OptReportStorageIterator;

    void ensureRead();
    template <typename Loader>
    bool readSectionsOf(Loader& loader);
    void readSection(IBuffer* data, unsigned long long address);

    Reports m_reports;
    IFileFormatLoader* m_formatLoader;
    IDebugInfoLoader* m_debugInfoLoader;
    bool m_isRead;
};

/// Walks a store in the order of addresses.
class OptReportStorageIterator : public SymMgrObject<IIterator<IOptReportEntry*>> {
public:
    /// The reports from `begin` on, below `limit`. The store is borrowed; one of null is reported and empty.
    OptReportStorageIterator(OptReportStorage* storage, unsigned long long begin, unsigned long long limit);

    IOptReportEntry* current() override;
    bool next() override;
    void reset() override;

private:
    using Cursor = OptReportStorage::Reports::iterator;

    void stopAtLimit();

    OptReportStorage* m_storage;
    Cursor m_cursor;
    unsigned long long m_limit; ///< exclusive
    unsigned long long m_begin;
};

} // namespace ORN_3_30

#endif
