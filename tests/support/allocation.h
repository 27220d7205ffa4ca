// Allocation under control: the test program replaces the global operator new and delete.
#ifndef ORN_TEST_ALLOCATION_H
#define ORN_TEST_ALLOCATION_H

namespace ORN_3_30::test {

/// False where the thread sanitizer's runtime keeps operator new for itself: then nothing fails and nothing
/// is counted.
bool canFailAllocations();

/// While it lives, one allocation of this thread fails: number `number`, counted from 1. Not nested.
class FailingAllocation {
public:
    explicit FailingAllocation(unsigned long number);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /// False if fewer allocations were made.
    bool happened() const;
};

/// Allocations of this thread less those that it freed.
long liveAllocations();

} // namespace ORN_3_30::test

#endif
