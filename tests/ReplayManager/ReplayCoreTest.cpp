#include "libreplay/ReplayCore.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libreplay/FileLogger.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::ReplayState;
using ReplayCore::ReplayStateManager;
using Parser = ReplayStateManager::CommandArgsParser;
using ReplayTest::CapturedDebug;

class ReplayCoreTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        ReplayCore::FileLogger::ResetForTesting();
    }
    void TearDown() override {
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    std::string LogText() const { return ReadTargetFile("/tmp/ReplayLog.txt"); }
};

// Suites that capture debug output or may record assertions run under a
// private target root.
class DataTypeTest : public ReplayCoreTest {};
class ReplayStateNameTest : public ReplayCoreTest {};
class CommandFromStateTest : public ReplayCoreTest {};
class StateFromCommandTest : public ReplayCoreTest {};

TEST_F(DataTypeTest, CodesCharactersAndInvalidTypes) {
    CapturedDebug debug;
    EXPECT_TRUE(DataTypeValid(0));
    EXPECT_FALSE(DataTypeValid(7));
    EXPECT_FALSE(DataTypeDefined(0));
    EXPECT_TRUE(DataTypeDefined(6));
    EXPECT_EQ(DataTypeFromChar(' '), kDataTypeUnspecified);
    EXPECT_EQ(DataTypeFromChar('&'), kDataTypeAscii7Initialization);
    EXPECT_EQ(CharFromDataType(5), 1);  // not the record character
    EXPECT_EQ(debug.Lines().size(), 0u) << debug.Dump();

    EXPECT_EQ(DataTypeFromChar('\''), kDataTypeUnspecified);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning,
                          "test::libReplay::ReplayCore::DataTypeFromChar: Invalid Data Type 7\n"),
              1);
    // Characters below the space wrap to huge codes, reported as negative.
    EXPECT_EQ(DataTypeFromChar('\x10'), kDataTypeUnspecified);
    EXPECT_EQ(debug.Count("Invalid Data Type -16\n"), 1) << debug.Dump();
    EXPECT_EQ(CharFromDataType(7), ' ');
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning,
                          "libReplay::ReplayCore::CharFromDataType: Invalid Data Type 7\n"),
              1);
}

TEST_F(ReplayStateNameTest, UnknownStateIsReportedAndNamedStopped) {
    CapturedDebug debug;
    EXPECT_EQ(ReplayStateManager::GetReplayStateName(ReplayCore::eStateShutDown), "Shut Down");
    EXPECT_EQ(debug.Lines().size(), 0u);
    EXPECT_EQ(ReplayStateManager::GetReplayStateName(ReplayCore::eStateUnknown), "Stopped");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unrecognized Replay State 6\n"), 1);
    EXPECT_EQ(ReplayStateManager::GetReplayStateName(static_cast<ReplayState>(42)), "Stopped");
}

TEST_F(CommandFromStateTest, BuildsCommandsOrEmptyTextForStatesWithoutWord) {
    CapturedDebug debug;
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateStopped, ""), "#stop");
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateReplay, "c=1;s=2"),
              "#replay c=1;s=2;");
    EXPECT_EQ(debug.Lines().size(), 0u) << debug.Dump();
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateConnecting, "n=x"),
              "#connecting n=x;");
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Unexpected Command Connecting"), 1);

    EXPECT_EQ(ReplayStateManager::GetCommandFromState(ReplayCore::eStateDisconnected, "a=b"), "");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unexpected Command Disconnected"), 1);
    EXPECT_EQ(ReplayStateManager::GetCommandFromState(static_cast<ReplayState>(9), ""), "");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unrecognized Replay State 9\n"), 1);
}

TEST_F(StateFromCommandTest, WordsArePrefixMatchedWithOptionalHash) {
    Parser parser;
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#stop", parser), ReplayCore::eStateStopped);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#stopper", parser),
              ReplayCore::eStateStopped);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("record", parser), ReplayCore::eStateRecord);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("replayed", parser),
              ReplayCore::eStateReplay);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#quit", parser), ReplayCore::eStateShutDown);
    EXPECT_EQ(parser.GetArgs(), "");
}

TEST_F(StateFromCommandTest, UnknownAndEmptyCommandsAreRejected) {
    CapturedDebug debug;
    Parser parser;
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("", parser), ReplayCore::eStateUnknown);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Zero Length Command String"), 1);
    // Words that are produced but never recognised.
    for (const char* command : {"#wait", "#connecting", "#disconnected", "#sto", "# stop"}) {
        EXPECT_EQ(ReplayStateManager::GetStateFromCommand(command, parser),
                  ReplayCore::eStateUnknown)
            << command;
    }
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unrecognised Command #sto\n"), 1);
}

