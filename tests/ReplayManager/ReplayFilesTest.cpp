#include "ReplayManager/ReplayFiles.h"

#include <string>

#include "tests/support/TestSupport.h"

namespace {

using ReplayFilesTest = ReplayTest::TargetRootTest;

TEST_F(ReplayFilesTest, SupportFileSearchOrder) {
    std::string found;
    auto search = [&found](const std::string& path) {
        return ReplayFiles::GetSupportFilePath(path, found) ? found : "not found: " + found;
    };
    // Each new place is searched earlier than the one before.
    const std::string places[] = {"", ReplayFiles::s_etfsSupportPath, ReplayFiles::s_supportPath,
                                  "/work"};
    for (const std::string& place : places) {
        const std::string path = WriteTargetFile(place + "/support.txt", place);
        EXPECT_EQ(search("/nowhere/support.txt"), path);
    }
    EXPECT_EQ(search(Root() + "/support.txt"), Root() + "/support.txt");
    EXPECT_EQ(search("/nowhere/other.txt"), "not found: " + Root() + "/other.txt");
    EXPECT_EQ(search("/nowhere/"), "not found: /nowhere/");
}

}  // namespace
