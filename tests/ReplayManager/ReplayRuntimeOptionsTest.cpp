#include "libreplay/ReplayRuntimeOptions.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "libreplay/FileLogger.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;

const ReplayRuntimeOptions::KeyValPair kExpectedDefaults[eOptionsCount] = {
    {"replayEnabled", "1"},
    {"replayEnabledCookie", "/fs/etfs/REPLAY_ENABLED"},
    {"altReplayCookie", "/fs/usb0/REPLAY_ENABLED"},
    {"homePageLocation", "index.html"},
    {"networkShare", "/mnt/net"},
    {"replayOutputFile", "ReplayOutput.txt"},
    {"", ""},
    {"serverIP", "127.0.0.1"},
    {"hostIP", ""},
    {"validateResults", "0"},
    {"allowDisableGps", "0"},
    {"useTraceClient", "1"},
    {"temporaryFilesPath", "/tmp"},
    {"reconnectInterval", "150"},
    {"externalConnectWait", "20"},
    {"networkingLatency", "100"},
    {"serverLeadTime", "100"},
    {"targetConfigPath", "ReplayConfig.txt"},
    {"replayFileLocation", "/fs/etfs"},
    {"replayFileName", "Replay.trc"},
    {"outputFilePath", "/tmp"},
    {"", ""},
    {"HTTPServer", "1"},
    {"HTTPDebugLevel", "4"},
    {"serverUDPDebugLevel", "4"},
    {"clientUDPDebugLevel", "4"},
    {"loadInitializationData", "1"},
};

class ReplayRuntimeOptionsTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        unsetenv("ENABLE_REPLAY");
        // The target's replay directory; "/tmp" exists under every test root.
        MakeTargetDirectory("/fs/etfs");
    }
    void TearDown() override {
        unsetenv("ENABLE_REPLAY");
        TargetRootTest::TearDown();
    }

    // An options file in the working directory.
    std::string WriteOptions(const std::string& content, const std::string& name = "opts.txt") {
        return WriteTargetFile("/work/" + name, content);
    }

    std::string Log() const { return ReadTargetFile(ReplayCore::FileLogger::kLogFileLocation); }

    static void ExpectTable(const ReplayRuntimeOptions& options,
                            const ReplayRuntimeOptions::KeyValPair (&expected)[eOptionsCount]) {
        for (int index = 0; index < eOptionsCount; ++index) {
            const ReplayOptionsEnum ro = static_cast<ReplayOptionsEnum>(index);
            EXPECT_EQ(options.GetKey(ro), expected[index].key) << "entry " << index;
            EXPECT_EQ(options.GetStringValue(ro), expected[index].value) << "entry " << index;
        }
    }
};

TEST_F(ReplayRuntimeOptionsTest, WithoutAnyFileTheTableHoldsTheDefaults) {
    testing::internal::CaptureStdout();
    ReplayRuntimeOptions options(nullptr);
    const std::string out = testing::internal::GetCapturedStdout();

    ExpectTable(options, kExpectedDefaults);
    EXPECT_EQ(out, "Config File Path ReplayConfig.txt Not Found\n");
    EXPECT_NE(Log().find("Config File Path ReplayConfig.txt Not Found"), std::string::npos);
    EXPECT_EQ(options.GetConfigFilePath(), "ReplayConfig.txt");
    EXPECT_FALSE(options.IsFileOpened());
    // The on/off decision did not run: no marker file exists, yet the flag is set.
    EXPECT_TRUE(options.GetBooleanValue(eReplayEnabled));
    EXPECT_EQ(Log().find("Replay Disabled"), std::string::npos);
}

