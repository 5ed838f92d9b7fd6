#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/reference/MulticoreTestSupport.h"

namespace {

using MulticoreTest::Record;

// Lines and arguments of each call of the recording command.
std::vector<std::string> g_calls;
const char* RecordingCommand(const char* line, int argument) {
    g_calls.push_back(std::string(line != nullptr ? line : "(repeat)") + "/" +
                      std::to_string(argument));
    return "first";
}
const char* OtherCommand(const char*, int) {
    return "second";
}

class MulticoreConsoleTest : public MulticoreTest::Fixture {
  protected:
    void SetUp() override {
        MulticoreTest::Fixture::SetUp();
        g_calls.clear();
    }

    // Runs one command line; returns its reply and the console lines it
    // printed (from this call only).
    std::string Run(const char* line, std::vector<std::string>* printed = nullptr,
                    int argument = 0) {
        mi_flushBuffer();
        const size_t before = Records().size();
        const char* reply = miInternal_aclineMain(line, argument);
        mi_flushBuffer();
        const std::vector<Record> records = Records();
        if (printed != nullptr) {
            printed->clear();
            for (size_t index = before; index < records.size(); ++index) {
                printed->push_back(records[index].text);
            }
        }
        return reply != nullptr ? reply : "(null)";
    }
    std::vector<std::string> Printed(const char* line) {
        std::vector<std::string> printed;
        Run(line, &printed);
        return printed;
    }
};

TEST_F(MulticoreConsoleTest, DebugLevelsFallBackToTheDefault) {
    EXPECT_FALSE(mi_checkDebugLevel('a', 3));  // default 2
    EXPECT_EQ(mi_setDebugLevel('a', 4), 0);
    EXPECT_EQ(mi_setDebugLevel('a', 0), 1);
    EXPECT_FALSE(mi_checkDebugLevel('a', 1));
    EXPECT_EQ(mi_setDefaultDebugLevel(4), 0);
    EXPECT_EQ(mi_setDefaultDebugLevel(3), 1);
    EXPECT_EQ(m_systemLog.Count(" change debug level to 3"), 1);
    EXPECT_EQ(mi_getDebugLevel('a'), 0);  // its own level stays
    EXPECT_EQ(mi_setDebugLevel('a', -1), 1);
    EXPECT_EQ(mi_getDebugLevel('a'), 3);
}

TEST_F(MulticoreConsoleTest, DispatchIgnoresCaseAndTakesTheLongestPrefix) {
    mi_aclineSetFunction("abc", &RecordingCommand, nullptr);
    mi_aclineSetFunction("abcdef", &OtherCommand, nullptr);
    mi_aclineSetFunction("xy", &OtherCommand, nullptr);
    mi_aclineSetFunction("XY", &RecordingCommand, nullptr);  // a different name

    EXPECT_EQ(Run("ABCDEFG"), "second");
    EXPECT_EQ(Run("abcd", nullptr, 17), "first");
    EXPECT_EQ(Run("AbC"), "first");
    EXPECT_EQ(Run("xYz"), "second");  // equal prefixes: the earlier entry
    EXPECT_EQ(Run("XY"), "second");   // exact matches ignore case too
    EXPECT_EQ(g_calls, (std::vector<std::string>{"abcd/17", "AbC/0"}));
}

TEST_F(MulticoreConsoleTest, NullLineRepeatsThePreviousCommand) {
    EXPECT_EQ(Run(nullptr), "ERROR : No acline command found");
    mi_aclineSetFunction("rec", &RecordingCommand, nullptr);
    EXPECT_EQ(Run("rec 1"), "first");
    EXPECT_EQ(Run(nullptr, nullptr, 5), "first");
    EXPECT_EQ(g_calls, (std::vector<std::string>{"rec 1/0", "(repeat)/5"}));

    std::vector<std::string> printed;
    EXPECT_EQ(Run("nosuch", &printed), "ERROR : No acline command found");
    EXPECT_EQ(printed, std::vector<std::string>{"unknown acline cmd 'nosuch'\n"});
    EXPECT_EQ(Run(nullptr), "ERROR : No acline command found");  // nothing to repeat now

    mi_aclineSetFunction("rec", nullptr, nullptr);
    EXPECT_EQ(Run("rec 2", &printed), "ERROR : No acline command found");
    EXPECT_EQ(printed, std::vector<std::string>{"acline cmd 'rec 2' (prefix 'rec') removed\n"});
    // A removed command comes back under its old entry.
    EXPECT_EQ(mi_aclineSetFunction("rec", &OtherCommand, nullptr), 1);
    EXPECT_EQ(Run("rec"), "second");
}

TEST_F(MulticoreConsoleTest, RegistrationLimits) {
    const std::string fifteen(15, 'n');
    const std::string sixteen(16, 'n');
    EXPECT_EQ(mi_aclineSetFunction(sixteen.c_str(), &RecordingCommand, nullptr), 0);
    EXPECT_EQ(mi_aclineSetFunction(fifteen.c_str(), &RecordingCommand, nullptr), 1);
    EXPECT_EQ(mi_aclineSetFunction(nullptr, &RecordingCommand, nullptr), 0);
    EXPECT_EQ(mi_aclineSetFunction(fifteen.c_str(), &OtherCommand, nullptr), 1);
    for (int entry = 1; entry < 100; ++entry) {
        const std::string name = "cmd" + std::to_string(entry);
        ASSERT_EQ(mi_aclineSetFunction(name.c_str(), &RecordingCommand, nullptr), 1);
    }
    EXPECT_EQ(mi_aclineSetFunction("cmd100", &RecordingCommand, nullptr), 0);
    EXPECT_EQ(mi_aclineSetFunction("cmd99", &OtherCommand, nullptr), 1);  // replacing still works

    const std::vector<std::string> texts = FlushedTexts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], "acline_set_function('" + sixteen + "') failed, prefix too long\n");
    EXPECT_EQ(texts[1].rfind("acline_set_function('" + fifteen + "'): change function from ", 0),
              0u);
    EXPECT_EQ(texts[2], "acline_set_function('cmd100') failed, no free entries\n");
    EXPECT_EQ(Records()[0].console, 'f');

    // Level 1 messages on console 'f' follow its debug level.
    mi_setDebugLevel('f', 0);
    mi_aclineSetFunction(sixteen.c_str(), &RecordingCommand, nullptr);
    EXPECT_EQ(FlushedTexts().size(), 4u);
}

