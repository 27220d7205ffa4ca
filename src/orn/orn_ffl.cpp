// What all format loaders share: the maps of segments and sections with their lookups, raw reads of the
// module's file, and the lists of candidates and debug info loaders. The loaders of the formats derive from
// it; the manager, the bank and the readers of debug information call it. It knows no format and parses
// nothing.

#include "orn_ffl.h"

#include "orn_address.h"
#include "orn_buffer.h"
#include "orn_containers.h"
#include "orn_ffl_arith.h"
#include "orn_ffl_registry.h"
#include "orn_file.h"
#include "orn_log.h"

#include <atomic>
#include <iterator>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>

#include <sys/stat.h>

namespace ORN_3_30 {

namespace internal {

namespace {
/// Constant-initialised, so that it stands before any static initialiser sets it.
constinit std::atomic<ReleaseFormatLoader> s_releaseFormatLoader{nullptr};
} // namespace

void setReleaseFormatLoader(ReleaseFormatLoader release) noexcept {
    s_releaseFormatLoader = release;
}

ReleaseFormatLoader releaseFormatLoader() noexcept {
    return s_releaseFormatLoader;
}

} // namespace internal

namespace {

using internal::saturatingSum;

const char* textOf(const char* text) {
    return text ? text : "";
}

/// Whether the new interval at `key` meets the one that exists. Touching at either end is no overlap, and the
/// differences are taken so that an interval may reach past the largest address.
bool overlap(unsigned long long existingKey, unsigned long long existingSize, unsigned long long key,
             unsigned long long size) {
    if (existingKey > key)
        return existingKey - key < size;
    return key - existingKey < existingSize || (existingKey == key && size != 0);
}

/// Whether the new interval at `key` meets one of `intervals`, which do not meet each other: then the one at
/// or before `key` and the one behind it decide.
template <typename Map, typename SizeOf>
bool overlapsAny(const Map& intervals, unsigned long long key, unsigned long long size, SizeOf sizeOf) {
    const auto behind = intervals.upper_bound(key);
    if (behind != intervals.end() && overlap(behind->first, sizeOf(behind->second), key, size))
        return true;
    if (behind == intervals.begin())
        return false;
    const auto before = std::prev(behind);
    return overlap(before->first, sizeOf(before->second), key, size);
}

/// The element of the map with the greatest key not above `address`, if `address` is at most its end.
///
/// Quirk: the end is inclusive, so that an address one past the end still finds what it ends.
template <typename Element, typename SizeOf>
Element* findHolder(const std::map<unsigned long long, Element*>& elements, unsigned long long address,
                    SizeOf sizeOf) {
    const auto behind = elements.upper_bound(address);
    if (behind == elements.begin())
        return nullptr;
    const auto [key, element] = *std::prev(behind);
    return address - key <= sizeOf(element) ? element : nullptr;
}

unsigned long long memorySizeOf(Segment* segment) {
    return segment->getMemorySize();
}

using Candidates = std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>;

/// Walks a copy of its own: a list that was empty is collected again by the next caller, while this one may
/// still be walking on another thread.
class CandidateIterator final : public VectorIteratorWrapper<Candidates, Candidates::value_type> {
public:
    explicit CandidateIterator(const Candidates& candidates)
        : VectorIteratorWrapper(&m_candidates, nullptr), m_candidates(candidates) {}

private:
    const Candidates m_candidates;
};

} // namespace

// --- Section and segment

Section::Section(IFileFormatLoader* loader, const char* name, unsigned long long address,
                 unsigned long long fileOffset, unsigned long long size, bool noBits)
    : SymMgrObject<ISection>(nullptr),
      m_name(textOf(name)),
      m_loader(loader),
      m_address(address),
      m_fileOffset(fileOffset),
      m_size(size),
      m_noBits(noBits) {}

status_t Section::read(SymMgrObjectPtr<IBuffer>& out) {
    if (m_noBits)
        return status_False;
    return m_loader->readBytes(m_fileOffset, m_size, out);
}

/// Quirk: `delta` and `size` are not tested against the section's size; the file's end alone limits them.
status_t Section::readAt(unsigned long long delta, unsigned long long size, SymMgrObjectPtr<IBuffer>& out) {
    if (m_noBits)
        return status_False;
    return m_loader->readBytes(saturatingSum(m_fileOffset, delta), size, out);
}

Segment::Segment(IFileFormatLoader* loader, const char* name, unsigned long long rva,
                 unsigned long long fileOffset, unsigned long long fileSize, unsigned long long memorySize,
                 unsigned kind)
    : m_name(textOf(name)),
      m_loader(loader),
      m_rva(rva),
      m_fileOffset(fileOffset),
      m_fileSize(fileSize),
      m_memorySize(memorySize),
      m_kind(kind) {}

status_t Segment::read(SymMgrObjectPtr<IBuffer>& out) {
    return m_loader->readBytes(m_fileOffset, m_fileSize, out);
}

status_t Segment::readAt(unsigned long long delta, unsigned long long size, SymMgrObjectPtr<IBuffer>& out) {
    return m_loader->readBytes(saturatingSum(m_fileOffset, delta), size, out);
}

void Segment::getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool) {
    out = nullptr;
}

