#include "ReplayManager/MemoryBuffer.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::MemoryBuffer;
using ReplayTest::CapturedDebug;

class MemoryBufferTest : public ReplayTest::TargetRootTest {};

TEST_F(MemoryBufferTest, GrowsToThePowerOfTwoAboveTheRequestAndDropsContents) {
    const unsigned int cases[][2] = {{1, 2}, {8, 16}, {1000, 1024}, {1024, 2048}, {2041, 2048}};
    for (const auto& c : cases) {
        MemoryBuffer buffer("Growth", 0, 65535);
        ASSERT_NE(buffer.ExpandBuffer(c[0], true), nullptr) << c[0];
        EXPECT_EQ(buffer.Capacity(), c[1]) << c[0];
    }

    MemoryBuffer buffer("Drop", 16, 4096);
    std::memset(buffer.Get(), 0x77, buffer.Capacity());
    buffer.SetLength(16);
    ASSERT_NE(buffer.ExpandBuffer(100, true), nullptr);
    EXPECT_EQ(buffer.Capacity(), 128u);
    EXPECT_EQ(buffer.Length(), 0u);
    EXPECT_TRUE(std::all_of(buffer.Get(), buffer.Get() + buffer.Capacity(),
                            [](unsigned char byte) { return byte == 0; }));
}

TEST_F(MemoryBufferTest, RefusedRequestsKeepTheOldStorageAndIndexFallsBackToByteZero) {
    CapturedDebug debug;
    MemoryBuffer atLimit("Limited", 0, 1000);
    ASSERT_NE(atLimit.ExpandBuffer(1000, false), nullptr);
    EXPECT_EQ(atLimit.Capacity(), 1024u);  // may exceed the limit

    MemoryBuffer refused("Limited", 8, 1000);
    unsigned char* storage = refused.Get();
    storage[0] = 42;
    EXPECT_EQ(refused.ExpandBuffer(1001, true), nullptr);
    MemoryBuffer huge("Huge", 8, UINT_MAX);
    EXPECT_EQ(huge.ExpandBuffer(0x80000000u, false), nullptr);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "AllocateBuffer"), 2);
    for (MemoryBuffer* buffer : {&refused, &huge}) {
        EXPECT_EQ(buffer->Capacity(), 16u);
    }
    EXPECT_EQ(refused.Get(), storage);
    EXPECT_EQ(storage[0], 42);

    debug.Clear();
    EXPECT_EQ(refused[16], refused.Get() + 16);
    EXPECT_TRUE(debug.Lines().empty());
    EXPECT_EQ(refused[17], refused.Get());
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "index=17 exceeds limit of 16"), 1);
}

}  // namespace
