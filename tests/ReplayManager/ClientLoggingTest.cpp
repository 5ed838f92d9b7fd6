#include "ReplayManager/ClientLogging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "ReplayManager/ClientGlobals.h"
#include "libreplay/FileLogger.h"
#include "libreplay/ReplayDebug.h"
#include "libreplay/multicore.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayCore::FileLogger;
using ReplayTest::CapturedDebug;

constexpr int kConsoleQ = 'q';

int Occurrences(const std::string& text, const std::string& fragment) {
    int count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos;
         at = text.find(fragment, at + 1)) {
        ++count;
    }
    return count;
}

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
        if (m_reader >= 0) {
            close(m_reader);
        }
        FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }

    std::string Device() const { return Root() + ReplayInternal::kDefaultLoggerDevice; }
    // Creates the device as the logger service does, and a non-blocking reader
    // of it for the test.
    void MakeDeviceFifo() {
        MakeTargetDirectory("/kfsystem/multicore/navi");
        ASSERT_EQ(mkfifo(Device().c_str(), 0600), 0);
    }
    void OpenReader() {
        m_reader = open(Device().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(m_reader, 0);
    }
    // Everything written to the device since the last call.
    std::string Drain() {
        std::string out;
        char buffer[4096];
        ssize_t n;
        while ((n = read(m_reader, buffer, sizeof buffer)) > 0) {
            out.append(buffer, static_cast<size_t>(n));
        }
        return out;
    }
    std::string Log() const { return ReadTargetFile(FileLogger::kLogFileLocation); }

    int m_reader = -1;
};

TEST_F(ClientLoggingTest, DefaultHandlersFilterByConsoleLevelAndWriteWholeMessages) {
    MakeDeviceFifo();
    OpenReader();
    ReplayInternal::SetupDefaultMessageHandlers("navapp");
    ASSERT_GT(g_defaultLoggerFD.load(), 0);
    EXPECT_STREQ(DebugAppName(), "navapp");
    EXPECT_NE(Log().find("ReplayInternal: Setting up Default Logging for navapp"),
              std::string::npos);

    // Default console level 2: errors and warnings, no messages.
    dbgError("%s::%s: broken %d\n", DebugAppName(), "libReplay::T::f", 1);
    dbgWarning("%s::%s: careful\n", DebugAppName(), "libReplay::T::f");
    dbgMessage("%s::%s: chatter\n", DebugAppName(), "libReplay::T::f");
    EXPECT_EQ(Drain(),
              "Error:navapp::libReplay::T::f: broken 1\nnavapp::libReplay::T::f: careful\n");

    ASSERT_EQ(mi_setDebugLevel(kConsoleQ, 3), 1);
    dbgMessage("chatter %s", "now");
    EXPECT_EQ(Drain(), "chatter now");

    ASSERT_EQ(mi_setDebugLevel(kConsoleQ, 1), 1);
    dbgWarning("careful");
    dbgMessage("chatter");
    dbgError("still here");
    EXPECT_EQ(Drain(), "Error:still here");

    // Texts are cut to 255 characters; the error prefix comes on top.
    const std::string longText(400, 'x');
    dbgError("%s", longText.c_str());
    EXPECT_EQ(Drain(), "Error:" + std::string(255, 'x'));

    // Once the device is open, a repeated setup changes nothing.
    SetupLoggingHandlers("other", nullptr, nullptr, nullptr);
    ReplayInternal::SetupDefaultMessageHandlers("again");
    EXPECT_EQ(g_dbgErrorPtr.load(), nullptr);
}

TEST_F(ClientLoggingTest, ApplicationHandlersStayInstalled) {
    MakeDeviceFifo();
    CapturedDebug debug("hostapp");
    SetupDefaultMessageHandlers("navapp");
    EXPECT_STREQ(DebugAppName(), "hostapp");
    EXPECT_GT(g_defaultLoggerFD.load(), 0);  // opened all the same
    ReplayClient::LogClientMessage(FileLogger::eSeverityError, "went %s", "wrong");
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "hostapp::libReplay::ReplayClient::LogClientMessage: went wrong\n"),
              1);
}

