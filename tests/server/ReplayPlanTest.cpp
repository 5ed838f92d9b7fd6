#include "server/ReplayPlan.h"

#include <gtest/gtest.h>

#include "libreplay/server/ReplayLogReader.h"
#include "tests/ReplayManager/ServerTestSupport.h"

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
    Store(log, ServerTest::DataRecord("gps", 1300, 2, "b"));
    Store(log, ServerTest::DataRecord("can", 1100, 1, "a"));
    std::string damaged = ServerTest::DataRecord("can", 1200, 2, "x");
    damaged[damaged.size() - 3] ^= 1;  // checksum no longer matches
    Store(log, damaged);
    Store(log, ServerTest::StatusRecord("ReplayManager", 1400, "stop"));
    Store(log, ServerTest::DataRecord("gps", 1250, 1, "c"));

    ReplayPlan plan;
    std::string error;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), PlanOptions(), plan, error)) << error;
    ASSERT_EQ(plan.records.size(), 3u);
    EXPECT_EQ(plan.records[0].timeMs, 1100);
    EXPECT_EQ(plan.records[1].timeMs, 1250);
    EXPECT_EQ(plan.records[2].timeMs, 1300);
    // Records go out without their line end, so that the client's last item
    // ends where the checksum field starts.
    const std::string stored = ServerTest::DataRecord("gps", 1300, 2, "b");
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
    std::string error;
    PlanOptions options;
    options.segment = 2;
    options.fromOffsetMs = 2500;
    ASSERT_TRUE(BuildReplayPlan(log.data(), log.size(), options, plan, error)) << error;
    ASSERT_EQ(plan.records.size(), 2u);
    EXPECT_EQ(plan.startMs, 7500);
    EXPECT_EQ(plan.records[0].timeMs, 8000);

    options.fromOffsetMs = 10000;
    EXPECT_FALSE(BuildReplayPlan(log.data(), log.size(), options, plan, error));
    EXPECT_FALSE(error.empty());
    options = PlanOptions();
    options.segment = 7;
    EXPECT_FALSE(BuildReplayPlan(log.data(), log.size(), options, plan, error));
}

}  // namespace
