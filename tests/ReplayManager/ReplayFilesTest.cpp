#include "libreplay/ReplayFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;

class ReplayFilesTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        const char* path = std::getenv("PATH");
        m_savedPath = path != nullptr ? path : "";
    }
    void TearDown() override {
        setenv("PATH", m_savedPath.c_str(), 1);
        TargetRootTest::TearDown();
    }

    // Puts executable shell scripts named like the target's utilities in front
    // of PATH.
    void InstallFakeProgram(const std::string& name, const std::string& script) {
        const std::string bin = MakeTargetDirectory("/fakebin");
        const std::string path = bin + "/" + name;
        ReplayTest::WriteFile(path, "#!/bin/sh\n" + script);
        chmod(path.c_str(), 0755);
        setenv("PATH", (bin + ":" + m_savedPath).c_str(), 1);
    }

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

  private:
    std::string m_savedPath;
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

TEST_F(ReplayFilesTest, IteratorOverMissingOrUnexaminableEntriesEndsWithAReport) {
    CapturedDebug debug;
    EXPECT_TRUE(Collect(Root() + "/missing/", 7).empty());
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Failed to Open Directory " + Root()), 1);

    // A dangling link cannot be examined and ends the iteration.
    const std::string base = MakeTargetDirectory("/dangling");
    ASSERT_EQ(symlink((Root() + "/gone").c_str(), (base + "/broken.trc").c_str()), 0);
    EXPECT_TRUE(Collect(base + "/", ReplayFiles::kTraceFile).empty());
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Error Returned by stat"), 1);
}

TEST_F(ReplayFilesTest, VersionReportCollectsRecordsAndCommandLines) {
    const std::string calls = Root() + "/calls.txt";
    // Each record: two long lines, then a short one that ends the paragraph.
    InstallFakeProgram("use",
                       "echo \"$*\" >> " + calls +
                           "\necho \"NAME=$2\"\necho \"VERSION=1.0\"\necho\necho noisy >&2\n");
    InstallFakeProgram("pidin", "echo '  42 1 ReplayManager -v'\necho '  43 1 gpsfeed-dev'\n");
    WriteTargetFile("/version/version.txt", "build 1234\nbranch main\n\nignored line\n");
    CapturedDebug debug;
    testing::internal::CaptureStderr();
    ReplayFiles::WriteReplayFileVersions(false);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    EXPECT_EQ(ReplayTest::ReadFile(calls),
              "-i ReplayManager\n-i libreplay.so\n-i pmx\n-i gpsfeed-dev\n");
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, ": NAME=libreplay.so; VERSION=1.0; \n"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "NAME="), 4);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, ": build 1234; branch main; \n\n"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "ignored"), 0);
    EXPECT_EQ(ReplayFiles::GetCommandLine("gpsfeed-dev"), "  43 1 gpsfeed-dev");

    // With the report present and no force, no command runs but it is reported again.
    std::filesystem::remove(calls);
    debug.Clear();
    ReplayFiles::WriteReplayFileVersions(false);
    EXPECT_FALSE(ReplayFiles::FileExists(calls.c_str()));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "NAME="), 4);
}

}  // namespace
