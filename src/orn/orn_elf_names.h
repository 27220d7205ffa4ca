// Bound on the copies of names that an ELF file can ask for.
#ifndef ORN_ELF_NAMES_H
#define ORN_ELF_NAMES_H

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

namespace ORN_3_30::internal {

/// Names of an ELF file may share their bytes, each a tail of another: a damaged file of one megabyte can
/// name tens of thousands of things by a text of half a megabyte each, while whoever keeps a name keeps a
/// copy. The budget grows with the string table and with the number of names, so far above what linkers make
/// of shared tails that only made-up files spend it.
class ElfNameBudget {
public:
    ElfNameBudget(unsigned long long stringsSize, unsigned long long nameCount)
        : m_left(stringsSize * bytesPerStringByte + nameCount * bytesPerName) {}

    /// Whether a copy of `name` can still be afforded; pays for it.
    bool afford(const char* name) {
        const unsigned long long length = strnlen(name, m_left);
        if (length == m_left)
            return false;
        m_left -= length;
        return true;
    }

    static constexpr unsigned long long bytesPerName = 1024;

private:
    static constexpr unsigned long long bytesPerStringByte = 16;

    unsigned long long m_left;
};

/// Where in a string table the names begin that are longer than what the budget grants each name anyway. One
/// pass over the strings in their order costs less than a look at every name, which misses the cache.
class LongElfNames {
public:
    /// `strings` ends in a NUL beyond `size`.
    LongElfNames(const char* strings, unsigned long long size) {
        const char* const end = strings + size;
        for (const char* name = strings; name < end;) {
            const char* last = static_cast<const char*>(std::memchr(name, 0, end - name));
            if (!last)
                last = end;
            if (static_cast<unsigned long long>(last - name) > ElfNameBudget::bytesPerName)
                m_places.emplace_back(name, last - ElfNameBudget::bytesPerName);
            name = last + 1;
        }
    }

    bool holds(const char* name) const {
        auto after = std::upper_bound(m_places.begin(), m_places.end(), name,
                                      [](const char* at, const auto& place) { return at < place.first; });
        return after != m_places.begin() && name < std::prev(after)->second;
    }

private:
    std::vector<std::pair<const char*, const char*>> m_places; ///< [first, second), ascending
};

} // namespace ORN_3_30::internal

#endif
