// The installed programs as a user meets them: --version, the exit-status
// convention (0 success, 1 problems found or the operation failed, 2 usage
// error) with a one-line message on standard error, and replaylog export.

#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

#include "libreplay/ReplayVersion.h"
#include "tests/support/TestSupport.h"

namespace {

struct Result {
    int status = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs a program of the build tree; `timeout` kills one that blocks, which
// then fails the status check.
Result RunProgram(const std::string& program, const std::string& arguments,
                  const std::string& errFile) {
    const std::string command = "timeout 20 " + std::string(REPLAY_BINARY_DIR) + "/" + program +
                                " " + arguments + " 2>" + errFile + " </dev/null";
    Result result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.out.append(buffer, got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = ReplayTest::ReadFile(errFile);
    return result;
}

std::string Golden(const char* name) {
    return std::string(REPLAY_TEST_DATA_DIR) + "/logs/" + name;
}

int Lines(const std::string& text) {
    int lines = 0;
    for (char c : text) {
        lines += c == '\n' ? 1 : 0;
    }
    return lines;
}

class ToolBehaviourTest : public ReplayTest::TargetRootTest {
  protected:
    Result Replaylog(const std::string& arguments) {
        return RunProgram("tools/replaylog/replaylog", arguments, Root() + "/stderr.txt");
    }
    Result Server(const std::string& arguments) {
        return RunProgram("server/ReplayManager", arguments, Root() + "/stderr.txt");
    }
    // A mistake: the status, nothing on standard output, one line on
    // standard error that contains `phrase`.
    void ExpectMistake(const Result& result, int status, const std::string& phrase) {
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_EQ(Lines(result.err), 1) << result.err;
        EXPECT_NE(result.err.find(phrase), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
};

TEST_F(ToolBehaviourTest, EveryProgramAnswersVersionWithTheProjectVersion) {
    for (const char* program :
         {"server/ReplayManager", "tools/replaylog/replaylog", "logger/replay-logger",
          "tools/soak/replay-soak", "examples/demo_client", "examples/replay_tour"}) {
        const Result result = RunProgram(program, "--version", Root() + "/stderr.txt");
        EXPECT_EQ(result.status, 0) << program;
        EXPECT_NE(result.out.find(LIBREPLAY_VERSION), std::string::npos)
            << program << ": " << result.out;
    }
}

TEST_F(ToolBehaviourTest, ReplaylogRefusesWhatIsNotALogAtOnce) {
    ExpectMistake(Replaylog("info " + Root() + "/missing.dat"), 1, "No such file");
    ExpectMistake(Replaylog("dump " + Root()), 1, "directory");
    // A FIFO nobody writes to would block a reader for ever.
    const std::string fifo = Root() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ExpectMistake(Replaylog("verify " + fifo), 1, "FIFO");
    ExpectMistake(Replaylog("info /dev/null"), 1, "device");
    const std::string text = WriteTargetFile("/notes.txt", "shopping list\nmilk\n");
    ExpectMistake(Replaylog("info " + text), 1, "not a replay log");
    // An empty file is an empty log, not a mistake.
    const std::string empty = WriteTargetFile("/empty.dat", "");
    EXPECT_EQ(Replaylog("info " + empty).status, 0);
}

TEST_F(ToolBehaviourTest, ReplaylogNamesAClientOrSegmentTheLogDoesNotHave) {
    ExpectMistake(Replaylog("dump -c compass " + Golden("clean.dat")), 2, "compass");
    ExpectMistake(Replaylog("extract -s 7 " + Golden("two_segments.dat")), 2, "segment 7");
    ExpectMistake(Replaylog("export -c gps -c nobody " + Golden("clean.dat")), 2, "nobody");
    // Names that exist still select.
    const Result gps = Replaylog("dump -c gps " + Golden("clean.dat"));
    EXPECT_EQ(gps.status, 0) << gps.err;
    EXPECT_EQ(Lines(gps.out), 2) << gps.out;
}

TEST_F(ToolBehaviourTest, BadOptionsAreUsageErrors) {
    EXPECT_EQ(Replaylog("info --frobnicate " + Golden("clean.dat")).status, 2);
    EXPECT_EQ(Replaylog("export --format xml " + Golden("clean.dat")).status, 2);
    EXPECT_EQ(Server("--port 0").status, 2);
    EXPECT_EQ(
        RunProgram("logger/replay-logger", "--queue-records 0", Root() + "/stderr.txt").status, 2);
}

TEST_F(ToolBehaviourTest, ServerChecksTheReplayFileBeforeServing) {
    // With a file that cannot be replayed the server stops before it binds
    // or reads its standard input.
    ExpectMistake(Server("--port 1 replay " + Root() + "/missing.dat"), 1, "No such file");
    ExpectMistake(Server("--port 1 replay " + Root()), 1, "directory");
    const std::string fifo = Root() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ExpectMistake(Server("--port 1 replay " + fifo), 1, "not a regular file");
}

TEST_F(ToolBehaviourTest, ExportWritesOneRowPerItemAsCsvOrJsonLines) {
    const Result csv = Replaylog("export " + Golden("clean.dat"));
    ASSERT_EQ(csv.status, 0) << csv.err;
    // A header line, then every item (the two-line ones quoted); the status
    // record holds no item.
    EXPECT_EQ(csv.out.substr(0, csv.out.find('\n')),
              "time,client,data_type,sequence,encoding,data");
    EXPECT_NE(csv.out.find("100.100,gps,1,1,text,lat=48.1 lon=11.5\n"), std::string::npos)
        << csv.out;
    EXPECT_NE(csv.out.find(",ui,2,1,text,\"line one\nline two\"\n"), std::string::npos) << csv.out;
    EXPECT_NE(csv.out.find("100.500,can,4,2,base64,aGVsbG8=\n"), std::string::npos) << csv.out;
    EXPECT_EQ(csv.out.find("#stop"), std::string::npos);

    const Result jsonl = Replaylog("export --format jsonl -c can " + Golden("clean.dat"));
    ASSERT_EQ(jsonl.status, 0) << jsonl.err;
    EXPECT_EQ(Lines(csv.out), 1 + 7 + 2);
    ASSERT_EQ(Lines(jsonl.out), 3) << jsonl.out;
    const nlohmann::json last =
        nlohmann::json::parse(jsonl.out.substr(jsonl.out.rfind('\n', jsonl.out.size() - 2) + 1));
    EXPECT_EQ(last["client"], "can");
    EXPECT_EQ(last["time"], "100.500");
    EXPECT_EQ(last["sequence"], 2);
    EXPECT_EQ(last["encoding"], "base64");
    EXPECT_EQ(last["data"], "aGVsbG8=");
}

}  // namespace
