#include "libreplay/ReplayFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>

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

    std::set<std::string> Collect(const std::string& directory, ReplayFiles::ReplayFileType mask,
                                  std::string* first = nullptr) {
        ReplayFiles::DirectoryFileIterator iterator(directory, mask);
        std::set<std::string> names;
        std::string name;
        while (iterator.GetNextFile(name)) {
            if (first != nullptr && names.empty()) {
                *first = name;
            }
            names.insert(name);
        }
        return names;
    }

  private:
    std::string m_savedPath;
};

TEST_F(ReplayFilesTest, SplitPathNameUsesTheLaterSeparatorAndLeavesMissingPartsAlone) {
    std::string directory = "keep";
    std::string name = "keep";
    std::string extension = "keep";
    EXPECT_EQ(ReplayFiles::SplitPathName("dir\\sub/file.tar.gz", directory, name, extension),
              "file.tar.gz");
    EXPECT_EQ(directory, "dir\\sub");
    EXPECT_EQ(name, "file.tar");
    EXPECT_EQ(extension, "gz");

    EXPECT_EQ(ReplayFiles::SplitPathName("a/b\\c", directory, name, extension), "c");
    EXPECT_EQ(directory, "a/b");
    EXPECT_EQ(name, "c");
    EXPECT_EQ(extension, "gz");  // no '.': untouched

    directory = "keep";
    EXPECT_EQ(ReplayFiles::SplitPathName("plain.txt", directory, name, extension), "plain.txt");
    EXPECT_EQ(directory, "keep");  // no separator: untouched
    EXPECT_EQ(name, "plain");

    name = "keep";
    EXPECT_EQ(ReplayFiles::SplitPathName("", directory, name, extension), "");
    EXPECT_EQ(name, "keep");

    EXPECT_EQ(ReplayFiles::GetFileName("/x/y/ReplayConfig.txt"), "ReplayConfig.txt");
    EXPECT_EQ(ReplayFiles::GetFileName("/x/y/"), "");
    EXPECT_EQ(ReplayFiles::GetExtension("/a.b/c"), "b/c");
    EXPECT_EQ(ReplayFiles::GetExtension("noextension"), "");
}

TEST_F(ReplayFilesTest, GetParentDirectoryIgnoresOneTrailingSeparator) {
    EXPECT_EQ(ReplayFiles::GetParentDirectory("/a/b/"), "/a");
    EXPECT_EQ(ReplayFiles::GetParentDirectory("/a/b"), "/a");
    EXPECT_EQ(ReplayFiles::GetParentDirectory("c:\\x\\y"), "c:\\x");
    EXPECT_EQ(ReplayFiles::GetParentDirectory("/a"), "");
    EXPECT_EQ(ReplayFiles::GetParentDirectory("abc"), "abc");
    EXPECT_EQ(ReplayFiles::GetParentDirectory(""), "");
    EXPECT_EQ(ReplayFiles::GetParentDirectory("/"), "/");
}

TEST_F(ReplayFilesTest, ClassifiesReplayFilesByExtension) {
    EXPECT_TRUE(ReplayFiles::IsTraceFile("TRC0"));
    EXPECT_TRUE(ReplayFiles::IsTraceFile("trc"));
    EXPECT_FALSE(ReplayFiles::IsTraceFile("trc1"));
    EXPECT_TRUE(ReplayFiles::IsLogFile("13xx"));
    EXPECT_TRUE(ReplayFiles::IsLogFile("4x0"));
    EXPECT_FALSE(ReplayFiles::IsLogFile("5X0"));

    EXPECT_EQ(ReplayFiles::GetFileType("x.trc0"), ReplayFiles::kNotReplayFile);
    EXPECT_EQ(ReplayFiles::GetFileType("x.TRC"), ReplayFiles::kTraceFile);
    EXPECT_EQ(ReplayFiles::GetFileType("x.13xx"), ReplayFiles::kLogFile);
    EXPECT_EQ(ReplayFiles::GetFileType("x.txt"), ReplayFiles::kNotReplayFile);
    // A directory wins over any extension.
    const std::string directory = MakeTargetDirectory("/logs.3X0");
    EXPECT_EQ(ReplayFiles::GetFileType(directory.c_str()), ReplayFiles::kDirectory);
    EXPECT_EQ(ReplayFiles::GetFileType(nullptr), ReplayFiles::kNotReplayFile);
}

TEST_F(ReplayFilesTest, ExistenceAndSizeTests) {
    const std::string file = WriteTargetFile("/data/five.bin", "12345");
    const std::string directory = Root() + "/data";
    EXPECT_TRUE(ReplayFiles::FileExists(file.c_str()));
    EXPECT_TRUE(ReplayFiles::FileExists(directory.c_str()));
    EXPECT_FALSE(ReplayFiles::FileExists((directory + "/missing").c_str()));
    EXPECT_FALSE(ReplayFiles::FileExists(nullptr));
    EXPECT_TRUE(ReplayFiles::DirectoryExists(directory.c_str()));
    EXPECT_FALSE(ReplayFiles::DirectoryExists(file.c_str()));
    EXPECT_EQ(ReplayFiles::GetFileSize(file.c_str()), 5u);
    EXPECT_EQ(ReplayFiles::GetFileSize((directory + "/missing").c_str()), 0xFFFFFFFFu);
}