TEST_F(ReplayRuntimeOptionsTest, OptionsFileIsFoundInTheSupportDirectory) {
    const std::string path =
        WriteTargetFile("/fs/mmc0/app/share/replay/ReplayConfig.txt", "serverIP:10.1.1.1;\n");
    testing::internal::CaptureStdout();
    ReplayRuntimeOptions options(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Options file located at " + path + "\n");
    EXPECT_EQ(options.GetConfigFilePath(), path);
    EXPECT_TRUE(options.IsFileOpened());
    EXPECT_EQ(options.GetStringValue(eServerIP), "10.1.1.1");
    EXPECT_EQ(options.GetStringValue(eSupportFilePath), Root() + "/fs/mmc0/app/share/replay");

    // A file in the working directory is used as it is, without a search.
    WriteOptions("serverIP:10.2.2.2;\n", "ReplayConfig.txt");
    testing::internal::CaptureStdout();
    ReplayRuntimeOptions local(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(local.GetStringValue(eServerIP), "10.2.2.2");
    EXPECT_EQ(local.GetStringValue(eSupportFilePath), "");  // no directory part
}

TEST_F(ReplayRuntimeOptionsTest, LinesWithoutKeywordAndValueChangeNothing) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    const std::string path = WriteOptions(
        "// comment serverIP:1.1.1.1;\n"
        "/serverIP:1.1.1.1;\n"
        "\n"
        "serverIP 1.1.1.1;\n"
        "serverIP:1.1.1.1\n"
        "hostIP:no semicolon\r\n"
        "serverIP:127.0.0.1;\n");  // same as the default: no change
    EXPECT_FALSE(options.OpenOptionsFile(path.c_str()));
    EXPECT_TRUE(options.IsFileOpened());
    ReplayRuntimeOptions::KeyValPair expected[eOptionsCount];
    std::copy(std::begin(kExpectedDefaults), std::end(kExpectedDefaults), expected);
    expected[eSupportFilePath].value = Root() + "/work";
    ExpectTable(options, expected);
    EXPECT_EQ(Log().find("Replay Disabled"), std::string::npos);  // not re-evaluated
}

TEST_F(ReplayRuntimeOptionsTest, KeywordsAreExactAndValuesKeepEveryCharacter) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    CapturedDebug debug;
    EXPECT_TRUE(options.OpenOptionsFile(WriteOptions("serverIP: 10.0.0.2 ;trailing comment\n"
                                                     "hostIP:\thost\r;\r\n"
                                                     "homePageLocation:a:b;c;\n"
                                                     "ServerIP:10.9.9.9;\n"
                                                     "serverIP :10.9.9.9;\n"
                                                     ":/support/dir;\n"
                                                     "replayOutputFile:;\n")
                                            .c_str()));
    EXPECT_EQ(options.GetStringValue(eServerIP), " 10.0.0.2 ");
    EXPECT_EQ(options.GetStringValue(eHostIP), "\thost\r");
    EXPECT_EQ(options.GetStringValue(eHomePageLocation), "a:b");
    EXPECT_EQ(options.GetStringValue(eSupportFilePath), "/support/dir");
    EXPECT_EQ(options.GetStringValue(eReplayOutputFile), "");
    EXPECT_EQ(options.GetStringValue(eReservedOption), "");
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Keyword ServerIP not recognized"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Keyword serverIP  not recognized"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, "Reading Config File "), 1);

    // A reload keeps what the new file does not name.
    EXPECT_TRUE(options.OpenOptionsFile(WriteOptions("hostIP:h2;\n", "second.txt").c_str()));
    EXPECT_EQ(options.GetStringValue(eServerIP), " 10.0.0.2 ");
    EXPECT_EQ(options.GetStringValue(eHostIP), "h2");
    EXPECT_EQ(options.GetConfigFilePath(), Root() + "/work/second.txt");
}

TEST_F(ReplayRuntimeOptionsTest, TypedGettersAndSetters) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    struct {
        const char* value;
        bool expected;
    } const booleans[] = {{"true", true},   {"1", true},     {"01", true}, {"1abc", true},
                          {"TRUE", false},  {"True", false}, {"2", false}, {"yes", false},
                          {"false", false}, {"", false},     {" 1", true}, {"true ", false}};
    for (const auto& test : booleans) {
        options.SetStringValue(eValidateResults, test.value);
        EXPECT_EQ(options.GetBooleanValue(eValidateResults), test.expected) << test.value;
    }

    options.SetStringValue(eReconnectInterval, "250ms");
    EXPECT_EQ(options.GetIntegerValue(eReconnectInterval), 250);
    options.SetStringValue(eReconnectInterval, "none");
    EXPECT_EQ(options.GetIntegerValue(eReconnectInterval), 0);
    EXPECT_TRUE(options.SetIntegerValue(eReconnectInterval, 1234567890));
    EXPECT_EQ(options.GetStringValue(eReconnectInterval), "123456789");
    EXPECT_TRUE(options.SetIntegerValue(eReconnectInterval, -2147483647 - 1));
    EXPECT_EQ(options.GetStringValue(eReconnectInterval), "-21474836");

    // Out-of-range indices are recorded as assertions and answered neutrally.
    const ReplayOptionsEnum beyond = eOptionsCount;
    const ReplayOptionsEnum negative = static_cast<ReplayOptionsEnum>(-1);
    EXPECT_EQ(options.GetStringValue(beyond), "");
    EXPECT_EQ(options.GetIntegerValue(beyond), -1);
    EXPECT_FALSE(options.GetBooleanValue(negative));
    EXPECT_FALSE(options.SetIntegerValue(beyond, 1));
    EXPECT_FALSE(options.SetStringValue(beyond, "x"));
    const std::string log = Log();
    EXPECT_NE(log.find("eOptionsCount>ro at line"), std::string::npos);
    EXPECT_NE(log.find("eOptionsCount > ro at line"), std::string::npos);
    EXPECT_NE(log.find("of ReplayManager/ReplayRuntimeOptions"), std::string::npos);
}

