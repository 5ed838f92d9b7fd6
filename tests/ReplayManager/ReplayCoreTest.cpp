#include "libreplay/ReplayCore.h"

#include <string>
#include <tuple>

#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::ReplayState;
using ReplayCore::ReplayStateManager;
using Parser = ReplayStateManager::CommandArgsParser;
using ReplayTest::CapturedDebug;

class ReplayCoreTest : public ReplayTest::TargetRootTest {
  protected:
    std::string LogText() const { return ReadTargetFile("/tmp/ReplayLog.txt"); }
};

TEST_F(ReplayCoreTest, StatesAndCommandsConvertBothWaysAndArgumentsEndAtTheLastSemicolon) {
    CapturedDebug debug;
    EXPECT_EQ(ReplayStateManager::GetReplayStateName(ReplayCore::eStateUnknown), "Stopped");
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateReplay, "c=1;s=2"),
              "#replay c=1;s=2;");
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateDisconnected, "a=b"), "");
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(static_cast<ReplayState>(9), ""), "");
    for (ReplayState state : {ReplayCore::eStateStopped, ReplayCore::eStateRecord,
                              ReplayCore::eStateReplay, ReplayCore::eStateShutDown}) {
        Parser parser;
        const std::string command =
            ReplayStateManager::GetCommandFromState(state, "l=83.061;t=12.000");
        EXPECT_EQ(ReplayStateManager::GetStateFromCommand(command, parser), state) << command;
        std::string value;
        EXPECT_TRUE(parser.Get('t', value));
        EXPECT_EQ(value, "12.000");
    }

    // Prefix matched, with or without '#'; some words produced are never recognised.
    Parser parser;
    const std::pair<const char*, ReplayState> commands[] = {
        {"#stopper", ReplayCore::eStateStopped}, {"record", ReplayCore::eStateRecord},
        {"replayed", ReplayCore::eStateReplay},  {"#quit", ReplayCore::eStateShutDown},
        {"", ReplayCore::eStateUnknown},         {"#connecting", ReplayCore::eStateUnknown},
        {"#sto", ReplayCore::eStateUnknown},     {"# stop", ReplayCore::eStateUnknown},
    };
    for (const auto& command : commands) {
        EXPECT_EQ(ReplayStateManager::GetStateFromCommand(command.first, parser), command.second)
            << command.first;
    }
    const std::string longest = "#record " + std::string(188, 'x');
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand(longest, parser), ReplayCore::eStateRecord);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand(longest + "x", parser),
              ReplayCore::eStateUnknown);

    // On one parser: a ';' right after the separator position leaves what it held.
    const std::tuple<const char*, ReplayState, const char*> withArguments[] = {
        {"recordX;", ReplayCore::eStateRecord, "previous"},
        {"#replay c=1;s=2", ReplayCore::eStateReplay, "c=1"},
        {"#replay c=1;s=2;", ReplayCore::eStateReplay, "c=1;s=2"},
        {"#stop_t=4;", ReplayCore::eStateStopped, "t=4"},
    };
    parser.SetArgs("previous");
    for (const auto& [command, state, args] : withArguments) {
        EXPECT_EQ(ReplayStateManager::GetStateFromCommand(command, parser), state) << command;
        EXPECT_EQ(parser.GetArgs(), args) << command;
    }
}

TEST_F(ReplayCoreTest, OverlongFieldsFailWithAnAssertion) {
    Parser parser;
    std::string value = "unchanged";
    parser.SetArgs("c=" + std::string(125, 'v') + ";s=2");  // 127 characters fit
    EXPECT_TRUE(parser.Get('s', value));
    EXPECT_EQ(LogText(), "");

    parser.SetArgs("c=" + std::string(126, 'v') + ";s=2");
    value = "unchanged";
    EXPECT_FALSE(parser.Get('s', value));
    EXPECT_EQ(value, "unchanged");
    EXPECT_NE(LogText().find(":!strstream.fail() at line 658 of ReplayManager/ReplayCore"),
              std::string::npos)
        << LogText();
    parser.SetArgs("");
    EXPECT_FALSE(parser.Get('c', value));
    EXPECT_EQ(ReplayTest::Occurrences(LogText(), "!strstream.fail()"), 2);
}

}  // namespace
