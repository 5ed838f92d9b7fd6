#include "libreplay/server/ClientDataList.h"

#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::ManualClock;
using ServerTest::Address;

class ClientDataListTest : public ReplayTest::TargetRootTest {};

TEST_F(ClientDataListTest, HealthRuleHasExactBoundsAndRederivesEveryUpdate) {
    ManualClock clock(1000);
    ClientData client(Address("127.0.0.1", 5000));
    client.UpdateClientStatus();
    // Never heard from: not yet Running.
    EXPECT_EQ(client.GetStatus(), ClientData::Idle);

    clock.Set(100000);
    client.LogMessageReceived();
    EXPECT_EQ(client.GetMessagesReceived(), 1u);
    struct Step {
        int64_t silenceMs;
        ClientData::ClientStatus expected;
    };
    const Step steps[] = {{0, ClientData::Running},
                          {5999, ClientData::Running},
                          {6000, ClientData::Idle},
                          {18000, ClientData::Idle},
                          {18001, ClientData::Failed}};
    for (const Step& step : steps) {
        clock.Set(100000 + step.silenceMs);
        client.UpdateClientStatus();
        EXPECT_EQ(client.GetStatus(), step.expected) << "after " << step.silenceMs << " ms";
        EXPECT_EQ(client.GetWaitTime().m_timeMilliseconds, step.silenceMs);
    }

    client.LogMessageReceived();
    client.UpdateClientStatus();
    EXPECT_EQ(client.GetStatus(), ClientData::Running);
    client.SetStatus(ClientData::ShutDown);
    client.UpdateClientStatus();
    EXPECT_EQ(client.GetStatus(), ClientData::Running);

    for (ClientData::ClientStatus kept : {ClientData::Error, ClientData::Disabled}) {
        client.SetStatus(kept);
        clock.Advance(60000);
        client.UpdateClientStatus();
        EXPECT_EQ(client.GetStatus(), kept);
    }
}

TEST_F(ClientDataListTest, SequenceNumbersCountGapsRepeatsBackwardStepsAndRestarts) {
    ClientData client(Address("127.0.0.1", 5000));
    struct Step {
        int number;
        int distance;
        int32_t dropped;
    };
    const Step steps[] = {
        {5, 1, 0},  // nothing seen yet: any first number is as expected
        {6, 1, 0},
        {9, 3, 2},
        {9, 0, 1},  // a repeat is a distance of 0 and takes one off the count
        {4, 5, 5},  // going backwards counts the distance as well
        {3, 1, 5},  // one step back is a distance of one, like one forward
        {2, 1, 5},  // 2 is still compared
        {1, 1, 0},  // 1 and 0 start the count afresh
        {3, 2, 1},  // the number after 1 is compared
        {0, 1, 0},
        {7, 1, 0},  // after a restart at 0 the next number is not compared
        {2000000007, 2000000000, 1999999999},
        {2, 2000000005, static_cast<int32_t>(4000000003u)},
    };
    for (const Step& step : steps) {
        EXPECT_EQ(client.SetPacketSequenceNumber(step.number), step.distance) << step.number;
        EXPECT_EQ(client.GetDroppedPackets(), step.dropped) << step.number;
    }
}

TEST_F(ClientDataListTest, OperationsInsideTheLockPassFalse) {
    ManualClock clock(1000);
    ClientDataList list;
    list.Append(ClientData(Address("127.0.0.1", 5000))).SetClientName("nav");
    ClientDataLock held(true);
    // Would deadlock if any of these took the non-recursive lock again.
    list.UpdateClientStatus(false);
    EXPECT_EQ(list.NumValidClients(false), 1);
    EXPECT_FALSE(list.IncrementPacketsKept("nav", false).IsError());
    EXPECT_EQ(list.Size(false), 1u);
}

}  // namespace