TEST_F(StateFromCommandTest, LengthLimitIs196Characters) {
    CapturedDebug debug;
    Parser parser;
    const std::string longest = "#record " + std::string(188, 'x');
    ASSERT_EQ(longest.size(), 196u);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand(longest, parser), ReplayCore::eStateRecord);
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand(longest + "x", parser),
              ReplayCore::eStateUnknown);
    EXPECT_EQ(
        debug.Count(CapturedDebug::kError, "Command String length of 197 exceeds limit of 196\n"),
        1);
}

TEST_F(StateFromCommandTest, ArgumentsEndAtTheLastSemicolon) {
    CapturedDebug debug;
    Parser parser;
    parser.SetArgs("previous");
    // The semicolon sits right after the separator position: no arguments,
    // and the parser keeps what it held.
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("recordX;", parser),
              ReplayCore::eStateRecord);
    EXPECT_EQ(parser.GetArgs(), "previous");
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#replay c=1;s=2", parser),
              ReplayCore::eStateReplay);
    EXPECT_EQ(parser.GetArgs(), "c=1");

    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#replay c=1;s=2;", parser),
              ReplayCore::eStateReplay);
    EXPECT_EQ(parser.GetArgs(), "c=1;s=2");
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, "Command Args: c=1;s=2\n"), 1);
    // The character after the word is skipped whatever it is.
    EXPECT_EQ(ReplayStateManager::GetStateFromCommand("#stop_t=4;", parser),
              ReplayCore::eStateStopped);
    EXPECT_EQ(parser.GetArgs(), "t=4");
}

TEST_F(StateFromCommandTest, BuiltCommandsParseBack) {
    for (ReplayState state : {ReplayCore::eStateStopped, ReplayCore::eStateRecord,
                              ReplayCore::eStateReplay, ReplayCore::eStateShutDown}) {
        Parser parser;
        const std::string command =
            ReplayStateManager::GetCommandFromState(state, "l=83.061;t=12.000");
        EXPECT_EQ(ReplayStateManager::GetStateFromCommand(command, parser), state) << command;
        std::string value;
        EXPECT_TRUE(parser.Get('t', value));
        EXPECT_EQ(value, "12.000");
        EXPECT_TRUE(parser.Get('l', value));
        EXPECT_EQ(value, "83.061");
    }
}

TEST_F(ReplayCoreTest, GetFindsTheFirstFieldWithTheKey) {
    Parser parser;
    parser.SetArgs("c=1;s=2;s=3;e=");
    std::string value = "unchanged";
    EXPECT_TRUE(parser.Get('s', value));
    EXPECT_EQ(value, "2");
    EXPECT_TRUE(parser.Get('c', value));
    EXPECT_EQ(value, "1");
    EXPECT_TRUE(parser.Get('e', value));
    EXPECT_EQ(value, "");

    value = "unchanged";
    EXPECT_FALSE(parser.Get('x', value));
    EXPECT_EQ(value, "unchanged");
    // Reading to the end of the text is not a failure.
    EXPECT_EQ(LogText().find("!strstream.fail()"), std::string::npos);
}

TEST_F(ReplayCoreTest, GetFailsOnOverlongFieldWithAssertion) {
    Parser parser;
    std::string value = "unchanged";
    parser.SetArgs("c=" + std::string(125, 'v') + ";s=2");  // 127 characters fit
    EXPECT_TRUE(parser.Get('s', value));
    EXPECT_EQ(value, "2");
    EXPECT_EQ(LogText(), "");

    parser.SetArgs("c=" + std::string(126, 'v') + ";s=2");
    value = "unchanged";
    EXPECT_FALSE(parser.Get('s', value));
    EXPECT_EQ(value, "unchanged");
    EXPECT_NE(LogText().find(":!strstream.fail() at line 658 of ReplayManager/ReplayCore"),
              std::string::npos)
        << LogText();
}

TEST_F(ReplayCoreTest, GetOnEmptyArgumentsFailsWithAssertion) {
    Parser parser;
    std::string value = "unchanged";
    EXPECT_FALSE(parser.Get('c', value));
    EXPECT_EQ(value, "unchanged");
    EXPECT_NE(LogText().find("!strstream.fail()"), std::string::npos);
}

TEST(SplitStringTest, CutsAtDelimiterAndAtSizeSkippingEmptyPiecesAndSpaces) {
    std::vector<std::string> out{"kept"};
    EXPECT_EQ(ReplayCore::SplitString("a, b,,  c,", out, 16, ','), 4u);
    EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b", "c"}));
    out.clear();
    EXPECT_EQ(ReplayCore::SplitString("abcdefg;hi", out, 4, ';'), 4u);
    EXPECT_EQ(out, (std::vector<std::string>{"abc", "def", "g", "hi"}));
    out.clear();
    EXPECT_EQ(ReplayCore::SplitString(nullptr, out, 8, ';'), 0u);
    EXPECT_EQ(ReplayCore::SplitString("abc", out, 1, ';'), 0u);
    EXPECT_EQ(ReplayCore::SplitString(";;; ;", out, 8, ';'), 0u);
}

}  // namespace