TEST_F(MulticoreConsoleTest, SetAndShowDebugLevelCommands) {
    miInternal_setInternalACLineFuntions();
    EXPECT_EQ(Printed("showdbglvl"), std::vector<std::string>{"All Consoles at default 2\n"});
    EXPECT_EQ(Printed("setdbglvl a,3"),
              std::vector<std::string>{"setDbgLvl: a ok actual dbglvl 3\n"});
    EXPECT_EQ(mi_getDebugLevel('a'), 3);
    EXPECT_EQ(Printed("SETDBGLVL  a , 4"),
              std::vector<std::string>{"setDbgLvl: a failed actual dbglvl 3\n"});
    EXPECT_EQ(Printed("setdbglvl b,x"),
              std::vector<std::string>{"setDbgLvl: b failed actual dbglvl 2\n"});
    EXPECT_TRUE(Printed("setdbglvl a 3").empty());  // no ','
    mi_setDebugLevel(7, 1);
    EXPECT_EQ(
        Printed("showdbglvl extra"),
        (std::vector<std::string>{"Console ? (7) : set to 1\n", "Console a (97) : set to 3\n"}));
    EXPECT_EQ(Printed("setdbglvl a,-1"),
              std::vector<std::string>{"setDbgLvl: a ok actual dbglvl 2\n"});
}

TEST_F(MulticoreConsoleTest, StatisticsConfigurationFlushAndLockCommands) {
    miInternal_setInternalACLineFuntions();
    mi_multicoreLog('D', 0, "counted");

    std::vector<std::string> printed = Printed("Cout-stats");
    ASSERT_GE(printed.size(), 12u);
    EXPECT_EQ(printed[0], "blockBuffer_OpenCount   1\n");
    EXPECT_EQ(printed[6], "lostPrintfErrorCount  0\n");
    EXPECT_EQ(printed[7], "cppStats\n\n");  // then the pool statistics
    EXPECT_NE(
        std::find(printed.begin(), printed.end(), "Console D ( 68) :      1 sent      8 bytes\n"),
        printed.end());

    // Any report of the interface has by now stored the process id as its name.
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(Printed("config"),
              (std::vector<std::string>{"multiFilename NULL, processName " + pid + "\n",
                                        "MI_CPP_SUPPORT_MAX_BUFFERS = 100\n",
                                        "MI_MULTICORE_BUFFER_SIZE   = 102\n"}));
    mi_setLogProcessName("navi");

    // "flush" writes its own line at once, with whatever was queued before it.
    mi_flushBuffer();
    mi_multicoreLog('a', 0, "queued");
    miInternal_aclineMain("flush", 0);
    const std::vector<Record> records = Records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].text, "queued\n");
    EXPECT_EQ(records.back().text, "Flush output buffer\n");

    EXPECT_EQ(Run("check-locks", &printed), "check Locks completed");
    EXPECT_TRUE(printed.empty());
    EXPECT_EQ(m_systemLog.Count("navi VALIDATE_LOCKS not configured"), 1);
}

