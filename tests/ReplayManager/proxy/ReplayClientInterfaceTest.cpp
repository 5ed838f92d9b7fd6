#include <dlfcn.h>
#include <stdlib.h>

#include <cstdarg>
#include <string>

#include "libreplay/ReplayClientInterface.h"
#include "tests/support/TestSupport.h"

// Each test case runs in its own process: a library loaded by path answers the
// proxy's dlopen("libreplay.so") through its soname; otherwise none is found.

namespace {

using ReplayTest::Occurrences;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

int Replayed(void*, unsigned int, unsigned int) {
    return 1;
}

void Ignore(const char*, va_list) {}

class ReplayClientInterfaceTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        unsetenv("ENABLE_REPLAY");
    }
    static void* Install(const char* path) {
        void* handle = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
        EXPECT_NE(handle, nullptr) << dlerror();
        return handle;
    }
};

TEST_F(ReplayClientInterfaceTest, WithoutTheLibraryTheApplicationRunsUnrecorded) {
    CaptureStdout();
    EXPECT_EQ(CSafeReplayingLogFile(), 0);
    EXPECT_EQ(CSafeSendClientData("item", 4, kDataTypeAsciiText), 0);
    EXPECT_EQ(
        CSafeInitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 0);

    ReplayClientInterface& proxy = GetClientProxy();
    EXPECT_FALSE(proxy.IsLoaded());
    EXPECT_EQ(proxy.GetReplayState(), ReplayCore::eStateUnknown);
    EXPECT_EQ(proxy.SendClientData("item", 4, true, kDataTypeAsciiText), 0);
    proxy.DumpHexToFile("name", reinterpret_cast<const unsigned char*>("ab"), 2, 1);

    EXPECT_EQ(GetCapturedStdout(), "\nFailed to Load libreplay.so\nCSafeInitializeReplayClient");
}

TEST_F(ReplayClientInterfaceTest, WithTheLibraryCallsReachIt) {
    void* library = Install(REPLAY_LIBRARY_PATH);
    ASSERT_NE(library, nullptr);
    {
        CaptureStdout();
        ReplayClientInterface proxy;
        const std::string loaded = GetCapturedStdout();
        EXPECT_EQ(Occurrences(loaded, "Failed to Load"), 1) << loaded;
        EXPECT_EQ(Occurrences(loaded, "Failed to Load SetupLoggingHandlers"), 1);
        ASSERT_TRUE(proxy.IsLoaded());
        EXPECT_EQ(proxy.GetReplayState(), ReplayCore::eStateDisconnected);

        // So the library's default handlers are installed, not the given ones.
        proxy.SetupLoggingHandlers("ProxyApp", &Ignore, &Ignore, &Ignore);
        EXPECT_NE(
            ReadTargetFile("/tmp/ReplayLog.txt").find("Setting up Default Logging for ProxyApp"),
            std::string::npos);

        EXPECT_GT(proxy.DumpTextToFile("Proxy", "dumped"), 0);
        EXPECT_EQ(proxy.WriteReplayOutput("output"), 0);
        // Replay is not enabled here: either initialisation ends the client.
        EXPECT_EQ(
            proxy.InitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0),
            0);
        EXPECT_EQ(
            proxy.InitializeReplayClient("Nav", nullptr, kDataTypeAsciiText, false, nullptr, 0), 0);
        EXPECT_EQ(Occurrences(ReadTargetFile("/tmp/ReplayLog.txt"), "Replay System Disabled"), 2);
        EXPECT_EQ(proxy.GetReplayState(), ReplayCore::eStateShutDown);
        EXPECT_EQ(proxy.SendClientData("item", 4, true, kDataTypeAsciiText), 0);
        CaptureStdout();
    }
    EXPECT_EQ(Occurrences(GetCapturedStdout(), "\nUnloading libreplay.so"), 1);
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt").find("Proxy:dumped"), std::string::npos);
}

TEST_F(ReplayClientInterfaceTest, MissingEntryPointsTakeTheirEmptyPaths) {
    void* stub = Install(REPLAY_STUB_LIBRARY_PATH);
    ASSERT_NE(stub, nullptr);
    int* state = static_cast<int*>(dlsym(stub, "g_stubState"));
    int* sends = static_cast<int*>(dlsym(stub, "g_stubSends"));
    int* lastImmediate = static_cast<int*>(dlsym(stub, "g_stubLastImmediate"));
    ASSERT_TRUE(state != nullptr && sends != nullptr && lastImmediate != nullptr);

    CaptureStdout();
    {
        ReplayClientInterface proxy;
        EXPECT_EQ(
            proxy.InitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0),
            0);
        EXPECT_EQ(
            proxy.InitializeReplayClient("Nav", nullptr, kDataTypeAsciiText, false, nullptr, 0), 0);
        EXPECT_EQ(proxy.WriteReplayOutput("text"), 0);
        EXPECT_EQ(proxy.DumpTextToFile("name", "text"), 0);
        proxy.ShutDownClient(0);
        proxy.SetupLoggingHandlers("App", &Ignore, &Ignore, &Ignore);
        EXPECT_EQ(proxy.SendClientData("abc", 3, true, kDataTypeAsciiText), 3);
        EXPECT_EQ(*lastImmediate, 1);
    }
    const std::string printed = GetCapturedStdout();
    EXPECT_EQ(Occurrences(printed, "Failed to Load"), 7) << printed;

    *sends = 0;
    *state = ReplayCore::eStateReplay;
    EXPECT_EQ(CSafeReplayingLogFile(), 1);
    EXPECT_EQ(CSafeSendClientData("abc", 3, kDataTypeAsciiText), 0);
    *state = ReplayCore::eStateStopped;
    EXPECT_EQ(CSafeSendClientData("abc", 3, kDataTypeAsciiText), 0);
    EXPECT_EQ(*sends, 0);
    *state = ReplayCore::eStateRecord;
    EXPECT_EQ(CSafeReplayingLogFile(), 0);
    EXPECT_EQ(CSafeSendClientData("abcd", 4, kDataTypeAsciiText), 4);
    EXPECT_EQ(*sends, 1);
    EXPECT_EQ(*lastImmediate, 0);
}

}  // namespace
