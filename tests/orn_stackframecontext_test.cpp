#include "orn_stackframecontext.h"
#include "support/allocation.h"
#include "support/orn_fixture.h"

namespace ORN_3_30::test {
namespace {

using StackFrameContextTest = OrnTest;

unsigned countOf(IStackFrameContext* frame) {
    unsigned count = 0;
    static_cast<StackFrameContext*>(frame)->refCount(count);
    return count;
}

TEST_F(StackFrameContextTest, HasOneReferenceThatBelongsToTheCaller) {
    IStackFrameContext* frame = IStackFrameContext::create();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(countOf(frame), 1u);
    {
        const SymMgrObjectPtr<IStackFrameContext> counted = frame;
        EXPECT_EQ(countOf(frame), 2u);
    }
    EXPECT_EQ(frame->release(), 0u);
}

TEST_F(StackFrameContextTest, BothRegistersStartAtZero) {
    const SymMgrObjectPtr<IStackFrameContext> frame = new StackFrameContext;
    EXPECT_EQ(frame->getRegister(0), 0u);
    EXPECT_EQ(frame->getRegister(1), 0u);
}

TEST_F(StackFrameContextTest, KeepsTheStackAndTheFramePointer) {
    const SymMgrObjectPtr<IStackFrameContext> frame = new StackFrameContext;
    frame->setRegister(0, ~0ULL);
    frame->setRegister(1, 0x8000);
    EXPECT_EQ(frame->getRegister(0), ~0ULL);
    EXPECT_EQ(frame->getRegister(1), 0x8000u);
}

TEST_F(StackFrameContextTest, OtherIndicesAreIgnored) {
    const SymMgrObjectPtr<IStackFrameContext> frame = new StackFrameContext;
    for (const int index : {-1, 2, 7}) {
        frame->setRegister(index, 5);
        EXPECT_EQ(frame->getRegister(index), 0u);
    }
    EXPECT_EQ(frame->getRegister(0), 0u);
    EXPECT_EQ(frame->getRegister(1), 0u);
}

TEST_F(StackFrameContextTest, WithoutMemoryThereIsNone) {
    if (!canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps the allocator";
    expectLog("Out of memory");
    IStackFrameContext* frame = nullptr;
    {
        const FailingAllocation failing(1);
        frame = IStackFrameContext::create();
    }
    EXPECT_EQ(frame, nullptr);
}

} // namespace
} // namespace ORN_3_30::test
