#include "ReplayManager/ReplayFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

class ReplayFilesTest : public ReplayTest::TargetRootTest {
  protected:
    // The names found, sorted.
    std::vector<std::string> Collect(const std::string& directory,
                                     ReplayFiles::ReplayFileType mask) {
        ReplayFiles::DirectoryFileIterator iterator(directory, mask);
        std::vector<std::string> names;
        for (std::string name; iterator.GetNextFile(name);) {
            names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(ReplayFilesTest, SupportFileSearchOrder) {
    std::string found;
    auto search = [&found](const std::string& path) {
        return ReplayFiles::GetSupportFilePath(path, found) ? found : "not found: " + found;
    };
    // Each new file sits at a place searched earlier than the previous one:
    // parent of the working directory, the two support directories, the
    // working directory.
    const std::string places[] = {"", ReplayFiles::s_etfsSupportPath, ReplayFiles::s_supportPath,
                                  "/work"};
    for (const std::string& place : places) {
        const std::string path = WriteTargetFile(place + "/support.txt", place);
        EXPECT_EQ(search("/nowhere/support.txt"), path);
    }
    // The path as given wins over everything.
    EXPECT_EQ(search(Root() + "/support.txt"), Root() + "/support.txt");
    EXPECT_EQ(search("/nowhere/other.txt"), "not found: " + Root() + "/other.txt");
    EXPECT_EQ(search("/nowhere/"), "not found: /nowhere/");
}

TEST_F(ReplayFilesTest, IteratorYieldsParentThenSubdirectoriesOrMatchingFiles) {
    const std::string base = MakeTargetDirectory("/scan");
    MakeTargetDirectory("/scan/sub1");
    MakeTargetDirectory("/scan/sub2.trc");
    WriteTargetFile("/scan/drive.trc", "");
    WriteTargetFile("/scan/drive.TRC0", "");
    WriteTargetFile("/scan/drive.14XX", "");
    WriteTargetFile("/scan/notes.txt", "");
    WriteTargetFile("/scan/noextension", "");

    typedef std::vector<std::string> Names;
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kDirectory), (Names{"..", "sub1", "sub2.trc"}));
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kTraceFile), (Names{"drive.TRC0", "drive.trc"}));
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kLogFile), (Names{"drive.14XX"}));
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kTraceFile | ReplayFiles::kLogFile).size(), 3u);
}

// The report's utilities exist only on the target system: stand-ins on PATH
// show what reaches the report, and without them nothing is written.
TEST_F(ReplayFilesTest, VersionReportTakesTheUtilitiesOutputAndStaysQuietWithoutThem) {
    const std::string bin = MakeTargetDirectory("/bin-standins");
    WriteTargetFile("/bin-standins/use", "#!/bin/sh\necho \"version of $2\"\n");
    WriteTargetFile("/bin-standins/ifconfig", "#!/bin/sh\necho 'inet address 10'\necho other\n");
    ASSERT_EQ(chmod((bin + "/use").c_str(), 0755), 0);
    ASSERT_EQ(chmod((bin + "/ifconfig").c_str(), 0755), 0);
    const std::string path = getenv("PATH") != nullptr ? getenv("PATH") : "";

    setenv("PATH", bin.c_str(), 1);
    ReplayFiles::WriteReplayFileVersions(true);
    setenv("PATH", "/nonexistent", 1);
    const bool written =
        ReplayFiles::FileExists((Root() + ReplayFiles::kVersionReportFile).c_str());
    ReplayFiles::WriteReplayFileVersions(false);  // the report is there: not redone
    EXPECT_EQ(ReplayFiles::GetCommandLine("anything"), "");
    setenv("PATH", path.c_str(), 1);

    ASSERT_TRUE(written);
    EXPECT_EQ(ReadTargetFile(ReplayFiles::kVersionReportFile),
              "version of ReplayManager\nversion of libreplay.so\nversion of pmx\n"
              "version of gpsfeed-dev\ninet address 10\n");
    EXPECT_FALSE(ReplayFiles::FileExists((Root() + ReplayFiles::kCommandLineFile).c_str()));
}

}  // namespace
