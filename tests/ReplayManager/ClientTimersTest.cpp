// The cases that must let the client's ping thread run on the real clock.

#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;

class ClientTimersTest : public ClientFixture {
  protected:
    void SetUp() override {
        ClientFixture::SetUp();
        ReplayCore::SetClockSourceForTesting(nullptr);
        ClientPingThread::SetIntervalsForTesting(10, 20);
    }
    void TearDown() override {
        clientPingThread.RequestStop();
        ClientFixture::TearDown();
    }
};

TEST_F(ClientTimersTest, PingsGoOutOnlyInTheServersTimeSlot) {
    Connect(ReplayCore::eStateStopped);
    g_UDPSendBuffer.SetTimeSlot(11);  // a slot the clock never reaches
    clientPingThread.start();
    EXPECT_FALSE(m_server.WaitForDatagrams(1, 1200ms));

    g_UDPSendBuffer.SetTimeSlot(4);
    ASSERT_TRUE(m_server.WaitForDatagrams(2, 3s));
    for (const ReplayTest::Datagram& ping : m_server.Datagrams()) {
        // The record's time is the moment of sending.
        const ReplayCore::MSTime::MSTimeStruct sent(ping.bytes.substr(1, ping.bytes.find(':') - 1));
        EXPECT_EQ(ReplayCore::GetTimeSlotFromTime(sent), 4u) << ping.bytes;
        EXPECT_NE(ping.bytes.find("#stop"), std::string::npos);
    }
}

}  // namespace
