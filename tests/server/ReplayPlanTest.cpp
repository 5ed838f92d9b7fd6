#include "server/ReplayPlan.h"

#include "libreplay/server/ReplayLogReader.h"
#include "server/ReplayItems.h"
#include "tests/server/LoopbackServer.h"

namespace {

using ReplayServer::BuildReplayPlan;
using ReplayServer::PlanOptions;
using ReplayServer::ReplayPlan;
namespace LogFormat = ReplayCore::LogFormat;

void Store(std::string& log, const std::string& payload) {
    std::string framed;
    ASSERT_TRUE(LogFormat::FrameRecord(payload, framed));
    LogFormat::AppendStoredRecord(framed.data(), framed.size(), log);
}

TEST(ReplayPlanTest, OrdersByTimeKeepsInitialisationApartAndSkipsDamage) {
    std::string log;
    Store(log, LogFormat::HeaderPayload(1000));
    Store(log, ServerTest::DataRecord("gps", 1000, 0, "INIT"));
    Store(log, ServerTest::DataRecord("gps", 1300, 2, "bb"));
    Store(log, ServerTest::DataRecord("can", 1100, 1, "aa"));
    std::string damaged = ServerTest::DataRecord("can", 1200, 2, "x");
    damaged[damaged.size() - 3] ^= 1;
    Store(log, damaged);
    Store(log, ServerTest::StatusRecord("ReplayManager", 1400, "stop"));
    Store(log, ServerTest::DataRecord("gps", 1250, 1, "cc"));

    ReplayPlan plan;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), PlanOptions(), plan).IsOk());
    ASSERT_EQ(plan.records.size(), 3u);
    EXPECT_EQ(plan.records[0].timeMs, 1100);
    EXPECT_EQ(plan.records[1].timeMs, 1250);
    EXPECT_EQ(plan.records[2].timeMs, 1300);
    // Without its line end, so the last item ends at the checksum field.
    const std::string stored = ServerTest::DataRecord("gps", 1300, 2, "bb");
    EXPECT_EQ(plan.records[2].record, stored.substr(0, stored.size() - 1));
    ASSERT_EQ(plan.initialisation.size(), 1u);
    EXPECT_EQ(plan.initialisation[0].client, "gps");
    EXPECT_EQ(plan.clients.size(), 2u);
    EXPECT_EQ(plan.damagedRecords, 1u);
    ASSERT_EQ(plan.damageReports.size(), 1u);
    EXPECT_NE(plan.damageReports[0].find("checksum"), std::string::npos);
    EXPECT_EQ(plan.skippedStatusRecords, 1u);
    EXPECT_EQ(plan.startMs, 1100);
    EXPECT_EQ(plan.DurationMs(), 200);
}

TEST(ReplayPlanTest, SegmentAndOffsetSelectRecords) {
    std::string log;
    Store(log, LogFormat::HeaderPayload(1000));
    Store(log, ServerTest::DataRecord("gps", 1000, 1));
    Store(log, LogFormat::HeaderPayload(5000));
    for (unsigned int i = 0; i < 5; ++i) {
        Store(log, ServerTest::DataRecord("gps", 5000 + 1000 * i, i + 1));
    }
    ReplayPlan plan;
    PlanOptions options;
    options.segment = 2;
    options.fromOffsetMs = 2500;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), options, plan).IsOk());
    ASSERT_EQ(plan.records.size(), 2u);
    EXPECT_EQ(plan.startMs, 7500);
    EXPECT_EQ(plan.records[0].timeMs, 8000);

    options.fromOffsetMs = 0;
    options.segment = 7;
    EXPECT_FALSE(BuildReplayPlan(log.data(), log.size(), options, plan).IsOk());
}

ReplayServer::ItemCut Sent(const ReplayServer::PlannedRecord& record) {
    ReplayServer::ItemCut cut;
    EXPECT_TRUE(ReplayServer::CutRecordItems(record.record, cut)) << record.record;
    EXPECT_EQ(cut.items.size(), 1u);
    cut.items.resize(1);
    return cut;
}

