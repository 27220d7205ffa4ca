// A Linux kernel image rarely has symbols of its own, but a listing of them lies beside it or was copied out
// of the running kernel. The ELF loader makes the candidates of a module whose path names a kernel, and the
// loader of the one that is chosen; a module's scope then asks that for symbols.
//
// Left out on purpose: the symbols of kernel modules, which follow those of the kernel in a "kallsyms"
// listing, and the running kernel, of which nothing is read.

#include "orn_systemmap.h"

#include "orn_fflelf_symbols.h"
#include "orn_file.h"
#include "orn_log.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <sys/stat.h>

namespace ORN_3_30 {

namespace {

constexpr long long noCandidate = -1;

constexpr std::string_view kernelMark = "vmlinu";
constexpr std::string_view mapName = "System.map";
constexpr std::string_view kallsymsName = "kallsyms";

/// An address is written in groups of that many digits: one of them, or two for 64 bits.
constexpr std::size_t groupDigits = 8;

/// Listings have a hundred thousand lines and more. A line that does not fit is none.
constexpr std::size_t bufferSize = 0x200000;

bool isBlank(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r' && character != '\n');
}

/// -1 for what is no digit.
constexpr std::array<signed char, 256> makeDigits() {
    std::array<signed char, 256> digits{};
    for (auto& digit : digits)
        digit = -1;
    for (int value = 0; value < 10; ++value)
        digits['0' + value] = static_cast<signed char>(value);
    for (int value = 10; value < 16; ++value)
        digits['a' + value - 10] = digits['A' + value - 10] = static_cast<signed char>(value);
    return digits;
}
constexpr std::array<signed char, 256> digitValues = makeDigits();

int digitValue(char character) {
    return digitValues[static_cast<unsigned char>(character)];
}

/// Where the word that names a kernel begins in its path; the last one of a kind counts.
std::size_t findKernelWord(std::string_view path, std::size_t& length) {
    for (const std::string_view word : {"vmlinuz", "vmlinux", "kcore"}) {
        const std::size_t place = path.rfind(word);
        length = word.size();
        if (place != std::string_view::npos)
            return place;
    }
    return std::string_view::npos;
}

/// Empty if the path names no kernel.
std::string listingBeside(std::string_view modulePath, bool isSystemMap) {
    std::size_t length = 0;
    const std::size_t place = findKernelWord(modulePath, length);
    if (place == std::string_view::npos)
        return {};
    std::string path(modulePath.substr(0, place));
    if (isSystemMap)
        path.append(mapName).append(modulePath.substr(place + length));
    else
        path.append(kallsymsName);
    return path;
}

bool namesKernel(const char* path) {
    return path && std::string_view(path).find(kernelMark) != std::string_view::npos;
}

/// Whether the file begins as a listing does: an address of either width and a blank. A pipe or a device
/// under such a name is not opened.
bool isListing(const char* path) {
    struct stat info;
    if (::stat(path, &info) != 0 || !S_ISREG(info.st_mode))
        return false;
    std::array<char, 2 * groupDigits + 1> start{};
    File file(path);
    const std::int64_t count = file.read(start.size(), start.data());
    const char* const end = start.data() + std::max<std::int64_t>(count, 0);
    const char* const behind =
        std::find_if(static_cast<const char*>(start.data()), end, [](char c) { return digitValue(c) < 0; });
    const auto digits = static_cast<std::size_t>(behind - start.data());
    return (digits == groupDigits || digits == 2 * groupDigits) && behind != end &&
           (*behind == ' ' || *behind == '\t');
}

/// A group as strtoul reads it. Quirk: that takes a sign, a prefix and blanks in front for part of a number.
std::optional<unsigned long> readOddGroup(const char* group) {
    std::array<char, groupDigits + 1> text{};
    std::memcpy(text.data(), group, groupDigits);
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.data(), &end, 16);
    if (end != text.data() + groupDigits)
        return std::nullopt;
    return value;
}

std::optional<unsigned long> readGroup(const char* group) {
    unsigned long value = 0;
    for (std::size_t place = 0; place < groupDigits; ++place) {
        const int digit = digitValue(group[place]);
        if (digit < 0)
            return readOddGroup(group);
        value = value << 4 | static_cast<unsigned long>(digit);
    }
    return value;
}

std::string_view withoutBlanks(std::string_view text) {
    const auto* const word = std::find_if_not(text.begin(), text.end(), isBlank);
    return text.substr(word - text.begin());
}

std::string_view takeWord(std::string_view& text) {
    text = withoutBlanks(text);
    const auto* const end = std::find_if(text.begin(), text.end(), isBlank);
    const std::string_view word = text.substr(0, end - text.begin());
    text.remove_prefix(word.size());
    return word;
}

struct Meaning {
    symbol_kind_t kind;
    symbol_visibility_t visibility;
};

/// Quirk: a letter's case does not tell local from global, and sections other than text and data have no
/// symbols.
std::optional<Meaning> meaningOf(char letter) {
    switch (letter) {
    case 'T':
    case 't':
        return Meaning{symbol_kind_function, symbol_visibility_local};
    case 'D':
    case 'd':
        return Meaning{symbol_kind_variable, symbol_visibility_local};
    case 'G':
    case 'g':
        return Meaning{symbol_kind_other, symbol_visibility_global};
    default:
        return std::nullopt;
    }
}

/// A text file, line by line.
class LineStream {
public:
    enum class Result { Line, CutLine, End, Error };