TEST_F(MulticoreConsoleTest, PrintTestSendsEveryLineLength) {
    miInternal_setInternalACLineFuntions();
    std::vector<std::string> printed;
    EXPECT_EQ(Run("print-test", &printed), "print test completed");
    ASSERT_EQ(printed.size(), 103u);
    EXPECT_EQ(printed[0], "Print Test for Buffer size 102\n");
    EXPECT_EQ(printed[1], "\n");
    EXPECT_EQ(printed[4], "345\n");
    EXPECT_EQ(printed[102].size(), 102u);
    EXPECT_EQ(printed[102].substr(0, 12), "123456789012");
}

TEST_F(MulticoreConsoleTest, HelpShowsOneCommandOnlyForAPrefixMatch) {
    miInternal_setInternalACLineFuntions();
    mi_aclineSetFunction("nohelp", &RecordingCommand, nullptr);
    mi_aclineSetFunction("gone", &RecordingCommand, "removed later");
    mi_aclineSetFunction("gone", nullptr, nullptr);

    const std::vector<std::string> all = Printed("help");
    const std::vector<std::string> expected = {
        "acline cmd 'setdbglvl' : set console specific debug level\n",
        "acline cmd 'showdbglvl' : print console specific debug levels\n",
        "acline cmd 'Cout-stats' : print console statistics\n",
        "acline cmd 'Config' : Multicore API configuration\n",
        "acline cmd 'Cin-files' : print consoles open for input\n",
        "acline cmd 'flush' : flush output buffers\n",
        "acline cmd 'input' : read input from console file \n",
        "acline cmd 'print-test' : print test for buffers\n",
        "acline cmd 'check-locks' : dump the checkLocks table\n",
        "acline cmd 'nohelp' : No debug text\n",
        "acline cmd 'help' : help for specified, or all acline commands\n"};
    EXPECT_EQ(all, expected);

    EXPECT_EQ(Printed("help   setdbglvl x,1"),
              std::vector<std::string>{
                  "acline cmd 'setdbglvl x,1' : set console specific debug level\n"});
    EXPECT_EQ(Printed("HELP config"), expected);  // exactly a command name: everything
    EXPECT_EQ(Printed("help nothing"), expected);
}