TEST_F(ReplayRuntimeOptionsTest, ReplayIsEnabledByEnvironmentOrMarkerFile) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    CapturedDebug debug;
    EXPECT_FALSE(options.ReplayEnabled());
    EXPECT_FALSE(options.GetBooleanValue(eReplayEnabled));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning,
                          "/fs/etfs/REPLAY_ENABLED and /fs/usb0/REPLAY_ENABLED Not Found, "
                          "Replay Disabled"),
              1);

    setenv("ENABLE_REPLAY", "", 1);
    EXPECT_TRUE(options.ReplayEnabled());
    EXPECT_NE(Log().find("Enable Replay is Set"), std::string::npos);
    unsetenv("ENABLE_REPLAY");

    WriteTargetFile("/fs/usb0/REPLAY_ENABLED", "");
    EXPECT_TRUE(options.ReplayEnabled());
    std::filesystem::remove(Root() + "/fs/usb0/REPLAY_ENABLED");

    // A marker named by the options file, relative to the working directory.
    WriteOptions("", "marker");
    EXPECT_TRUE(options.OpenOptionsFile(WriteOptions("replayEnabledCookie:marker;\n").c_str()));
    EXPECT_TRUE(options.ReplayEnabled());
}

TEST_F(ReplayRuntimeOptionsTest, AChangingFileReevaluatesTheSwitch) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    EXPECT_TRUE(options.GetBooleanValue(eReplayEnabled));
    // The file asks for replay, but with no marker and no environment it is off.
    EXPECT_TRUE(options.OpenOptionsFile(WriteOptions("replayEnabled:1;\nhostIP:x;\n").c_str()));
    EXPECT_FALSE(options.GetBooleanValue(eReplayEnabled));
}

TEST_F(ReplayRuntimeOptionsTest, MissingDirectoriesFallBackToTheTemporaryPath) {
    const std::string missing = WriteOptions(
        "temporaryFilesPath:/no/such/dir;\nreplayFileLocation:/no/other;\n", "missing.txt");
    ReplayRuntimeOptions fallback(missing.c_str());
    EXPECT_EQ(fallback.GetStringValue(eTemporaryFilesPath), "/tmp");
    EXPECT_EQ(fallback.GetStringValue(eReplayFileLocation), "/tmp");

    MakeTargetDirectory("/data");
    const std::string custom =
        WriteOptions("temporaryFilesPath:/data;\nreplayFileLocation:/no/other;\n", "custom.txt");
    ReplayRuntimeOptions kept(custom.c_str());
    EXPECT_EQ(kept.GetStringValue(eTemporaryFilesPath), "/data");  // as written, not resolved
    EXPECT_EQ(kept.GetStringValue(eReplayFileLocation), "/data");

    // A reload does not repeat the checks.
    EXPECT_TRUE(kept.OpenOptionsFile(missing.c_str()));
    EXPECT_EQ(kept.GetStringValue(eTemporaryFilesPath), "/no/such/dir");
}

TEST_F(ReplayRuntimeOptionsTest, NetworkShareIsUsedOnlyWhenWritable) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    CapturedDebug debug;
    EXPECT_EQ(options.GetNetworkSharePath(), "");
    EXPECT_EQ(options.GetResultsFilePath(true), "/tmp");
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Failed to Write to Network Share:/mnt/net"), 2);

    MakeTargetDirectory("/mnt/net");
    EXPECT_EQ(options.GetNetworkSharePath(), "/mnt/net");
    EXPECT_TRUE(std::filesystem::exists(Root() + "/mnt/net/junk.txt"));
    EXPECT_EQ(options.GetResultsFilePath(true), "/mnt/net");
    EXPECT_EQ(options.GetResultsFilePath(false), "/tmp");
}

