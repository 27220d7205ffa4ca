// ByteBuffer: blocks that may be refused.

#include "orn_buffer.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ORN_3_30 {
namespace {

TEST(ByteBufferTest, ABlockHasTheSizeThatWasAskedFor) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(100);
    EXPECT_EQ(buffer->size(), 100u);
    ASSERT_NE(buffer->data(), nullptr);
    std::memset(buffer->data(), 0x5A, 100);
    EXPECT_EQ(buffer->data()[99], 0x5A);
}

TEST(ByteBufferTest, ARefusedSizeGivesAnEmptyBufferWithoutData) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(~0ULL);
    EXPECT_EQ(buffer->size(), 0u);
    EXPECT_EQ(buffer->data(), nullptr);
}

TEST(ByteBufferTest, AnEmptyBlockIsNoRefusal) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(0);
    EXPECT_EQ(buffer->size(), 0u);
    EXPECT_NE(buffer->data(), nullptr);
}

} // namespace
} // namespace ORN_3_30