    explicit LineStream(const char* path)
        : m_file(path),
          m_capacity(capacityFor(m_file.size())),
          m_buffer(new char[m_capacity]),
          m_begin(0),
          m_end(0),
          m_isAtEnd(false) {}

    bool isOpen() const { return m_file.status() == fosOK; }

    /// `line` is without its end and good until the next call. CutLine: the file ended before the line did.
    Result next(std::string_view& line) {
        std::size_t searched = m_begin;
        for (;;) {
            const void* lineEnd = std::memchr(&m_buffer[searched], '\n', m_end - searched);
            if (lineEnd)
                return take(line, static_cast<const char*>(lineEnd) - m_buffer.get(), 1, Result::Line);
            if (m_isAtEnd)
                return m_begin == m_end ? Result::End : take(line, m_end, 0, Result::CutLine);
            searched = m_end - m_begin;
            if (!fill())
                return Result::Error;
        }
    }

private:
    /// A file of the kernel's has no size that it tells. The byte more is for seeing the end.
    static std::size_t capacityFor(std::uint64_t fileBytes) {
        return fileBytes != 0 && fileBytes < bufferSize ? static_cast<std::size_t>(fileBytes) + 1
                                                        : bufferSize;
    }

    Result take(std::string_view& line, std::size_t lineEnd, std::size_t endSize, Result result) {
        line = std::string_view(&m_buffer[m_begin], lineEnd - m_begin);
        m_begin = lineEnd + endSize;
        return result;
    }

    /// Moves what is left to the front. A file of the kernel's gives a page at a time, so a short read says
    /// nothing.
    bool fill() {
        std::memmove(m_buffer.get(), &m_buffer[m_begin], m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
        if (m_end == m_capacity)
            return false;
        const std::int64_t count = m_file.read(m_capacity - m_end, &m_buffer[m_end]);
        if (count < 0)
            return false;
        m_isAtEnd = count == 0;
        m_end += static_cast<std::size_t>(count);
        return true;
    }

    File m_file;
    std::size_t m_capacity;
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_begin; ///< of what was not given yet
    std::size_t m_end;
    bool m_isAtEnd;
};

} // namespace

// SystemMap

SystemMap::SystemMap(const char* modulePath, long long index, ILock* lock, bool isSystemMap)
    : SymMgrObject<ISymbolFileToResolve>(lock),
      m_modulePath(modulePath),
      m_state(symbol_file_not_set_up),
      m_index(index) {
    if (!m_modulePath)
        return;
    m_state = symbol_file_to_search_for;
    const std::string listing = listingBeside(m_modulePath, isSystemMap);
    m_mapPath = listing;
    judge(listing.c_str());
}

const char* SystemMap::wantedName() {
    ScopedLock guard(&m_lock);
    return m_mapPath.c_str();
}

unsigned SystemMap::state() {
    ScopedLock guard(&m_lock);
    return m_state;
}

long long SystemMap::resolve(const char* path) {
    try {
        return judge(path);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
        return noCandidate;
    }
}

/// Quirk: a kernel under the name "kcore" alone has its listing looked for, but takes it from no other place
/// than one whose own path names a kernel. And a candidate that is usable gives its index for every path,
/// also for one that it does not take.
long long SystemMap::judge(const char* path) {
    if (!path)
        return noCandidate;
    ScopedLock guard(&m_lock);
    if ((namesKernel(m_modulePath) || namesKernel(path)) && fileExists(path) && isListing(path)) {
        m_mapPath = path;
        m_state = symbol_file_usable;
    }
    return state() == symbol_file_usable ? m_index : noCandidate;
}

// The parts of a listing

namespace internal {

bool parseListingLine(std::string_view line, bool is64Bit, ListingLine& out) {
    const std::size_t width = is64Bit ? 2 * groupDigits : groupDigits;
    if (line.size() < width)
        return false;
    const auto first = readGroup(line.data());
    const auto second = is64Bit ? readGroup(line.data() + groupDigits) : std::optional(0UL);
    if (!first || !second)
        return false;
    out.address = is64Bit ? (*first << 32) + *second : *first;
    line.remove_prefix(width);
    const std::string_view letter = takeWord(line);
    out.letter = letter.size() == 1 ? letter.front() : '\0';
    out.name = takeWord(line);
    out.hasAllWords = !out.name.empty();
    out.isOfKernelModule = out.hasAllWords && withoutBlanks(line).starts_with('[');
    return true;
}

const char* ListingNames::keep(std::string_view name) {
    if (!m_isSharing)
        return store(name);
    const auto known = m_known.find(name);
    if (known != m_known.end())
        return known->data();
    const char* const kept = store(name);
    m_known.emplace(kept, name.size());
    return kept;
}

const char* ListingNames::store(std::string_view name) {
    const std::size_t needed = name.size() + 1;
    if (m_blocks.empty() || m_blocks.back().size - m_blocks.back().used < needed) {
        const std::size_t size = std::max(blockSize, needed);
        m_blocks.push_back({std::unique_ptr<char[]>(new char[size]), size, 0});
    }
    Block& block = m_blocks.back();
    char* const kept = &block.text[block.used];
    std::memcpy(kept, name.data(), name.size());
    kept[name.size()] = '\0';
    block.used += needed;
    return kept;
}

void ListingNames::startSharing() {
    if (m_isSharing)
        return;
    for (const Block& block : m_blocks) {
        for (std::size_t place = 0; place < block.used;) {
            const std::string_view name(&block.text[place]);
            m_known.insert(name);
            place += name.size() + 1;
        }
    }
    m_isSharing = true;
}

} // namespace internal

// SystemMAPDebugInfoLoader

/// One pass over a listing.
class SystemMAPDebugInfoLoader::Load {
public:
    Load(SystemMAPDebugInfoLoader& owner, ISymbolTable& sink, const LoadFilter* filter, symbol_kind_t kinds)
        : m_owner(owner),
          m_loader(*owner.formatLoader()),
          m_filter(filter),
          m_kinds(kinds),
          m_callback(m_loader, sink),
          m_is64Bit(owner.m_arch == arch_x86_64),
          m_bias(0),
          m_needsBias(owner.m_path.ends_with(kallsymsName)) {}

