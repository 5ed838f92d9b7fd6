// Operator control of a running replay through the real processes, under a
// shim that jumps their wall clock: timing runs on the monotonic clock.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ClientSummary;
using ReplayTest::CommandResult;
using ReplayTest::WaitFor;

using Item = ReplayTest::ReplayedItem;

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A number of seconds after `key` in `text` ("... at 1.234 s"), in ms; -1.
int64_t MsAfter(const std::string& text, const std::string& key) {
    const size_t at = text.find(key);
    return at == std::string::npos
               ? -1
               : std::llround(std::strtod(text.c_str() + at + key.size(), nullptr) * 1000);
}

constexpr long kHourSeconds = 3600;
// A demo client's last block, unsent until a second old, at 60 items a second.
constexpr size_t kLastBlockItems = 64;

class ReplayControlTest : public ReplayTest::EndToEndTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(PrepareTarget());
        m_offsetFile = Root() + "/wall-clock-offset";
        JumpWallClockTo(0);
        const char* sanitizerOptions = std::getenv("ASAN_OPTIONS");
        m_environment = {
            std::string("LD_PRELOAD=") + REPLAY_WALL_CLOCK_SHIM,
            "REPLAY_WALL_CLOCK_OFFSET_FILE=" + m_offsetFile,
            // The shim is preloaded ahead of the sanitizer runtime.
            std::string("ASAN_OPTIONS=") +
                (sanitizerOptions != nullptr ? std::string(sanitizerOptions) + ":" : "") +
                "verify_asan_link_order=0",
        };
        ASSERT_NO_FATAL_FAILURE(StartLogger());
        StartServer();
    }

    void JumpWallClockTo(long seconds) {
        ReplayTest::WriteFile(m_offsetFile, std::to_string(seconds) + "\n");
    }
    // The wall clock in seconds as a process under the shim reads it.
    long ShimmedWallClock() {
        std::vector<std::string> argv = {"/usr/bin/env"};
        argv.insert(argv.end(), m_environment.begin(), m_environment.end());
        argv.insert(argv.end(), {"/bin/date", "+%s"});
        std::string output;
        ReplaySupport::RunCommand(argv, 10s, output);
        return std::strtol(output.c_str(), nullptr, 10);
    }

    std::string Ok(const std::string& command) {
        const CommandResult result = Send(command);
        EXPECT_EQ(result.status, 0) << command << ": " << result.output;
        return result.output;
    }
    void WaitForPosition(int64_t ms) {
        ASSERT_TRUE(WaitFor(
            [&] {
                const std::string status = Send("status").output;
                return MsAfter(status, "replay playing at ") >= ms ||
                       status.find("replay ended") != std::string::npos;
            },
            20s, 20ms))
            << Send("status").output;
    }

    std::string m_offsetFile;
};

