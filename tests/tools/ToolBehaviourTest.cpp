// The installed programs as a user meets them.

#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>

#include "support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

const char kReplaylog[] = "tools/replaylog/replaylog";
const char kServer[] = "server/ReplayManager";

std::string Golden(const char* name) {
    return std::string(REPLAY_TEST_DATA_DIR) + "/logs/" + name;
}

int Lines(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

class ToolBehaviourTest : public ReplayTest::TargetRootTest {
  protected:
    Result Run(const std::string& program, const std::string& arguments) {
        const std::string errFile = Root() + "/stderr.txt";
        Result result;
        result.status = ReplaySupport::RunCommand(
            {"/bin/sh", "-c",
             std::string(REPLAY_BINARY_DIR) + "/" + program + " " + arguments + " 2>" + errFile},
            std::chrono::seconds(20), result.out);
        result.err = ReplayTest::ReadFile(errFile);
        return result;
    }
    Result Replaylog(const std::string& arguments) { return Run(kReplaylog, arguments); }
};

// A mistake ends at once with its status and one line on standard error
// naming it (a FIFO would block a reader for ever).
TEST_F(ToolBehaviourTest, MistakesEndAtOnceWithTheirStatusAndOneLineNamingThem) {
    const std::string fifo = Root() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string missing = Root() + "/missing.dat";
    const std::string clean = Golden("clean.dat");
    struct Case {
        const char* program;
        std::string arguments;
        int status;
        std::string phrase;
    };
    const Case cases[] = {
        {kReplaylog, "info " + missing, 1,
         "replaylog: cannot read " + missing + ": No such file or directory\n"},
        {kReplaylog, "dump " + Root(), 1, "directory"},
        {kReplaylog, "verify " + fifo, 1, "FIFO"},
        {kReplaylog, "info /dev/null", 1, "device"},
        {kReplaylog, "info " + WriteTargetFile("/notes.txt", "shopping list\nmilk\n"), 1,
         "not a replay log"},
        {kReplaylog, "dump -c compass " + clean, 2, "compass"},
        {kReplaylog, "extract -s 7 " + Golden("two_segments.dat"), 2, "segment 7"},
        {kReplaylog, "export -c gps -c nobody " + clean, 2, "nobody"},
        {kServer, "--port 1 replay " + missing, 1, "No such file"},
        {kServer, "--port 1 replay " + Root(), 1, "directory"},
        {kServer, "--port 1 replay " + fifo, 1, "not a regular file"},
    };
    for (const Case& c : cases) {
        const Result result = Run(c.program, c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << ": " << result.err;
        EXPECT_EQ(Lines(result.err), 1) << result.err;
        EXPECT_NE(result.err.find(c.phrase), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "") << c.arguments;
    }
    EXPECT_EQ(Replaylog("info " + WriteTargetFile("/empty.dat", "")).status, 0);
}

TEST_F(ToolBehaviourTest, BadOptionsAreUsageErrors) {
    EXPECT_EQ(Replaylog("frobnicate x").status, 2);
    EXPECT_EQ(Replaylog("info --frobnicate " + Golden("clean.dat")).status, 2);
    EXPECT_EQ(Replaylog("dump --from soon " + Golden("clean.dat")).status, 2);
    EXPECT_EQ(Replaylog("export --format xml " + Golden("clean.dat")).status, 2);
    EXPECT_EQ(Run(kServer, "--port 0").status, 2);
    EXPECT_EQ(Run("logger/replay-logger", "--queue-records 0").status, 2);
}

// Each damaged log fails with exactly its problem, at its offset; the JSON
// report counts every kind, and an empty log file is a problem.
TEST_F(ToolBehaviourTest, VerifyFindsEachProblemAndOnlyIt) {
    struct Case {
        const char* log;
        const char* kind;
        int offset;
        const char* text;
    };
    const Case cases[] = {
        {"truncated_tail.dat", "skipped", 386, "truncated record"},
        {"garbage_reconnect.dat", "skipped", 153, ""},
        {"repeated_block.dat", "duplicate", 212, "client gps: block 1 stored a second time"},
        {"backward_block.dat", "block_order", 238, "client gps: block 1 stored after block 2"},
        {"", "empty", 0, ""},
    };
    const std::string empty = WriteTargetFile("/fs/usb0/EMPTY.DAT", "");
    for (const Case& c : cases) {
        const std::string log = *c.log != '\0' ? Golden(c.log) : empty;
        const Result result = Replaylog("verify --json " + log);
        EXPECT_EQ(result.status, 1) << log << result.err;
        const nlohmann::json report = nlohmann::json::parse(result.out, nullptr, false);
        ASSERT_FALSE(report.is_discarded()) << result.out;
        EXPECT_FALSE(report["clean"].get<bool>()) << log;
        for (const char* key : {"file", "records", "problem_count"}) {
            EXPECT_TRUE(report.contains(key)) << key;
        }
        for (const char* kind : {"checksum", "sequence_gap", "time_order", "skipped", "block_order",
                                 "duplicate", "unreadable", "header", "empty"}) {
            EXPECT_EQ(report["counts"][kind], std::string(kind) == c.kind ? 1 : 0)
                << log << ": " << kind;
        }
        ASSERT_EQ(report["problems"].size(), 1u) << result.out;
        std::string shownKind = c.kind;
        std::replace(shownKind.begin(), shownKind.end(), '_', ' ');
        EXPECT_EQ(report["problems"][0]["kind"], shownKind);
        EXPECT_EQ(report["problems"][0]["offset"], c.offset) << log;
        EXPECT_NE(report["problems"][0]["text"].get<std::string>().find(c.text), std::string::npos)
            << result.out;
    }
    const Result truncated = Replaylog("verify " + Golden("truncated_tail.dat"));
    EXPECT_NE(truncated.out.find("offset 386: skipped: truncated record"), std::string::npos)
        << truncated.out;
    const Result clean = Replaylog("verify --json " + Golden("clean.dat"));
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_TRUE(nlohmann::json::parse(clean.out)["clean"].get<bool>());
}

TEST_F(ToolBehaviourTest, CutWritesAReadableLogWithAHeaderAndExtractWritesItems) {
    const std::string cut = Root() + "/tmp/cut.dat";
    const Result result =
        Replaylog("cut -c gps --from 100.200 -o " + cut + " " + Golden("two_segments.dat"));
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE((result.out + result.err).find("3 records written"), std::string::npos);

    EXPECT_EQ(Replaylog("verify " + cut).status, 0);
    const Result dump = Replaylog("dump " + cut);
    EXPECT_NE(dump.out.find("[1] header !100.000:multicore:"), std::string::npos) << dump.out;
    EXPECT_NE(dump.out.find("[2] header !200.000:multicore:"), std::string::npos);
    EXPECT_EQ(dump.out.find(" can "), std::string::npos);
    EXPECT_EQ(Lines(dump.out), 5);

    const std::string files = Root() + "/tmp/items";
    const Result extract = Replaylog("extract -c can -o " + files + " " + Golden("clean.dat"));
    ASSERT_EQ(extract.status, 0) << extract.err;
    EXPECT_EQ(ReplayTest::ReadFile(files + "/000003_can_100.500.bin"), "hello");
}

TEST_F(ToolBehaviourTest, ExportWritesOneRowPerItemAsCsvOrJsonLines) {
    const Result csv = Replaylog("export " + Golden("clean.dat"));
    ASSERT_EQ(csv.status, 0) << csv.err;
    EXPECT_EQ(csv.out.substr(0, csv.out.find('\n')),
              "time,client,data_type,sequence,encoding,data");
    EXPECT_NE(csv.out.find("100.100,gps,1,1,text,lat=48.1 lon=11.5\n"), std::string::npos)
        << csv.out;
    EXPECT_NE(csv.out.find(",ui,2,1,text,\"line one\nline two\"\n"), std::string::npos) << csv.out;
    EXPECT_NE(csv.out.find("100.500,can,4,2,base64,aGVsbG8=\n"), std::string::npos) << csv.out;
    EXPECT_EQ(csv.out.find("#stop"), std::string::npos);
    EXPECT_EQ(Lines(csv.out), 1 + 7 + 2);

    const Result jsonl = Replaylog("export --format jsonl -c can " + Golden("clean.dat"));
    ASSERT_EQ(jsonl.status, 0) << jsonl.err;
    ASSERT_EQ(Lines(jsonl.out), 3) << jsonl.out;
    const nlohmann::json last =
        nlohmann::json::parse(jsonl.out.substr(jsonl.out.rfind('\n', jsonl.out.size() - 2) + 1));
    EXPECT_EQ(last, nlohmann::json::parse(R"({"time": "100.500", "client": "can", "data_type": 4,
        "sequence": 2, "encoding": "base64", "data": "aGVsbG8="})"));
}

}  // namespace