TEST_F(ReplayRuntimeOptionsTest, DisplayOptionsListsEveryEntry) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    options.SetStringValue(eHostIP, std::string(200, 'h'));
    CapturedDebug debug;
    options.DisplayOptions();
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, "DisplayOptions:      "), eOptionsCount);
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, ":      serverIP = 127.0.0.1; \n"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, ":       = ; \n"), 1);  // reserved entry
    // Long entries are cut to 127 characters.
    EXPECT_EQ(
        debug.Count(CapturedDebug::kMessage, ":      hostIP = " + std::string(118, 'h') + "\n"), 1);
    EXPECT_NE(Log().find("Replay Options: replayEnabled = 1; "), std::string::npos);
}

TEST_F(ReplayRuntimeOptionsTest, BadFilesAndPathsNeverBreakTheTable) {
    ReplayRuntimeOptions options(WriteOptions("").c_str());
    CapturedDebug debug;

    std::mt19937 random(7);
    std::string binary(64 * 1024, '\0');
    for (char& c : binary) {
        c = static_cast<char>(random());
    }
    options.OpenOptionsFile(WriteOptions(binary, "binary.bin").c_str());

    const std::string longLine(100000, 'k');
    EXPECT_FALSE(options.OpenOptionsFile(WriteOptions(longLine, "long1.txt").c_str()));
    EXPECT_TRUE(
        options.OpenOptionsFile(WriteOptions("hostIP:" + longLine + ";\n", "long2.txt").c_str()));
    EXPECT_EQ(options.GetStringValue(eHostIP).size(), longLine.size());
    options.OpenOptionsFile(WriteOptions(longLine + ":v;\n", "long3.txt").c_str());

    // A directory, a missing file, an empty name.
    EXPECT_FALSE(options.OpenOptionsFile((Root() + "/fs").c_str()));
    EXPECT_FALSE(options.OpenOptionsFile((Root() + "/absent.txt").c_str()));
    EXPECT_FALSE(options.IsFileOpened());
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unable to Open Config File"), 1);
    EXPECT_NE(Log().find("Unable to Open Config File %s\n:" + Root() + "/absent.txt"),
              std::string::npos);
    EXPECT_FALSE(options.OpenOptionsFile(""));
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unable to Open Config File"), 2);
    EXPECT_FALSE(options.OpenOptionsFile(nullptr));
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "NULL pFileName and configFilePath"), 1);
    EXPECT_EQ(options.GetStringValue(eServerIP), "127.0.0.1");
}

TEST_F(ReplayRuntimeOptionsTest, ConstructionInAVanishedWorkingDirectory) {
    const std::string doomed = MakeTargetDirectory("/doomed");
    ASSERT_EQ(chdir(doomed.c_str()), 0);
    std::filesystem::remove(doomed);
    testing::internal::CaptureStdout();
    ReplayRuntimeOptions options(nullptr);
    testing::internal::GetCapturedStdout();
    ExpectTable(options, kExpectedDefaults);
}

TEST_F(ReplayRuntimeOptionsTest, ReadsStayWholeWhileAnotherThreadReloads) {
    ReplayCore::FileLogger::SetLogginglevel(-1);
    setenv("ENABLE_REPLAY", "1", 1);  // keep the switch stable during reloads
    const std::string first = WriteOptions("serverIP:10.0.0.1;\nhostIP:first;\n", "a.txt");
    const std::string second = WriteOptions("serverIP:10.0.0.2;\nhostIP:second;\n", "b.txt");
    ReplayRuntimeOptions options(first.c_str());
    std::atomic<bool> done{false};
    std::thread reloader([&] {
        for (int round = 0; round < 200; ++round) {
            options.OpenOptionsFile(round % 2 == 0 ? second.c_str() : first.c_str());
        }
        done = true;
    });
    int reads = 0;
    while (!done || reads == 0) {
        const std::string server = options.GetStringValue(eServerIP);
        EXPECT_TRUE(server == "10.0.0.1" || server == "10.0.0.2") << server;
        const std::string host = options.GetStringValue(eHostIP);
        EXPECT_TRUE(host == "first" || host == "second") << host;
        (void)options.GetConfigFilePath();
        ++reads;
    }
    reloader.join();
    ReplayCore::FileLogger::ResetForTesting();
    EXPECT_EQ(options.GetStringValue(eServerIP), "10.0.0.1");
}

TEST_F(ReplayRuntimeOptionsTest, TheSharedInstanceIsCreatedOnce) {
    testing::internal::CaptureStdout();
    ReplayRuntimeOptions& shared = ReplayRuntimeOptions::Get();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(&shared, &ReplayRuntimeOptions::Get());
    EXPECT_EQ(shared.GetKey(eServerIP), "serverIP");
}

}  // namespace