// --- FileFormatLoader: life

FileFormatLoader::FileFormatLoader() : SymMgrObject<IFileFormatLoader>(true), m_status(status_Ok) {}

/// The registry forgets the loader first: while the rest goes nobody may find it any more. The candidates go
/// before the lock that guards their counts.
FileFormatLoader::~FileFormatLoader() {
    if (const internal::ReleaseFormatLoader release = internal::releaseFormatLoader())
        release(this);
    for (const auto& [key, segment] : m_segments)
        delete segment;
    for (const auto& [address, section] : m_sections)
        section->release();
    for (Section* section : m_replacedSections)
        section->release();
    m_symbolFiles.clear();
}

// --- FileFormatLoader: candidates and debug info loaders

status_t
FileFormatLoader::getSymbolFiles(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& out) {
    try {
        ScopedLock guard(&m_symbolFilesLock);
        if (m_symbolFiles.empty()) {
            Candidates candidates;
            const status_t status = collectSymbolFiles(candidates);
            if (isFailure(status))
                return status;
            m_symbolFiles.swap(candidates);
        }
        out = new CandidateIterator(m_symbolFiles);
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// The debug info loaders' lock comes before that of the lists: the last release of a debug info loader runs
/// under the former and comes here for its entry. Holding it also keeps an entry that is found from dying
/// before it is referenced.
status_t FileFormatLoader::getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) {
    try {
        ScopedLock countGuard(debugInfoLock());
        ScopedLock guard(&m_symbolFilesLock);
        if (index < 0 || static_cast<unsigned long long>(index) >= m_symbolFiles.size())
            return status_False;
        const SymMgrObjectPtr<ISymbolFileToResolve> candidate = m_symbolFiles[index];
        const char* path = candidate->wantedName();
        FileIdentity identity = FileIdentity::ofPath(path);
        const auto known = m_debugInfoLoaders.find(identity);
        if (known != m_debugInfoLoaders.end()) {
            out = known->second;
            return status_Ok;
        }
        const SymMgrObjectPtr<IDebugInfoLoader> created =
            createDebugInfoLoader(path, candidate->kind(), index);
        m_debugInfoLoaders[std::move(identity)] = created;
        out = created;
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

void FileFormatLoader::forgetDebugInfoLoader(IDebugInfoLoader* loader) {
    ScopedLock guard(&m_symbolFilesLock);
    for (auto entry = m_debugInfoLoaders.begin(); entry != m_debugInfoLoaders.end(); ++entry) {
        if (entry->second == loader) {
            m_debugInfoLoaders.erase(entry);
            return;
        }
    }
}

/// Never destroyed: a client may release its last object in a static destructor of its own.
ILock* FileFormatLoader::debugInfoLock() {
    static OrnLock* const lock = new OrnLock;
    return lock;
}

FileFormatLoader::FileIdentity FileFormatLoader::FileIdentity::ofPath(const char* path) {
    FileIdentity identity;
    identity.path = textOf(path);
    struct stat properties;
    if (!identity.path.empty() && ::stat(identity.path.c_str(), &properties) == 0) {
        identity.modificationTime = properties.st_mtime;
        identity.size = static_cast<unsigned long long>(properties.st_size);
    }
    return identity;
}

bool FileFormatLoader::FileIdentity::operator<(const FileIdentity& other) const {
    return std::tie(size, modificationTime, path, offset, number) <
           std::tie(other.size, other.modificationTime, other.path, other.offset, other.number);
}

// --- FileFormatLoader: segments and sections

bool FileFormatLoader::addSegment(unsigned long long key, const char* name, unsigned long long rva,
                                  unsigned long long fileOffset, unsigned long long fileSize,
                                  unsigned long long memorySize, unsigned kind) {
    const auto plain = [](unsigned long long size) { return size; };
    if (overlapsAny(m_lastingSegments, key, memorySize, plain))
        return false;
    if (kind == 0 && overlapsAny(m_segments, key, memorySize, memorySizeOf))
        return false;
    std::unique_ptr<Segment> segment(createSegment(name, rva, fileOffset, fileSize, memorySize, kind));
    dropOverlappedSegments(key, memorySize);
    storeSegment(key, segment.get());
    segment.release(); // NOLINT(bugprone-unused-return-value): the map owns it now
    return true;
}

void FileFormatLoader::dropOverlappedSegments(unsigned long long key, unsigned long long memorySize) {
    auto entry = m_segments.upper_bound(key);
    if (entry != m_segments.begin())
        --entry;
    while (entry != m_segments.end() && (entry->first <= key || entry->first - key < memorySize)) {
        if (overlap(entry->first, entry->second->getMemorySize(), key, memorySize)) {
            delete entry->second;
            entry = m_segments.erase(entry);
        } else {
            ++entry;
        }
    }
}

/// Two empty segments at one address do not overlap: the later one replaces the earlier one, of whatever
/// kind. Without memory nothing is entered: a format that reads its segments late tries again.
void FileFormatLoader::storeSegment(unsigned long long key, Segment* segment) {
    const auto [place, isNew] = m_segments.try_emplace(key, segment);
    try {
        if (segment->getKind() != 0)
            m_lastingSegments[key] = segment->getMemorySize();
        else
            m_lastingSegments.erase(key);
    } catch (...) {
        if (isNew)
            m_segments.erase(place);
        throw;
    }
    if (!isNew)
        delete std::exchange(place->second, segment);
}

/// Quirk: the file offset of such a section is its address. A section that is replaced stays alive as long as
/// the loader, since findSection hands it out without a reference.
bool FileFormatLoader::addSection(const char* name, unsigned long long address, unsigned long long size) {
    const SymMgrObjectPtr<Section> section = new Section(this, name, address, address, size, false);
    const auto place = m_sections.find(address);
    if (place == m_sections.end()) {
        m_sections.emplace(address, section);
    } else {
        m_replacedSections.push_back(place->second);
        place->second = section;
    }
    section->addRef(); // the map's reference
    return true;
}

Segment* FileFormatLoader::createSegment(const char* name, unsigned long long rva,
                                         unsigned long long fileOffset, unsigned long long fileSize,
                                         unsigned long long memorySize, unsigned kind) {
    return new Segment(this, name, rva, fileOffset, fileSize, memorySize, kind);
}

ISegment* FileFormatLoader::findSegment(unsigned long long address) {
    ensureRead();
    return findHolder(m_segments, address, memorySizeOf);
}

/// Quirk: sections are looked up without ensureRead().
ISection* FileFormatLoader::findSection(unsigned long long address) {
    return findHolder(m_sections, address, [](Section* section) { return section->getSize(); });
}

ISegment* FileFormatLoader::getSegmentAt(int index) {
    ensureRead();
    if (index < 1 || static_cast<std::size_t>(index) > m_segments.size())
        return nullptr;
    return std::next(m_segments.begin(), index - 1)->second;
}

ISegment* FileFormatLoader::findSegmentByFileOffset(unsigned long long offset) {
    ensureRead();
    ISegment* endsHere = nullptr;
    for (const auto& [key, segment] : m_segments) {
        if (offset < segment->getFileOffset())
            continue;
        const unsigned long long delta = offset - segment->getFileOffset();
        if (delta < segment->getFileSize())
            return segment;
        if (delta == segment->getFileSize())
            endsHere = segment;
    }
    return endsHere;
}

ISegment* FileFormatLoader::findSegmentByName(const char* name) {
    ensureRead();
    if (!name)
        return nullptr;
    const std::string wanted = name;
    for (const auto& [key, segment] : m_segments)
        if (wanted == segment->getName())
            return segment;
    return nullptr;
}

void FileFormatLoader::getSegments(SymMgrObjectPtr<IIterator<ISegment*>>& out) {
    using Segments = std::map<unsigned long long, Segment*>;
    using EveryOne = CFilter<Segment*, int>;
    ensureRead();
    out = new MapIteratorWrapper<Segments, ISegment*, EveryOne, int>(m_segments, 0, nullptr);
}

// --- FileFormatLoader: addresses and bytes

status_t FileFormatLoader::getAddress(SymMgrObjectPtr<IAddress>& out, unsigned long long address) {
    try {
        if (!findSegment(address) && !findSection(address))
            return status_Fail;
        out = new Address(this, address, nullptr);
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t FileFormatLoader::getAddressOfFileOffset(SymMgrObjectPtr<IAddress>& out, unsigned long long offset) {
    try {
        ISegment* holder = findSegmentByFileOffset(offset);
        if (!holder)
            return status_Fail;
        const unsigned long long delta = offset - holder->getFileOffset();
        if (delta > holder->getMemorySize())
            return status_Fail;
        out = new Address(this, delta + getImageBase() + holder->getRva(), nullptr);
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// Opens the file afresh: the image under the loader has one position, and this operation has to be free of
/// it. Whoever needs much of a file reads it in one piece.
status_t FileFormatLoader::readBytes(unsigned long long offset, unsigned long long size,
                                     SymMgrObjectPtr<IBuffer>& out) {
    try {
        File file(getPath());
        const SymMgrObjectPtr<IBuffer> buffer = new (std::nothrow) ByteBuffer(size);
        if (!buffer || !buffer->data() || buffer->size() != size) {
            ORN_LOG_ERROR("Unable to create ByteBuffer of size: " << size);
            return status_OutOfMemory;
        }
        const bool reachable =
            offset <= static_cast<unsigned long long>(std::numeric_limits<long long>::max());
        const bool complete = reachable && file.seek(static_cast<std::int64_t>(offset)) >= 0 &&
                              file.read(size, buffer->data()) == static_cast<std::int64_t>(size);
        if (!complete) {
            ORN_LOG_ERROR("Unable to read " << size << " bytes from file: " << textOf(getPath()));
            return status_False;
        }
        out = buffer;
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// --- Debug info loaders

DebugInfoLoader::DebugInfoLoader(FileFormatLoader* formatLoader, ILock* lock)
    : SymMgrObject<IDebugInfoLoader>(lock), m_formatLoader(formatLoader) {}

DebugInfoLoader::~DebugInfoLoader() {
    if (m_formatLoader)
        m_formatLoader->forgetDebugInfoLoader(this);
}

void DebugInfoLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) {
    out = nullptr;
}

EmptyDebugInfoLoader::EmptyDebugInfoLoader(FileFormatLoader* formatLoader, const char* path, ILock* lock)
    : SymMgrObject<IDebugInfoLoader>(lock), m_formatLoader(formatLoader), m_path(textOf(path)) {}

EmptyDebugInfoLoader::~EmptyDebugInfoLoader() {
    if (m_formatLoader)
        m_formatLoader->forgetDebugInfoLoader(this);
}

status_t EmptyDebugInfoLoader::loadSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t, ISrcLineResolver*) {
    return status_Ok;
}

ISrcLineResolver* EmptyDebugInfoLoader::getLineResolver(GlobalScope*, ILock*) {
    return nullptr;
}

status_t EmptyDebugInfoLoader::findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                                                 SymMgrObjectPtr<ISymbol>&, bool*) {
    return status_False;
}

void EmptyDebugInfoLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) {
    out = nullptr;
}

status_t EmptyDebugInfoLoader::loadLineTable(ILineTable*) {
    return status_False;
}

ICompUnitDetails* EmptyDebugInfoLoader::getCompilationUnit(unsigned long long) {
    return nullptr;
}

} // namespace ORN_3_30
