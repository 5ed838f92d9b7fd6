#include <string>
#include <thread>
#include <vector>

#include "tests/reference/MulticoreTestSupport.h"

namespace {

using MulticoreTest::Record;

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

    static std::string Run(const char* line, int argument = 0) {
        const char* reply = miInternal_aclineMain(line, argument);
        return reply != nullptr ? reply : "(null)";
    }
    std::vector<std::string> Printed(const char* line) const {
        const size_t before = FlushedTexts().size();
        Run(line);
        const std::vector<std::string> texts = FlushedTexts();
        return std::vector<std::string>(texts.begin() + static_cast<long>(before), texts.end());
    }
};

TEST_F(MulticoreConsoleTest, DispatchIgnoresCaseTakesTheLongestPrefixAndNullRepeats) {
    EXPECT_EQ(Run(nullptr), "ERROR : No acline command found");  // nothing to repeat yet
    mi_aclineSetFunction("abc", &RecordingCommand, nullptr);
    mi_aclineSetFunction("abcdef", &OtherCommand, nullptr);
    mi_aclineSetFunction("xy", &OtherCommand, nullptr);
    mi_aclineSetFunction("XY", &RecordingCommand, nullptr);  // a different name

    EXPECT_EQ(Run("ABCDEFG"), "second");
    EXPECT_EQ(Run("abcd", 17), "first");
    EXPECT_EQ(Run("AbC"), "first");
    EXPECT_EQ(Run(nullptr, 5), "first");  // repeats "AbC" with the new argument
    EXPECT_EQ(Run("xYz"), "second");      // equal prefixes: the earlier entry
    EXPECT_EQ(Run("XY"), "second");       // exact matches ignore case too
    EXPECT_EQ(g_calls, (std::vector<std::string>{"abcd/17", "AbC/0", "(repeat)/5"}));

    EXPECT_EQ(Run("nosuch"), "ERROR : No acline command found");
    EXPECT_EQ(Run(nullptr), "ERROR : No acline command found");  // nothing to repeat now
}

TEST_F(MulticoreConsoleTest, BuiltInCommandsSetLevelsFlushAndHelp) {
    miInternal_setInternalACLineFuntions();
    EXPECT_EQ(Printed("SETDBGLVL  a , 3"),
              std::vector<std::string>{"setDbgLvl: a ok actual dbglvl 3\n"});
    EXPECT_EQ(mi_getDebugLevel('a'), 3);
    EXPECT_EQ(Printed("setdbglvl a,4"),
              std::vector<std::string>{"setDbgLvl: a failed actual dbglvl 3\n"});
    EXPECT_TRUE(Printed("setdbglvl a 3").empty());  // no ','
    EXPECT_EQ(Printed("showdbglvl"), std::vector<std::string>{"Console a (97) : set to 3\n"});
    EXPECT_EQ(mi_setDefaultDebugLevel(3), 1);
    EXPECT_EQ(mi_setDebugLevel('a', -1), 1);
    EXPECT_EQ(mi_getDebugLevel('a'), 3);

    mi_flushBuffer();
    mi_multicoreLog('a', 0, "queued");
    miInternal_aclineMain("flush", 0);
    const std::vector<Record> records = Records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].text, "queued\n");
    EXPECT_EQ(records.back().text, "Flush output buffer\n");
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