TEST_F(ClientLoggingTest, NoLoggingPathBlocksOrRaisesWhateverTheDevice) {
    const auto everyPath = [] {
        for (int i = 0; i < 2000; ++i) {
            SetupDefaultMessageHandlers("navapp");
            dbgError("error %d with some text to fill the pipe faster ........", i);
            dbgWarning("warning %d with some text to fill the pipe faster ......", i);
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

    // Device missing.
    EXPECT_EQ(ReplayTest::RunInChildProcess(everyPath, 60s), 0);

    // A FIFO nobody reads: the process's own read end keeps writes from
    // raising SIGPIPE, and once the pipe is full messages are dropped.
    MakeDeviceFifo();
    EXPECT_EQ(ReplayTest::RunInChildProcess(everyPath, 60s), 0);
    EXPECT_EQ(ReplayTest::RunInChildProcess(
                  [&] {
                      ReplayInternal::SetupDefaultMessageHandlers("navapp");
                      const int fd = g_defaultLoggerFD.load();
                      const std::string chunk(4096, 'f');
                      while (write(fd, chunk.data(), chunk.size()) > 0) {
                      }
                      if (errno != EAGAIN) {
                          return 2;
                      }
                      return everyPath();
                  },
                  60s),
              0);

    // A reader that comes and goes.
    OpenReader();
    close(m_reader);
    m_reader = -1;
    EXPECT_EQ(ReplayTest::RunInChildProcess(everyPath, 60s), 0);
}

TEST_F(ClientLoggingTest, ConnectionFailuresAreReportedEveryFiftiethTimeUntil2000) {
    SetupLoggingHandlers("navapp", nullptr, nullptr, nullptr);
    const std::string notice = "navapp: Failed to open multicore, msg=No such file or directory";
    for (int i = 1; i <= 49; ++i) {
        EXPECT_EQ(ReplayInternal::ConnectToDefaultLogger(), 0);
    }
    EXPECT_EQ(Occurrences(Log(), notice), 0);
    ReplayInternal::ConnectToDefaultLogger();
    EXPECT_EQ(Occurrences(Log(), notice), 1);
    for (int i = 51; i <= 2000; ++i) {
        ReplayInternal::ConnectToDefaultLogger();
    }
    EXPECT_EQ(Occurrences(Log(), notice), 40);
    for (int i = 2001; i <= 2200; ++i) {
        ReplayInternal::ConnectToDefaultLogger();
    }
    EXPECT_EQ(Occurrences(Log(), notice), 40);

    // The device appearing later is still picked up.
    MakeDeviceFifo();
    EXPECT_EQ(ReplayInternal::ConnectToDefaultLogger(), 1);
    EXPECT_EQ(ReplayInternal::ConnectToDefaultLogger(), 0);
}

TEST_F(ClientLoggingTest, ClientMessagesRouteBySeverityAndLimitInformationInTheFile) {
    CapturedDebug debug("navapp");
    const std::string before = Log();
    ReplayClient::LogClientMessage(FileLogger::eSeverityError, "ab");
    ReplayClient::LogDebugMessage("ab");
    EXPECT_TRUE(debug.Lines().empty());
    EXPECT_EQ(Log(), before);

    ReplayClient::LogClientMessage(FileLogger::eSeverityAssert, "zero");
    ReplayClient::LogClientMessage(FileLogger::eSeverityWarning, "two");
    ReplayClient::LogClientMessage(FileLogger::eSeverityDebug, "four");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "LogClientMessage: zero"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "LogClientMessage: two"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, "LogClientMessage: four"), 1);

    // "four" was the first informational message; 24 more reach the file.
    for (int i = 2; i <= 26; ++i) {
        ReplayClient::LogClientMessage(FileLogger::eSeverityInfo, "info %02d", i);
    }
    ReplayClient::LogClientMessage(FileLogger::eSeverityError, "late error");
    const std::string log = Log();
    EXPECT_NE(log.find(":tester:info 25"), std::string::npos);
    EXPECT_EQ(log.find("info 26"), std::string::npos);
    EXPECT_NE(log.find(":tester:late error"), std::string::npos);
    EXPECT_NE(log.find(":tester:zero"), std::string::npos);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "info 26"), 1);
    // The file's own level (3) keeps severity 4 out regardless.
    EXPECT_EQ(log.find("four"), std::string::npos);

    ReplayClient::LogAssertion(77, "ReplayManager/X", "x > 0");
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "navapp::libReplay::ReplayClient::LogAssertion: Client tester: x > 0 at "
                          "line 77 of ReplayManager/X\n"),
              1);
}

TEST_F(ClientLoggingTest, DebugAndVerboseMessagesFollowTheLoggingLevels) {
    FileLogger::SetLogginglevel(5);
    CapturedDebug debug("navapp");
    ReplayClient::LogDebugMessage("detail %d", 7);
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, "LogDebugMessage: detail 7"), 1);
    EXPECT_NE(Log().find(":tester:detail 7"), std::string::npos);

    g_LoggingLevel = 4;
    ReplayClient::LogVerboseMessage("verbose one");
    EXPECT_EQ(Log().find("verbose one"), std::string::npos);

    g_LoggingLevel = 5;
    ReplayClient::LogVerboseMessage("ab");
    ReplayClient::LogVerboseMessage("verbose %s", "two");
    const std::string log = Log();
    EXPECT_EQ(Occurrences(log, ":tester:"), 2);  // the debug line and this one
    EXPECT_NE(log.find(":tester:verbose two"), std::string::npos);
    EXPECT_EQ(debug.Count("verbose"), 0);  // file only
}

}  // namespace
