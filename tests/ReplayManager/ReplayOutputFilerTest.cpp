#include "ReplayManager/ReplayOutputFiler.h"

#include <string>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;

using ReplayOutputFilerTest = ReplayTest::TargetRootTest;

TEST_F(ReplayOutputFilerTest, BlockIsWrittenByTheWriteThatWouldFillItAndOverlongTextRefused) {
    ReplayOutputFiler& filer = ReplayOutputFiler::Get();
    CapturedDebug debug;
    EXPECT_EQ(filer.Write(std::string(1024, 'x').c_str()), 0);
    EXPECT_EQ(debug.Count("Message of Length 1024 Exceeds Limit"), 1);
    EXPECT_EQ(filer.BufferedLength(), 0);

    const std::string first(1023, 'a');
    EXPECT_EQ(filer.Write(first.c_str()), 0);
    EXPECT_EQ(ReadTargetFile("/tmp/ReplayOutput.txt"), "");
    EXPECT_EQ(filer.Write("b"), 1023);
    EXPECT_EQ(ReadTargetFile("/tmp/ReplayOutput.txt"), first);
    EXPECT_EQ(filer.BufferedLength(), 1);

    filer.Close(true);
    EXPECT_EQ(ReadTargetFile("/tmp/ReplayOutput.txt"), first);
    EXPECT_EQ(filer.Write(std::string(1023, 'c').c_str()), 1);
    EXPECT_EQ(ReadTargetFile("/tmp/ReplayOutput.txt"), first + "b");
}

TEST_F(ReplayOutputFilerTest, UnwritableResultsDirectoryKeepsTheBlock) {
    ReplayRuntimeOptions::Get().SetStringValue(eTemporaryFilesPath, "/missing");
    CapturedDebug debug;
    ReplayOutputFiler& filer = ReplayOutputFiler::Get();
    filer.Write(std::string(1000, 'k').c_str());
    EXPECT_EQ(filer.Write(std::string(100, 'l').c_str()), -1);
    EXPECT_EQ(filer.Write(std::string(100, 'l').c_str()), -1);
    EXPECT_EQ(filer.BufferedLength(), 1000);
    EXPECT_EQ(debug.Count("Opening /missing/ReplayOutput.txt"), 2);

    MakeTargetDirectory("/missing");
    EXPECT_EQ(filer.Write(std::string(100, 'l').c_str()), 1000);
}

}  // namespace
