#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "libreplay/ReplayClientC.h"
#include "libreplay/ReplayVersion.h"
#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;

int Replayed(void*, unsigned int, unsigned int) {
    return 1;
}

class ReplayClientExportsTest : public ClientFixture {
  protected:
    void SetUp() override {
        ClientFixture::SetUp();
        ReplayCore::SetClockSourceForTesting(nullptr);
    }
};

// The dynamic symbol table of the built libreplay.so, one name a line.
std::set<std::string> ExportedSymbols(bool demangled) {
    const std::string command = std::string("nm -D --defined-only ") + (demangled ? "-C " : "") +
                                REPLAY_BINARY_DIR "/lib/libreplay.so 2>/dev/null";
    std::set<std::string> names;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return names;
    }
    char line[4096];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }
        // "<address> <kind> <name>"
        const size_t kind = text.find(' ');
        if (kind != std::string::npos && kind + 3 <= text.size()) {
            names.insert(text.substr(kind + 3));
        }
    }
    pclose(pipe);
    return names;
}

TEST(ReplayClientExportList, SharedLibraryExportsOnlyItsPublicNames) {
    const std::set<std::string> raw = ExportedSymbols(false);
    if (raw.empty()) {
        GTEST_SKIP() << "nm is not available";
    }
    for (const char* name :
         {"CInitializeReplayClient", "CInitializeFromHandlerClass", "CSendClientData",
          "CGetReplayState", "CShutDownClient", "CWriteReplayOutput", "CDumpTextToFile",
          "CDumpHexToFile", "setLoggingHandlers", "CGetLibraryVersion"}) {
        EXPECT_EQ(raw.count(name), 1u) << name;
    }
    // The version the library reports is the one its headers were made with.
    EXPECT_STREQ(CGetLibraryVersion(), LIBREPLAY_VERSION);
    // The proxy's own entry points are not part of the library.
    EXPECT_EQ(raw.count("CSafeSendClientData"), 0u);

    const std::set<std::string> demangled = ExportedSymbols(true);
    EXPECT_EQ(demangled.count("ReplayClient::InitializeReplayClient(char const*, "
                              "ReplayClient::ReplayMessageHandlerBase*, unsigned int, bool, void "
                              "const*, unsigned int)"),
              1u);
    EXPECT_EQ(demangled.count("mi_setDebugLevel(int, int)"), 1u);
    for (const std::string& name : demangled) {
        // Internal client code and standard library templates stay inside.
        EXPECT_EQ(name.find("SetupConnection"), std::string::npos) << name;
        EXPECT_EQ(name.find("g_UDPSendBuffer"), std::string::npos) << name;
        EXPECT_NE(name.rfind("std::", 0), 0u) << name;
    }
}

TEST_F(ReplayClientExportsTest, EntryPointsDriveTheClient) {
    ASSERT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 1);
    EXPECT_EQ(CGetReplayState(), ReplayCore::eStateStopped);
    // Only one initialisation with callbacks per process.
    EXPECT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 0);

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateRecord);
    EXPECT_EQ(CSendClientData("buffered", 8, 0, kDataTypeAsciiText), 0);
    // Any non-zero flag sends at once, as a block of its own.
    EXPECT_GT(CSendClientData("at once", 7, 2, kDataTypeAsciiText), 0);
    bool immediate = false;
    for (const std::string& datagram : Received()) {
        immediate = immediate || datagram.find(":at once") != std::string::npos;
        EXPECT_EQ(datagram.find("buffered"), std::string::npos);
    }
    EXPECT_TRUE(immediate);
}

// A handler that takes every item; replay never starts in these tests.
class TakingHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    TakingHandler() : ReplayMessageHandlerBase(true) {}
    int ReplayCallback(void*, unsigned int, unsigned int) override { return 1; }
};

TEST_F(ReplayClientExportsTest, DisabledReplayReturnsAtOnceAndEndsTheClient) {
    unsetenv("ENABLE_REPLAY");
    ReplayTest::CapturedDebug debug;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText),
              0);
    TakingHandler handler;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &handler, kDataTypeAsciiText, false), 0);
    EXPECT_EQ(debug.Count("Replay System Disabled"), 2);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateShutDown);
    EXPECT_FALSE(clientReadThread.isRunning());
    EXPECT_EQ(ReplayClient::SendClientData("x", 1, false, kDataTypeAsciiText), 0);
    EXPECT_EQ(m_server.Count(), 0u);
}

}  // namespace