std::vector<std::string> ItemData(const std::vector<ReplayServer::PlannedRecord>& records) {
    std::vector<std::string> data;
    for (const auto& record : records) {
        data.push_back(Sent(record).items[0].data);
    }
    return data;
}

std::string TwoClientLog() {
    std::string log;
    Store(log, LogFormat::HeaderPayload(1000));
    Store(log, ServerTest::DataRecord("gps", 900, 0, "INIT"));
    Store(log,
          ServerTest::Block("gps", 7, {{1000, "g0"}, {1010, "g1"}, {1020, "g2"}, {1030, "g3"}}));
    Store(log, ServerTest::Block("can", 3, {{1005, "c0"}, {1025, "c1"}}));
    Store(log, ServerTest::Block("gps", 8, {{1040, "g4"}, {1050, "g5"}}));
    return log;
}

TEST(ReplayPlanTest, ItemsAreNumberedPerClientFromTheStateOn) {
    const std::string log = TwoClientLog();
    ReplayPlan plan;
    PlanOptions options;
    options.fromOffsetMs = 11;
    options.toOffsetMs = 41;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), options, plan).IsOk());
    ASSERT_EQ(plan.state.size(), 2u);
    EXPECT_EQ(Sent(plan.state[1]).items[0].timeMs, 1010);
    EXPECT_EQ(Sent(plan.state[1]).sequence, 1u);
    EXPECT_EQ(Sent(plan.records[0]).sequence, 2u);
    ASSERT_EQ(plan.initialisation.size(), 1u);

    options.withState = false;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), options, plan).IsOk());
    EXPECT_TRUE(plan.state.empty());
    EXPECT_EQ(Sent(plan.records[0]).sequence, 1u);
}

TEST(ReplayPlanTest, RangeIncludesItsStartAndExcludesItsEnd) {
    const std::string log = TwoClientLog();
    struct Case {
        int64_t from, to;
        std::vector<std::string> records, state;  // no records: refused
    };
    const Case cases[] = {
        {10, 40, {"g1", "g2", "c1", "g3"}, {"g0", "c0"}},
        {11, 41, {"g2", "c1", "g3", "g4"}, {"c0", "g1"}},
        {10, 11, {"g1"}, {"g0", "c0"}},
        {0, -1, {"g0", "c0", "g1", "g2", "c1", "g3", "g4", "g5"}, {}},
        {0, 1, {"g0"}, {}},
        {50, -1, {"g5"}, {"c1", "g4"}},
        {15, 15, {}, {}},
        {11, 20, {}, {}},
        {51, -1, {}, {}},
    };
    for (const Case& c : cases) {
        PlanOptions options;
        options.fromOffsetMs = c.from;
        options.toOffsetMs = c.to;
        ReplayPlan plan;
        const ReplayPlatform::Status built = BuildReplayPlan(log.data(), log.size(), options, plan);
        ASSERT_EQ(built.IsOk(), !c.records.empty())
            << c.from << " to " << c.to << ": " << built.Message();
        if (built.IsOk()) {
            EXPECT_EQ(ItemData(plan.records), c.records) << c.from << " to " << c.to;
            EXPECT_EQ(ItemData(plan.state), c.state) << c.from << " to " << c.to;
            EXPECT_EQ(plan.startMs, 1000 + c.from);
        }
    }
}

// A later block with an earlier time is due when the client hands it over.
TEST(ReplayPlanTest, AClientsItemsKeepTheirOrderWhenTimesGoBack) {
    std::string log;
    Store(log, LogFormat::HeaderPayload(1000));
    Store(log, ServerTest::Block("gps", 1, {{1000, "g0"}, {1100, "g1"}}));
    Store(log, ServerTest::Block("gps", 2, {{1050, "g2"}}));
    Store(log, ServerTest::Block("can", 1, {{1060, "c0"}}));
    ReplayPlan plan;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), PlanOptions(), plan).IsOk());
    EXPECT_EQ(ItemData(plan.records), (std::vector<std::string>{"g0", "c0", "g1", "g2"}));
    EXPECT_EQ(plan.records[3].timeMs, 1100);
    EXPECT_EQ(Sent(plan.records[3]).items[0].timeMs, 1050);
}

}  // namespace
