// Bound on the copies of names that an ELF file can ask for.
#ifndef ORN_ELF_NAMES_H
#define ORN_ELF_NAMES_H

#include <cstring>

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

private:
    static constexpr unsigned long long bytesPerStringByte = 16;
    static constexpr unsigned long long bytesPerName = 1024;

    unsigned long long m_left;
};

} // namespace ORN_3_30::internal

#endif
