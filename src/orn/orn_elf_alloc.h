// Arrays whose sizes come out of ELF files.
#ifndef ORN_ELF_ALLOC_H
#define ORN_ELF_ALLOC_H

#include "orn_log.h"

#include <memory>
#include <new>

namespace ORN_3_30::internal {

/// Array new without clearing. A refusal is logged, since the caller at the top sees a status alone, and
/// thrown on.
template <typename T>
std::unique_ptr<T[]> allocateArray(unsigned long long count) {
    try {
        return std::unique_ptr<T[]>(new T[count]);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("can't allocate memory: " << count * sizeof(T));
        throw;
    }
}

} // namespace ORN_3_30::internal

#endif
