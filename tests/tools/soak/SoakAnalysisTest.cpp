// How the soak program accounts for every item.

#include "tools/soak/SoakAnalysis.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "tests/support/TestSupport.h"
#include "tools/soak/SoakReport.h"

namespace {

using ReplaySoak::AnalyseClient;
using ReplaySoak::ClientResult;
using ReplaySoak::LoggedItem;
using ReplaySoak::LossLimits;
using ReplaySoak::ReplayedItem;
using ReplaySoak::SentItem;

std::vector<SentItem> Positions(size_t count) {
    std::vector<SentItem> items;
    for (size_t i = 0; i < count; ++i) {
        items.push_back(
            {1000 + static_cast<int64_t>(i) * 100, kDataTypeAsciiText, "P" + std::to_string(i)});
    }
    return items;
}

std::vector<LoggedItem> Stored(const std::vector<SentItem>& sent,
                               const std::vector<size_t>& which) {
    std::vector<LoggedItem> items;
    for (size_t i : which) {
        items.push_back({sent[i].timeMs, sent[i].bytes});
    }
    return items;
}

std::vector<size_t> Range(size_t from, size_t to) {
    std::vector<size_t> range(to - from);
    std::iota(range.begin(), range.end(), from);
    return range;
}

TEST(SoakAnalysisTest, MissingItemsAreAfterTheStopLostAtTheStopLateOrLost) {
    const std::vector<SentItem> sent = Positions(40);
    // 0-9 stored; 10-14 missing, the next item 500 ms later (a young block:
    // lost); 15-19 stored; 20-29 missing, the next item a second later (an
    // old block: late); 30-34 stored; 35-39 missing at the end: handed over
    // before the stop moment (4500 ms: items 35 and 36) or after it.
    std::vector<size_t> stored = Range(0, 10);
    for (size_t i : Range(15, 20))
        stored.push_back(i);
    for (size_t i : Range(30, 35))
        stored.push_back(i);
    LossLimits limits;
    limits.stopMomentMs = 4700;
    const ClientResult result = AnalyseClient(sent, Stored(sent, stored), {}, limits);
    EXPECT_EQ(result.sent, 40u);
    EXPECT_EQ(result.logged, 20u);
    EXPECT_EQ(result.lostAtStop, 2u);
    EXPECT_EQ(result.afterStop, 3u);
    EXPECT_EQ(result.late, 10u);
    EXPECT_EQ(result.lost, 5u);
    EXPECT_EQ(result.unexpected, 0u);
    EXPECT_EQ(result.replayLost, 20u);

    limits.stopMomentMs = 4500;
    EXPECT_EQ(AnalyseClient(sent, Stored(sent, Range(0, 35)), {}, limits).lostAtStop, 0u);
    EXPECT_EQ(AnalyseClient(sent, Stored(sent, Range(0, 35)), {}, LossLimits()).lostAtStop, 5u);
}

TEST(SoakAnalysisTest, ReplayIsCheckedForOrderGapsAndTiming) {
    const std::vector<SentItem> sent = Positions(6);
    const std::vector<LoggedItem> stored = Stored(sent, Range(0, 6));
    // Delivered 5000 ms after the log time, one item 7 ms late; item 3
    // comes back after item 4 (out of order), item 5 twice, item 2 never.
    const std::vector<ReplayedItem> replayed = {{6000, "P0"},     {6100, "P1"}, {6407, "P4"},
                                                {6300, "P3"},     {6500, "P5"}, {6500, "P5"},
                                                {6600, "unknown"}};
    const ClientResult result = AnalyseClient(sent, stored, replayed, LossLimits());
    EXPECT_EQ(result.replayed, 4u);
    EXPECT_EQ(result.replayWrong, 3u);
    EXPECT_EQ(result.replayLost, 2u);
    ASSERT_EQ(result.timingErrorsMs.size(), 4u);
    const ReplaySoak::Distribution timing = ReplaySoak::Summarise(result.timingErrorsMs);
    EXPECT_EQ(timing.max, 7);
    EXPECT_DOUBLE_EQ(timing.mean, 7.0 / 4);
}

}  // namespace
