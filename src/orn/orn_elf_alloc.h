// Arrays whose sizes come out of ELF files.
#ifndef ORN_ELF_ALLOC_H
#define ORN_ELF_ALLOC_H

#include "orn_log.h"

#include <memory>
#include <new>

namespace ORN_3_30::internal {

/// A process on a 64-bit host has 47 bits of addresses: a larger block cannot be, and allocators with checks
/// of their own do not throw then but give up.
constexpr unsigned long long largestElfBlock = 1ULL << 47;

/// Array new without clearing, with room for `spare` more elements than the file asks for. A refusal is
/// logged, since the caller at the top sees a status alone, and thrown on.
template <typename T>
std::unique_ptr<T[]> allocateArray(unsigned long long count, unsigned long long spare = 0) {
    try {
        if (count > largestElfBlock / sizeof(T))
            throw std::bad_alloc();
        return std::unique_ptr<T[]>(new T[count + spare]);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("can't allocate memory: " << count * sizeof(T));
        throw;
    }
}

} // namespace ORN_3_30::internal

#endif
