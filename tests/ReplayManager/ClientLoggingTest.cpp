#include "ReplayManager/ClientLogging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "ReplayManager/ClientGlobals.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/multicore.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::CapturedDebug;
using ServerTest::ReadAvailable;

constexpr int kConsoleQ = 'q';

class ClientLoggingTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        ReplayInternal::ResetClientLoggingForTesting();
        g_LoggingLevel = 4;
        g_clientName = "tester";
    }
    void TearDown() override {
        SetupLoggingHandlers("appNameNotSet", nullptr, nullptr, nullptr);
        ReplayInternal::ResetClientLoggingForTesting();
        mi_setDebugLevel(kConsoleQ, -1);
        TargetRootTest::TearDown();
    }
    int MakeDeviceFifo() {
        MakeTargetDirectory("/kfsystem/multicore/navi");
        const std::string device = Root() + ReplayInternal::kDefaultLoggerDevice;
        EXPECT_EQ(mkfifo(device.c_str(), 0600), 0);
        return open(device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
};

TEST_F(ClientLoggingTest, DefaultHandlersFilterByConsoleLevelAndWriteWholeTexts) {
    const int reader = MakeDeviceFifo();
    ASSERT_GE(reader, 0);
    ReplayInternal::SetupDefaultMessageHandlers("navapp");
    ASSERT_GT(g_defaultLoggerFD.load(), 0);
    EXPECT_STREQ(DebugAppName(), "navapp");

    dbgError("%s::%s: broken %d\n", DebugAppName(), "libReplay::T::f", 1);
    dbgWarning("careful\n");
    dbgMessage("chatter\n");
    EXPECT_EQ(ReadAvailable(reader), "Error:navapp::libReplay::T::f: broken 1\ncareful\n");
    mi_setDebugLevel(kConsoleQ, 3);
    dbgMessage("chatter");
    EXPECT_EQ(ReadAvailable(reader), "chatter");
    mi_setDebugLevel(kConsoleQ, 1);
    dbgWarning("careful");
    dbgError("%s", std::string(400, 'x').c_str());  // cut to 255 after the prefix
    EXPECT_EQ(ReadAvailable(reader), "Error:" + std::string(255, 'x'));
    close(reader);

    ReplayInternal::ResetClientLoggingForTesting();
    CapturedDebug debug("hostapp");
    SetupDefaultMessageHandlers("navapp");
    EXPECT_STREQ(DebugAppName(), "hostapp");
    EXPECT_GT(g_defaultLoggerFD.load(), 0);
}

TEST_F(ClientLoggingTest, NoLoggingPathBlocksOrRaisesWhateverTheDevice) {
    const auto everyPath = [] {
        const std::string filler(200, '.');
        for (int i = 0; i < 2000; ++i) {
            SetupDefaultMessageHandlers("navapp");
            dbgError("error %d %s", i, filler.c_str());
            dbgWarning("warning %d %s", i, filler.c_str());
            dbgMessage("message %d", i);
            ReplayClient::LogClientMessage(i % 5, "client message %d", i);
            ReplayClient::LogDebugMessage("debug message %d", i);
            ReplayClient::LogVerboseMessage("verbose message %d", i);
            ReplayClient::LogAssertion(i, "file", "expression");
        }
        return 0;
    };
    mi_setDebugLevel(kConsoleQ, 3);
    g_LoggingLevel = 5;
    EXPECT_EQ(ReplayTest::RunInChildProcess(everyPath, 60s), 0) << "device missing";

    // The process's own read end keeps writes from raising SIGPIPE.
    close(MakeDeviceFifo());
    EXPECT_EQ(ReplayTest::RunInChildProcess(everyPath, 60s), 0) << "FIFO without reader";
    const auto fillFirst = [&] {
        ReplayInternal::SetupDefaultMessageHandlers("navapp");
        const std::string chunk(4096, 'f');
        while (write(g_defaultLoggerFD.load(), chunk.data(), chunk.size()) > 0) {
        }
        return errno == EAGAIN ? everyPath() : 2;
    };
    EXPECT_EQ(ReplayTest::RunInChildProcess(fillFirst, 60s), 0) << "full pipe";
}

}  // namespace
