// The global operator new and delete of the test program. They count for each thread, and one of them fails
// when it is told to. Every unaligned form is replaced, so that none is paired with a sanitizer's own.

#include "support/allocation.h"

#include <cstdlib>
#include <new>

// clang's thread sanitizer brings operator new as an ordinary object, and a program can have one only.
#define ORN_TEST_REPLACES_NEW 1
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#undef ORN_TEST_REPLACES_NEW
#define ORN_TEST_REPLACES_NEW 0
#endif
#endif

namespace {

thread_local unsigned long t_untilFailure = 0; // 0: none is to fail
thread_local bool t_hasFailed = false;
thread_local long t_live = 0;

[[maybe_unused]] void* allocate(std::size_t size) noexcept {
    if (t_untilFailure != 0 && --t_untilFailure == 0) {
        t_hasFailed = true;
        return nullptr;
    }
    void* block = std::malloc(size ? size : 1);
    if (block)
        ++t_live;
    return block;
}

[[maybe_unused]] void* allocateOrThrow(std::size_t size) {
    if (void* block = allocate(size))
        return block;
    throw std::bad_alloc();
}

[[maybe_unused]] void deallocate(void* block) noexcept {
    if (block)
        --t_live;
    std::free(block);
}

} // namespace

#if ORN_TEST_REPLACES_NEW

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    deallocate(block);
}
void operator delete[](void* block) noexcept {
    deallocate(block);
}
void operator delete(void* block, std::size_t) noexcept {
    deallocate(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    deallocate(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    deallocate(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    deallocate(block);
}

#endif

// An allocator of a sanitizer ends the program at a size that no memory can have; malloc() refuses it. The
// sanitizer looks these up by name in the finished program.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace ORN_3_30::test {

bool canFailAllocations() {
    return ORN_TEST_REPLACES_NEW != 0;
}

FailingAllocation::FailingAllocation(unsigned long number) {
    t_hasFailed = false;
    t_untilFailure = number;
}

FailingAllocation::~FailingAllocation() {
    t_untilFailure = 0;
}

bool FailingAllocation::happened() const {
    return t_hasFailed;
}

long liveAllocations() {
    return t_live;
}

} // namespace ORN_3_30::test