    status_t run() {
        LineStream lines(m_owner.m_path.c_str());
        if (!lines.isOpen())
            return status_BadDebugInfo;
        std::string_view line;
        for (;;) {
            const LineStream::Result result = lines.next(line);
            if (result == LineStream::Result::End)
                return status_Ok;
            internal::ListingLine parts;
            if (result == LineStream::Result::Error || !parseListingLine(line, m_is64Bit, parts))
                return status_BadDebugInfo;
            // What comes behind the kernel's own symbols are those of its modules. And a line that the end
            // of the file cuts off in front of its name is no line.
            const bool isCut = result == LineStream::Result::CutLine && !parts.hasAllWords;
            if (parts.isOfKernelModule || isCut)
                return status_Ok;
            takeLine(parts);
        }
    }

private:
    void takeLine(const internal::ListingLine& line) {
        const std::optional<Meaning> meaning = meaningOf(line.letter);
        if (!meaning)
            return;
        if (m_needsBias && meaning->kind == symbol_kind_function) {
            m_bias = line.address - m_owner.m_elfHelper->getImageBase();
            m_needsBias = false;
        }
        const unsigned long long value = line.address - m_bias;
        if ((meaning->kind & m_kinds) == symbol_kind_none || line.name.empty() ||
            !m_loader.findSegment(value) || !passesFilter(m_filter, value, 0))
            return;
        m_callback(m_owner.m_names.keep(line.name), value, 0, meaning->visibility, meaning->kind);
    }

    SystemMAPDebugInfoLoader& m_owner;
    IFileFormatLoader& m_loader;
    const LoadFilter* m_filter;
    symbol_kind_t m_kinds;
    RegularSymbolCallBack m_callback;
    bool m_is64Bit;
    /// From the addresses of the running kernel to those of the image. A "System.map" needs none.
    unsigned long long m_bias;
    bool m_needsBias;
};

SystemMAPDebugInfoLoader::SystemMAPDebugInfoLoader(FileFormatLoader* formatLoader, const char* path,
                                                   ElfHelper* elfHelper, arch_t arch, ILock* lock)
    : DebugInfoLoader(formatLoader, lock),
      m_path(path ? path : ""),
      m_elfHelper(elfHelper),
      m_arch(arch),
      m_hasLoaded(false) {}

/// What was read in front of a line that ends the load stays in the table.
status_t SystemMAPDebugInfoLoader::loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                                               ISrcLineResolver*) {
    try {
        ScopedLock guard(&m_loadLock);
        // A client may announce addresses and have the listing read again any number of times.
        if (m_hasLoaded)
            m_names.startSharing();
        m_hasLoaded = true;
        return Load(*this, *sink, filter, flags).run();
    }
    ORN_CATCH_OUT_OF_MEMORY
}

} // namespace ORN_3_30
