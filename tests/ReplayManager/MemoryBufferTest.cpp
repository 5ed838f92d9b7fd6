#include "libreplay/MemoryBuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::MemoryBuffer;
using ReplayTest::CapturedDebug;

// Capturing the debug channels logs to the file log, so every test keeps a
// private target root.
class MemoryBufferTest : public ReplayTest::TargetRootTest {};

bool AllZero(const unsigned char* data, unsigned int length) {
    for (unsigned int i = 0; i < length; ++i) {
        if (data[i] != 0) {
            return false;
        }
    }
    return true;
}

TEST_F(MemoryBufferTest, GrowsToTheNextPowerOfTwoAboveTheRequest) {
    CapturedDebug debug;
    const struct {
        unsigned int request;
        unsigned int capacity;
    } cases[] = {{1, 2}, {8, 16}, {1000, 1024}, {1024, 2048}, {2041, 2048}, {65535, 65536}};
    for (const auto& c : cases) {
        MemoryBuffer buffer("Growth", 0, 65535);
        ASSERT_NE(buffer.ExpandBuffer(c.request, true), nullptr) << c.request;
        EXPECT_EQ(buffer.Capacity(), c.capacity) << c.request;
        EXPECT_TRUE(AllZero(buffer.Get(), buffer.Capacity()));
    }
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage,
                          "MemoryBuffer Growth: Bytes requested=1000; Current Buffer Size=0; New "
                          "size = 1024"),
              1);
}

TEST_F(MemoryBufferTest, EmptyBufferHasNoStorageAndIndexZeroIsNotAnError) {
    CapturedDebug debug;
    MemoryBuffer buffer("Empty", 0, 100);
    EXPECT_EQ(buffer.Get(), nullptr);
    EXPECT_EQ(buffer.Capacity(), 0u);
    EXPECT_EQ(buffer[0], nullptr);
    // A zero request is already satisfied by the zero capacity.
    EXPECT_EQ(buffer.ExpandBuffer(0, true), nullptr);
    EXPECT_TRUE(debug.Lines().empty()) << debug.Dump();
}

TEST_F(MemoryBufferTest, RequestWithinCapacityKeepsStorageAndClearsOnlyOnRequest) {
    MemoryBuffer buffer("Reuse", 100, 1000);
    unsigned char* storage = buffer.Get();
    ASSERT_NE(storage, nullptr);
    std::memset(storage, 0x5A, buffer.Capacity());
    buffer.SetLength(17);

    EXPECT_EQ(buffer.ExpandBuffer(buffer.Capacity(), false), storage);
    EXPECT_EQ(storage[buffer.Capacity() - 1], 0x5A);
    EXPECT_EQ(buffer.Length(), 17u);

    EXPECT_EQ(buffer.ExpandBuffer(10, true), storage);
    EXPECT_TRUE(AllZero(storage, buffer.Capacity()));
    EXPECT_EQ(buffer.Length(), 17u);
}

TEST_F(MemoryBufferTest, GrowthDropsContentsAndResetsLength) {
    CapturedDebug debug;
    MemoryBuffer buffer("Drop", 16, 4096);
    std::memset(buffer.Get(), 0x77, buffer.Capacity());
    buffer.SetLength(16);
    ASSERT_NE(buffer.ExpandBuffer(100, true), nullptr);
    EXPECT_EQ(buffer.Capacity(), 128u);
    EXPECT_EQ(buffer.Length(), 0u);
    EXPECT_TRUE(AllZero(buffer.Get(), 128));
    EXPECT_EQ(debug.Count("Bytes requested=100; Current Buffer Size=32; New size = 128"), 1);
}

TEST_F(MemoryBufferTest, LimitAllowsTheLimitItselfAndRefusesOneMore) {
    CapturedDebug debug;
    MemoryBuffer buffer("Limited", 0, 1000);
    ASSERT_NE(buffer.ExpandBuffer(1000, false), nullptr);
    EXPECT_EQ(buffer.Capacity(), 1024u);  // may exceed the limit

    MemoryBuffer refused("Limited", 8, 1000);
    unsigned char* storage = refused.Get();
    storage[0] = 42;
    EXPECT_EQ(refused.ExpandBuffer(1001, true), nullptr);
    EXPECT_EQ(refused.Get(), storage);
    EXPECT_EQ(refused.Capacity(), 16u);
    EXPECT_EQ(storage[0], 42);
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "MemoryBuffer Limited::AllocateBuffer: Requested size of 1001 exceeds "
                          "limit of 1000"),
              1);
}

TEST_F(MemoryBufferTest, CapacityBeyondThirtyTwoBitsFailsAndKeepsStorage) {
    CapturedDebug debug;
    MemoryBuffer buffer("Huge", 8, UINT_MAX);
    unsigned char* storage = buffer.Get();
    EXPECT_EQ(buffer.ExpandBuffer(0x80000000u, false), nullptr);
    EXPECT_EQ(buffer.Get(), storage);
    EXPECT_EQ(buffer.Capacity(), 16u);
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "MemoryBuffer Huge::AllocateBuffer: Failed to "
                          "Allocate"),
              1);
}

TEST_F(MemoryBufferTest, IndexAcceptsOnePastTheEndAndFallsBackToByteZeroBeyond) {
    CapturedDebug debug;
    MemoryBuffer buffer("Index", 10, 100);
    ASSERT_EQ(buffer.Capacity(), 16u);
    debug.Clear();
    EXPECT_EQ(buffer[15], buffer.Get() + 15);
    EXPECT_EQ(buffer[16], buffer.Get() + 16);
    EXPECT_TRUE(debug.Lines().empty());
    EXPECT_EQ(buffer[17], buffer.Get());
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "libReplay::MemoryBuffer::index: Attempt to Index "
                          "past End of Array: index=17 exceeds limit of 16"),
              1);
}

}  // namespace