TEST_F(MulticoreConsoleTest, InputConsolesMapToDevicePathsAndBelongToTheirOpener) {
    WriteTargetFile("/kfsystem/multicore/navi/S", "from S");
    WriteTargetFile("/kfsystem/multicore/ioc1/0", "from U");
    WriteTargetFile("/kfsystem/multicore/navi/a", "from a");
    char buffer[32] = {};
    EXPECT_EQ(mi_readConsole('S', buffer, sizeof buffer), 6);
    EXPECT_EQ(std::string(buffer, 6), "from S");
    EXPECT_EQ(mi_readConsole('U', buffer, sizeof buffer), 6);
    EXPECT_EQ(std::string(buffer, 6), "from U");
    EXPECT_EQ(mi_readConsole('a', buffer, sizeof buffer), 6);
    EXPECT_EQ(mi_readConsole('a', buffer, sizeof buffer), 0);  // end of file
    EXPECT_EQ(mi_readConsole('a', nullptr, 4), -1);
    EXPECT_EQ(mi_readConsole('a', buffer, 0), -1);

    EXPECT_EQ(mi_getConsoleFD('['), -1);
    EXPECT_EQ(mi_getConsoleFD(5), -1);                          // not printable
    EXPECT_EQ(mi_readConsole('b', buffer, sizeof buffer), -1);  // missing: reported once
    EXPECT_EQ(mi_readConsole('c', buffer, sizeof buffer), -1);
    EXPECT_EQ(m_systemLog.Count("MultiConsole read open"), 1);
    EXPECT_EQ(m_systemLog.Count("/kfsystem/multicore/navi/S for input fd"), 1);

    int foreignRead = 0;
    std::thread([&] { foreignRead = mi_readConsole('S', buffer, sizeof buffer); }).join();
    EXPECT_EQ(foreignRead, -1);

    miInternal_setInternalACLineFuntions();
    std::vector<std::string> printed = Printed("Cin-files");
    ASSERT_EQ(printed.size(), 3u);
    EXPECT_EQ(printed[0].rfind("Console 83 : input file ", 0), 0u);

    EXPECT_EQ(mi_closeConsole('S'), 0);
    EXPECT_EQ(mi_closeConsole('S'), -1);
    // Another thread may now open it and becomes its owner.
    int ownRead = -1;
    std::thread([&] { ownRead = mi_readConsole('S', buffer, sizeof buffer); }).join();
    EXPECT_EQ(ownRead, 6);
    EXPECT_EQ(mi_readConsole('S', buffer, sizeof buffer), -1);

    const int fd = mi_getConsoleFD('U');
    miInternal_closeConsoleFD(fd);
    EXPECT_EQ(mi_closeConsole('U'), -1);
    mi_closeConsole('S');
    mi_closeConsole('a');
    EXPECT_EQ(Printed("cin-files"), std::vector<std::string>{"No Consoles open for input\n"});
}

TEST_F(MulticoreConsoleTest, InputCommandReadsAFifoWithoutBlocking) {
    const std::string fifo = MakeTargetDirectory("/kfsystem/multicore/custom") + "/0";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    miInternal_setInternalACLineFuntions();
    const int writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(write(writer, "hello", 5), 5);
    EXPECT_EQ(Printed("input   Y"),
              std::vector<std::string>{"input from console Y, read 5 of 1024\n"});
    // Nothing waiting: the read would block, and gives 0.
    EXPECT_EQ(Printed("input Y"),
              std::vector<std::string>{"input from console Y, read 0 of 1024\n"});
    close(writer);
    EXPECT_TRUE(Printed("input").empty());
}

TEST_F(MulticoreConsoleTest, OverlongRootsAreRefusedOncePerConsole) {
    const std::string root113(113, 'r');
    mi_setLogFileName(root113.c_str());
    char buffer[8];
    EXPECT_EQ(mi_readConsole('a', buffer, sizeof buffer), -1);
    EXPECT_EQ(mi_readConsole('a', buffer, sizeof buffer), -1);
    EXPECT_EQ(mi_readConsole('Y', buffer, sizeof buffer), -1);  // 113 + "/custom/0" > 120
    EXPECT_EQ(m_systemLog.Count("openInputFile Opened filename too long, len = 113"), 1);
    EXPECT_EQ(m_systemLog.Count("openInputFile Opened filename root too long len = 122"), 1);
    EXPECT_EQ(m_systemLog.Count("MultiConsole read open"), 0);
}

TEST_F(MulticoreConsoleTest, CommandsCanChangeWhileAnotherThreadDispatches) {
    miInternal_setInternalACLineFuntions();
    mi_setDebugLevel('f', 0);  // keep the "change function" notices out of the pool
    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int round = 0; round < 300; ++round) {
            mi_aclineSetFunction("toggle", round % 3 == 0 ? nullptr : &RecordingCommand, "t");
            mi_aclineSetFunction(("extra" + std::to_string(round % 40)).c_str(), &OtherCommand,
                                 nullptr);
        }
        done = true;
    });
    for (int round = 0; !done.load(); ++round) {
        miInternal_aclineMain("toggle now", 0);  // removed, or records the call
        mi_setDebugLevel('a', round % 4 - 1);
        miInternal_aclineMain("showdbglvl", 0);
        miInternal_aclineMain(nullptr, 0);  // repeats "showdbglvl"
    }
    changer.join();
    mi_aclineSetFunction("toggle", &OtherCommand, nullptr);
    EXPECT_STREQ(miInternal_aclineMain("TOGGLE", 0), "second");
    EXPECT_STREQ(miInternal_aclineMain("extra39", 0), "second");
}

}  // namespace