std::vector<double> Offsets(const std::vector<Item>& items) {
    std::vector<double> offsets;
    for (const Item& item : items) {
        offsets.push_back(item.momentUs / 1000.0 - static_cast<double>(item.recordedMs));
    }
    return offsets;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

TEST_F(ReplayControlTest, PausedReplayResumesOnTimeAndWaitReturnsOnlyWhenAllIsHandedOver) {
    // Without a shim that really moves the clock the jumps below prove nothing.
    const long unmoved = ShimmedWallClock();
    JumpWallClockTo(kHourSeconds);
    ASSERT_NEAR(ShimmedWallClock() - unmoved, kHourSeconds, 60) << "the clock shim is not loaded";
    JumpWallClockTo(0);

    const std::vector<std::string> names = {"gps", "can"};
    ASSERT_NO_FATAL_FAILURE(StartClients(names));
    ASSERT_EQ(Send("record").status, 0);
    const auto recordingStarted = std::chrono::steady_clock::now();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    JumpWallClockTo(kHourSeconds);
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    JumpWallClockTo(-kHourSeconds);
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    std::this_thread::sleep_until(recordingStarted + 4s);
    ASSERT_EQ(Send("stop").status, 0);
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();
    ExpectLogIntact();

    Ok("replay " + LogPath());
    ASSERT_NO_FATAL_FAILURE(WaitForPosition(1500));
    const int64_t pauseSent = NowUs();
    const std::string paused = Ok("pause");
    const int64_t pauseAnswered = NowUs();
    ASSERT_EQ(paused.compare(0, 10, "paused at "), 0) << paused;
    JumpWallClockTo(2 * kHourSeconds);
    std::this_thread::sleep_for(1500ms);
    EXPECT_NE(Ok("status").find("replay paused at"), std::string::npos);
    const int64_t resumeSent = NowUs();
    const std::string resumed = Ok("resume");
    const int64_t resumeAnswered = NowUs();
    JumpWallClockTo(0);
    EXPECT_NEAR(MsAfter(resumed, "resumed at "), MsAfter(paused, "paused at "), 5) << resumed;

    // Done means handed over: clients stopped at once after it lose nothing.
    const CommandResult waited = Send("wait");
    EXPECT_EQ(waited.output, "done\n") << m_server->Output();
    const std::vector<ClientSummary> summaries = StopClients();
    for (size_t c = 0; c < names.size(); ++c) {
        const std::string& output = m_clients[c]->Output();
        ASSERT_TRUE(summaries[c].found) << output;
        EXPECT_TRUE(summaries[c].identical) << output;
        EXPECT_LE(summaries[c].recorded - summaries[c].replayed, kLastBlockItems) << output;

        const std::vector<Item> items = ClientItems(c);
        ASSERT_EQ(items.size(), summaries[c].replayed) << names[c];
        const auto firstAfter = std::find_if(items.begin(), items.end(), [&](const Item& item) {
            return item.momentUs >= resumeSent;
        });
        ASSERT_NE(firstAfter, items.begin());
        ASSERT_NE(firstAfter, items.end());
        const std::vector<double> before = Offsets({items.begin(), firstAfter});
        const std::vector<double> after = Offsets({firstAfter, items.end()});
        const double lineBefore = Median(before);
        const double lineAfter = Median(after);
        // Far below an hour, well above what a loaded machine or a sanitizer
        // build costs a replayed item.
        auto expectOnLine = [&](const std::vector<double>& offsets, double line) {
            for (const double offset : offsets) {
                ASSERT_NEAR(offset, line, 500) << names[c];
            }
        };
        expectOnLine(before, lineBefore);
        expectOnLine(after, lineAfter);
        // Margins for a busy machine and a seen lag of 20 to 25 ms after a resume.
        if (!ReplayTest::kSanitizerBuild) {
            EXPECT_NEAR(after.front(), lineAfter, 40) << names[c];
            const double shortest = (resumeSent - pauseAnswered) / 1000.0;
            const double longest = (resumeAnswered - pauseSent) / 1000.0;
            EXPECT_GE(lineAfter - lineBefore, shortest - 15) << names[c];
            EXPECT_LE(lineAfter - lineBefore, longest + 40) << names[c];
        }
    }
}

TEST_F(ReplayControlTest, SeekAndStepWhilePausedThenRateTwo) {
    // 7 s: the seek goes forward even when a stalled machine answers the
    // pause seconds late.
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps"}));
    ASSERT_NO_FATAL_FAILURE(Record(7));

    Ok("replay " + LogPath());
    ASSERT_NO_FATAL_FAILURE(WaitForPosition(300));
    ASSERT_EQ(Ok("pause").compare(0, 10, "paused at "), 0);
    EXPECT_EQ(Send("step 2 s").output, "error: usage: step [N] or step MS ms (while paused)\n");
    EXPECT_EQ(Send("seek 60").status, 1);
    const std::string moved = Ok("seek 4.5");
    EXPECT_EQ(moved.compare(0, 16, "moved at 4.500 s"), 0) << moved;
    const std::string stepped = Ok("step 3");
    EXPECT_EQ(stepped.compare(0, 11, "stepped at "), 0) << stepped;
    EXPECT_EQ(Ok("rate 2").compare(0, 6, "rate 2"), 0);
    const int64_t resumedAt = NowUs();
    Ok("resume");
    EXPECT_EQ(Send("step").output, "error: step works while paused; pause first\n");
    EXPECT_EQ(Send("wait").output, "done\n") << m_server->Output();

    const std::vector<ClientSummary> summaries = StopClients();
    ASSERT_TRUE(summaries[0].found) << m_clients[0]->Output();
    const std::vector<Item> items = ClientItems(0);
    ASSERT_GT(items.size(), 20u);
    size_t jumps = 0;
    size_t jumpAt = 0;
    for (size_t i = 1; i < items.size(); ++i) {
        ASSERT_GT(items[i].index, items[i - 1].index) << "item " << i;
        if (items[i].index != items[i - 1].index + 1) {
            ++jumps;
            jumpAt = i;
        }
    }
    ASSERT_EQ(jumps, 1u);
    EXPECT_LE(summaries[0].recorded - static_cast<size_t>(items.back().index) - 1, kLastBlockItems);
    ASSERT_EQ(items.front().index, 0);
    const int64_t start = items.front().recordedMs;
    EXPECT_LT(items[jumpAt].recordedMs - start, 4500 + 20);
    EXPECT_GE(items[jumpAt + 1].recordedMs - start, 4500 - 20);

    std::vector<double> gaps;
    for (size_t i = jumpAt + 5; i + 1 < items.size(); ++i) {
        if (items[i].momentUs < resumedAt) {
            continue;
        }
        const double recorded = static_cast<double>(items[i + 1].recordedMs - items[i].recordedMs);
        const double played = (items[i + 1].momentUs - items[i].momentUs) / 1000.0;
        if (recorded >= 10) {
            gaps.push_back(played / recorded);
        }
    }
    ASSERT_GT(gaps.size(), 20u);
    // Wide for a loaded machine, whose late wakes bunch items; rate 1 gives 1.
    EXPECT_NEAR(Median(gaps), 0.5, 0.25);
}

TEST_F(ReplayControlTest, SomeClientsOnlyAndLoopUntilTurnedOff) {
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_NO_FATAL_FAILURE(Record(2));

    const std::string report = Root() + "/report.json";
    const std::string started =
        Ok("replay " + LogPath() + " --clients gps --loop --report " + report);
    EXPECT_NE(started.find("of 1 clients"), std::string::npos) << started;
    ASSERT_TRUE(
        WaitFor([&] { return Send("status").output.find("(1 loops done)") != std::string::npos; },
                20s, 50ms))
        << Send("status").output;
    EXPECT_EQ(Ok("loop off").compare(0, 8, "loop off"), 0);
    EXPECT_EQ(Send("wait").output, "done\n") << m_server->Output();

    const std::vector<ClientSummary> summaries = StopClients();
    ASSERT_TRUE(summaries[0].found && summaries[1].found);
    EXPECT_EQ(summaries[1].replayed, 0u) << m_clients[1]->Output();
    const std::vector<Item> items = ClientItems(0);
    const size_t once =
        std::count_if(items.begin(), items.end(), [](const Item& item) { return item.index == 0; });
    EXPECT_GE(once, 2u);
    EXPECT_GE(items.size(), 2 * (summaries[0].recorded - kLastBlockItems));
    const std::string written = ReplayTest::ReadFile(report);
    EXPECT_NE(written.find("\"completed\":true"), std::string::npos) << written;
    EXPECT_NE(written.find("\"name\":\"gps\""), std::string::npos) << written;
    EXPECT_EQ(written.find("\"name\":\"can\""), std::string::npos) << written;
}

}  // namespace