TEST_F(ReplayFilesTest, SupportFileSearchOrder) {
    // Parent of the working directory is the last resort.
    WriteTargetFile("/support.txt", "parent");
    std::string found;
    ASSERT_TRUE(ReplayFiles::GetSupportFilePath("/nowhere/support.txt", found));
    EXPECT_EQ(found, Root() + "/support.txt");

    // The target's support directory is tried before the parent directory.
    WriteTargetFile(std::string(ReplayFiles::s_etfsSupportPath) + "/support.txt", "etfs");
    ASSERT_TRUE(ReplayFiles::GetSupportFilePath("/nowhere/support.txt", found));
    EXPECT_EQ(found, Root() + ReplayFiles::s_etfsSupportPath + "/support.txt");

    WriteTargetFile(std::string(ReplayFiles::s_supportPath) + "/support.txt", "mmc");
    ASSERT_TRUE(ReplayFiles::GetSupportFilePath("/nowhere/support.txt", found));
    EXPECT_EQ(found, Root() + ReplayFiles::s_supportPath + "/support.txt");

    // The working directory comes before both.
    WriteTargetFile("/work/support.txt", "work");
    ASSERT_TRUE(ReplayFiles::GetSupportFilePath("/nowhere/support.txt", found));
    EXPECT_EQ(ReplayTest::ReadFile(found), "work");

    // The path as given wins over everything.
    ASSERT_TRUE(ReplayFiles::GetSupportFilePath(Root() + "/support.txt", found));
    EXPECT_EQ(found, Root() + "/support.txt");

    EXPECT_FALSE(ReplayFiles::GetSupportFilePath("/nowhere/other.txt", found));
    EXPECT_EQ(found, Root() + "/other.txt");  // the last candidate tried
    EXPECT_FALSE(ReplayFiles::GetSupportFilePath("/nowhere/", found));
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

    std::string first;
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kDirectory, &first),
              (std::set<std::string>{"..", "sub1", "sub2.trc"}));
    EXPECT_EQ(first, "..");
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kTraceFile),
              (std::set<std::string>{"drive.trc", "drive.TRC0"}));
    EXPECT_EQ(Collect(base + "/", ReplayFiles::kLogFile), (std::set<std::string>{"drive.14XX"}));
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

    // Without a trailing separator every entry path is wrong: nothing is found.
    WriteTargetFile("/flat/a.trc", "");
    EXPECT_TRUE(Collect(Root() + "/flat", ReplayFiles::kTraceFile).empty());

    // Unreadable directory: whatever the permissions allow, it terminates.
    const std::string locked = MakeTargetDirectory("/locked");
    WriteTargetFile("/locked/x.trc", "");
    chmod(locked.c_str(), 0);
    EXPECT_LE(Collect(locked + "/", 7).size(), 2u);
    chmod(locked.c_str(), 0755);
}

TEST_F(ReplayFilesTest, WorkingDirectoryThatNoLongerExistsGivesEmptyText) {
    CapturedDebug debug;
    EXPECT_EQ(ReplayFiles::GetWorkingDirectory(), Root() + "/work");
    const std::string doomed = MakeTargetDirectory("/doomed");
    ASSERT_EQ(chdir(doomed.c_str()), 0);
    std::filesystem::remove(doomed);
    EXPECT_EQ(ReplayFiles::GetWorkingDirectory(), "");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Error Returned by GetCurrentDir"), 1);
    std::string found;
    EXPECT_FALSE(ReplayFiles::GetSupportFilePath("ReplayConfig.txt", found));
}

TEST_F(ReplayFilesTest, VersionReportWithoutTargetUtilitiesEndsQuietly) {
    // The system's own directories only: no "use", no "pidin".
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    CapturedDebug debug;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ReplayFiles::WriteReplayFileVersions(true);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "use command failed for ReplayManager"), 1);
    EXPECT_EQ(debug.Count("use command failed"), 1);  // the other "use" calls are skipped
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "failed\n"), 3);  // the process lookups
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "/version/version.txt not found"), 1);
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
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, ":   42 1 ReplayManager -v\n\n"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "/tmp/ReplayCL.txt is empty"), 1);  // " pmx"
    EXPECT_EQ(ReplayFiles::GetCommandLine("gpsfeed-dev"), "  43 1 gpsfeed-dev");

    // With the report present and no force, no command runs but it is reported again.
    std::filesystem::remove(calls);
    debug.Clear();
    ReplayFiles::WriteReplayFileVersions(false);
    EXPECT_FALSE(ReplayFiles::FileExists(calls.c_str()));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "NAME="), 4);
}

TEST_F(ReplayFilesTest, VersionReportParagraphsAndFailedUseCommand) {
    // The first "use" works, the second cannot run: the rest is skipped.
    InstallFakeProgram("use",
                       "echo \"record for $2\"\necho ok\n"
                       "rm -f \"$(dirname \"$0\")/use\"\n");
    CapturedDebug debug;
    ReplayFiles::WriteReplayFileVersions(true);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "use command failed for libreplay.so"), 1);
    EXPECT_EQ(debug.Count("use command failed"), 1);
    // The record ended with a short line and was reported; a paragraph still
    // open at the end of the file is not.
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, ": record for ReplayManager; \n"), 1);

    WriteTargetFile(ReplayFiles::kVersionReportFile, "open paragraph line\n");
    debug.Clear();
    ReplayFiles::WriteReplayFileVersions(false);
    EXPECT_EQ(debug.Count("open paragraph"), 0);
}

}  // namespace
