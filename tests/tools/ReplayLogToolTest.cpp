// The replaylog executable, run as a process on the golden logs.

#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

#include "tests/support/TestSupport.h"

namespace {

struct Result {
    int status = -1;
    std::string out;  // standard output and standard error together
};

Result RunTool(const std::string& arguments) {
    const std::string command =
        std::string(REPLAY_BINARY_DIR) + "/tools/replaylog/replaylog " + arguments + " 2>&1";
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
    return result;
}

std::string Golden(const char* name) {
    return std::string(REPLAY_TEST_DATA_DIR) + "/logs/" + name;
}

int CountLines(const std::string& text) {
    int lines = 0;
    for (char c : text) {
        lines += c == '\n' ? 1 : 0;
    }
    return lines;
}

TEST(ReplayLogToolTest, VerifyTellsCleanLogsFromDamagedOnes) {
    Result truncated = RunTool("verify " + Golden("truncated_tail.dat"));
    EXPECT_EQ(truncated.status, 1);
    EXPECT_NE(truncated.out.find("offset 386: skipped: truncated record"), std::string::npos)
        << truncated.out;

    Result garbage = RunTool("verify --json " + Golden("garbage_reconnect.dat"));
    EXPECT_EQ(garbage.status, 1);
    const nlohmann::json report = nlohmann::json::parse(garbage.out);
    EXPECT_FALSE(report["clean"].get<bool>());
    ASSERT_EQ(report["problems"].size(), 1u);
    EXPECT_EQ(report["problems"][0]["offset"], 153);
    EXPECT_EQ(report["counts"]["skipped"], 1);
}

class ReplayLogToolFileTest : public ReplayTest::TargetRootTest {};

// The JSON report keeps its fields, with a count for every problem kind
// whether it occurred or not; an empty file is a problem, not a clean log.
TEST_F(ReplayLogToolFileTest, VerifyJsonCountsEveryKindAndAnEmptyLogFails) {
    const std::string empty = WriteTargetFile("/fs/usb0/EMPTY.DAT", "");
    Result result = RunTool("verify --json " + empty);
    EXPECT_EQ(result.status, 1) << result.out;
    const nlohmann::json report = nlohmann::json::parse(result.out);
    for (const char* key : {"file", "clean", "records", "problem_count", "counts", "problems"}) {
        EXPECT_TRUE(report.contains(key)) << key;
    }
    for (const char* kind : {"checksum", "sequence_gap", "time_order", "skipped", "block_order",
                             "duplicate", "unreadable", "header", "empty"}) {
        EXPECT_TRUE(report["counts"].contains(kind)) << kind;
    }
    EXPECT_EQ(report["counts"]["empty"], 1);
    ASSERT_EQ(report["problems"].size(), 1u);
    EXPECT_EQ(report["problems"][0]["kind"], "empty");

    Result clean = RunTool("verify --json " + Golden("clean.dat"));
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_TRUE(nlohmann::json::parse(clean.out)["clean"].get<bool>());
}

TEST(ReplayLogToolTest, DumpFiltersByClientAndSegment) {
    Result all = RunTool("dump " + Golden("clean.dat"));
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(CountLines(all.out), 7);
    // Restored line breaks are shown escaped, one record per line.
    EXPECT_NE(all.out.find("line one\\nline two"), std::string::npos) << all.out;

    Result gps = RunTool("dump -c gps -s 2 " + Golden("two_segments.dat"));
    EXPECT_EQ(CountLines(gps.out), 2) << gps.out;
    EXPECT_NE(gps.out.find("lat=49.1"), std::string::npos);
}

TEST_F(ReplayLogToolFileTest, CutWritesAReadableLogWithAHeader) {
    const std::string cut = Root() + "/tmp/cut.dat";
    Result result =
        RunTool("cut -c gps --from 100.200 -o " + cut + " " + Golden("two_segments.dat"));
    ASSERT_EQ(result.status, 0) << result.out;
    EXPECT_NE(result.out.find("3 records written"), std::string::npos);

    Result verify = RunTool("verify " + cut);
    EXPECT_EQ(verify.status, 0) << verify.out;
    Result dump = RunTool("dump " + cut);
    // Both segments keep their header, and only gps records remain.
    EXPECT_NE(dump.out.find("[1] header !100.000:multicore:"), std::string::npos) << dump.out;
    EXPECT_NE(dump.out.find("[2] header !200.000:multicore:"), std::string::npos);
    EXPECT_EQ(dump.out.find(" can "), std::string::npos);
    EXPECT_EQ(CountLines(dump.out), 5);

    const std::string files = Root() + "/tmp/items";
    Result extract = RunTool("extract -c can -o " + files + " " + Golden("clean.dat"));
    ASSERT_EQ(extract.status, 0) << extract.out;
    EXPECT_EQ(ReplayTest::ReadFile(files + "/000003_can_100.500.bin"), "hello");
}

TEST(ReplayLogToolTest, MistakesGetOneLineErrorsAndDocumentedStatuses) {
    Result missing = RunTool("info /nonexistent/LOGFILE.DAT");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out,
              "replaylog: cannot read /nonexistent/LOGFILE.DAT: No such file or "
              "directory\n");
    Result directory = RunTool("dump /");
    EXPECT_EQ(directory.status, 1);
    EXPECT_EQ(CountLines(directory.out), 1) << directory.out;

    EXPECT_EQ(RunTool("frobnicate x").status, 2);
    EXPECT_EQ(RunTool("dump --from soon " + Golden("clean.dat")).status, 2);
}

}  // namespace
