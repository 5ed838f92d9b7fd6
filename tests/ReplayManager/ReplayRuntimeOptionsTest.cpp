#include "libreplay/server/ReplayRuntimeOptions.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "libreplay/server/FileLogger.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;
class ReplayRuntimeOptionsTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        unsetenv("ENABLE_REPLAY");
        MakeTargetDirectory("/fs/etfs");  // "/tmp" exists under every test root
    }
    std::string Options(const std::string& content, const std::string& name = "opts.txt") {
        return WriteTargetFile("/work/" + name, content);
    }
};

TEST_F(ReplayRuntimeOptionsTest, KeywordsAreExactAndValuesKeepEveryCharacter) {
    ReplayRuntimeOptions options(Options("").c_str());
    CapturedDebug debug;
    EXPECT_TRUE(options.OpenOptionsFile(Options("serverIP: 10.0.0.2 ;trailing comment\n"
                                                "hostIP:\thost\r;\r\n"
                                                "homePageLocation:a:b;c;\n"
                                                "ServerIP:10.9.9.9;\n"
                                                "serverIP :10.9.9.9;\n"
                                                ":/support/dir;\n")
                                            .c_str()));
    EXPECT_EQ(options.GetStringValue(eServerIP), " 10.0.0.2 ");
    EXPECT_EQ(options.GetStringValue(eHostIP), "\thost\r");
    EXPECT_EQ(options.GetStringValue(eHomePageLocation), "a:b");
    EXPECT_EQ(options.GetStringValue(eSupportFilePath), "/support/dir");
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Keyword ServerIP not recognized"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Keyword serverIP  not recognized"), 1);

    EXPECT_TRUE(options.OpenOptionsFile(Options("hostIP:h2;\n", "second.txt").c_str()));
    EXPECT_EQ(options.GetStringValue(eServerIP), " 10.0.0.2 ");
    EXPECT_EQ(options.GetStringValue(eHostIP), "h2");
}

TEST_F(ReplayRuntimeOptionsTest, BooleanOptionIsOnlyTrueForOneOrTheWordTrue) {
    const std::pair<const char*, bool> values[] = {
        {"1", true},   {"true", true},  {"01", true},    {" 1", true},  {"1x", true},
        {"0", false},  {"2", false},    {"-1", false},   {"11", false}, {"yes", false},
        {"on", false}, {"TRUE", false}, {"True", false}, {"", false},
    };
    ReplayRuntimeOptions options(Options("").c_str());
    EXPECT_TRUE(options.GetBooleanValue(eHTTPServer));  // on by default
    for (const auto& value : values) {
        options.SetStringValue(eHTTPServer, value.first);
        EXPECT_EQ(options.GetBooleanValue(eHTTPServer), value.second) << '"' << value.first << '"';
    }
    ASSERT_TRUE(options.OpenOptionsFile(Options("HTTPServer:2;\n", "two.txt").c_str()));
    EXPECT_FALSE(options.GetBooleanValue(eHTTPServer));
    ASSERT_TRUE(options.OpenOptionsFile(Options("HTTPServer:1;\n", "one.txt").c_str()));
    EXPECT_TRUE(options.GetBooleanValue(eHTTPServer));
}

TEST_F(ReplayRuntimeOptionsTest, ReplayIsEnabledByEnvironmentOrMarkerFile) {
    ReplayRuntimeOptions options(Options("").c_str());
    CapturedDebug debug;
    EXPECT_FALSE(options.ReplayEnabled());
    EXPECT_FALSE(options.GetBooleanValue(eReplayEnabled));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning,
                          "/fs/etfs/REPLAY_ENABLED and "
                          "/fs/usb0/REPLAY_ENABLED Not Found"),
              1);
    // A changing file re-evaluates the switch, whatever it says.
    EXPECT_TRUE(options.OpenOptionsFile(Options("replayEnabled:1;\nhostIP:x;\n").c_str()));
    EXPECT_FALSE(options.GetBooleanValue(eReplayEnabled));

    setenv("ENABLE_REPLAY", "", 1);
    EXPECT_TRUE(options.ReplayEnabled());
    unsetenv("ENABLE_REPLAY");
    WriteTargetFile("/fs/usb0/REPLAY_ENABLED", "");
    EXPECT_TRUE(options.ReplayEnabled());
}

TEST_F(ReplayRuntimeOptionsTest, MissingDirectoriesFallBackToTheTemporaryPath) {
    const std::string missing =
        Options("temporaryFilesPath:/no/dir;\nreplayFileLocation:/no/other;\n", "missing.txt");
    ReplayRuntimeOptions fallback(missing.c_str());
    EXPECT_EQ(fallback.GetStringValue(eTemporaryFilesPath), "/tmp");
    EXPECT_EQ(fallback.GetStringValue(eReplayFileLocation), "/tmp");

    MakeTargetDirectory("/data");
    ReplayRuntimeOptions kept(
        Options("temporaryFilesPath:/data;\nreplayFileLocation:/no/other;\n", "data.txt").c_str());
    EXPECT_EQ(kept.GetStringValue(eTemporaryFilesPath), "/data");  // as written, not resolved
    EXPECT_EQ(kept.GetStringValue(eReplayFileLocation), "/data");
    EXPECT_EQ(kept.GetResultsFilePath(true), "/data");
    MakeTargetDirectory("/mnt/net");
    EXPECT_EQ(kept.GetResultsFilePath(true), "/mnt/net");
    EXPECT_TRUE(std::filesystem::exists(Root() + "/mnt/net/junk.txt"));
}

TEST_F(ReplayRuntimeOptionsTest, ReadsStayWholeWhileAnotherThreadReloads) {
    ReplayCore::FileLogger::SetLogginglevel(-1);
    setenv("ENABLE_REPLAY", "1", 1);  // keeps the switch stable during reloads
    const std::string first = Options("serverIP:10.0.0.1;\nhostIP:first;\n", "a.txt");
    const std::string second = Options("serverIP:10.0.0.2;\nhostIP:second;\n", "b.txt");
    ReplayRuntimeOptions options(first.c_str());
    std::atomic<bool> done{false};
    std::thread reloader([&] {
        for (int round = 0; round < 200; ++round) {
            options.OpenOptionsFile(round % 2 == 0 ? second.c_str() : first.c_str());
        }
        done = true;
    });
    while (!done) {
        const std::string server = options.GetStringValue(eServerIP);
        EXPECT_TRUE(server == "10.0.0.1" || server == "10.0.0.2") << server;
        const std::string host = options.GetStringValue(eHostIP);
        EXPECT_TRUE(host == "first" || host == "second") << host;
    }
    reloader.join();
    EXPECT_EQ(options.GetStringValue(eServerIP), "10.0.0.1");
}

}  // namespace
