#include <sys/socket.h>

#include <atomic>
#include <set>
#include <thread>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/ReplayManager/ClientTestFixture.h"
#include "tests/ReplayManager/RecordText.h"

namespace {

using namespace ClientTest;
using RecordText::Ascii7;
using RecordText::Item;
using RecordText::WithChecksum;
using ReplayTest::CapturedDebug;

using UDPSendBufferTest = ClientFixture;

int Send(const std::string& text, unsigned int type = kDataTypeAsciiText, bool immediate = false) {
    return ReplayClient::SendClientData(text.data(), static_cast<unsigned int>(text.size()),
                                        immediate, type);
}

TEST_F(UDPSendBufferTest, BlocksCarryHeaderSeparatedItemsAndAVerifiableTrailer) {
    Connect();
    EXPECT_EQ(Send("one"), 0);
    g_nowMs = 100010;
    EXPECT_EQ(Send("two"), 0);
    g_nowMs = 100030;
    const std::string binary("\x00\x01\xff\x80 binary", 12);
    EXPECT_GT(Send(binary, kDataTypeBinary), 0) << "a change of type sends the block first";
    g_nowMs = 100040;
    EXPECT_EQ(Send(binary, kDataTypeBinary), 0);
    EXPECT_GT(FlushBlock(), 0);

    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 2u);
    EXPECT_EQ(datagrams[0], WithChecksum("\"100.000:Tester:!1 1:one" + Item("100.010", "two")));
    EXPECT_EQ(datagrams[1], WithChecksum("$100.030:Tester:!1 2:" + Ascii7(binary) +
                                         Item("100.040", Ascii7(binary))));
}

// A block must stay below the fill limit of 2032 bytes.
unsigned int LargestTextItem(unsigned int blockLength) {
    return 2032 - blockLength - 1;
}

void ExpectIntactDatagrams(const std::vector<std::string>& datagrams) {
    for (const std::string& datagram : datagrams) {
        EXPECT_LE(datagram.size(), ::GetMaximumClientRecordSize());
        EXPECT_TRUE(ChecksumValid(datagram)) << datagram.substr(0, 40);
    }
}

TEST_F(UDPSendBufferTest, TextAtTheFillLimitIsTakenWholeOrRefusedWithANegativeResult) {
    Connect();
    const unsigned int header = g_UDPSendBuffer.GetBlockLength();
    const unsigned int largest = LargestTextItem(header);

    EXPECT_LT(Send(std::string(largest + 1, 'x')), 0);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateRecord);
    EXPECT_TRUE(g_UDPSendBuffer.IsEmpty());
    // Only items longer than recordLimit (2032) end the recording.
    EXPECT_LT(Send(std::string(2032, 'y')), 0);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateRecord);
    EXPECT_LT(Send(std::string(2032, 'y'), kDataTypeAsciiText, true), 0);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateRecord);

    EXPECT_EQ(Send(std::string(largest, 'a')), 0);
    EXPECT_EQ(g_UDPSendBuffer.GetBlockLength(), 2031u);

    // The separator 0xDE "2000000.010" ':' (13 bytes) outgrows the sender's estimate of 12.
    g_nowMs = 2000000000;
    EXPECT_GT(Send("b"), 0);
    g_nowMs = 2000000010;
    const unsigned int separator = 13;
    const std::string fits(LargestTextItem(g_UDPSendBuffer.GetBlockLength() + separator), 'c');
    EXPECT_EQ(Send(fits), 0);
    EXPECT_EQ(g_UDPSendBuffer.GetBlockLength(), 2031u);
    EXPECT_GT(Send("d"), 0);
    const std::string over(LargestTextItem(g_UDPSendBuffer.GetBlockLength() + separator) + 1, 'e');
    EXPECT_GT(Send(over), 0);
    EXPECT_GT(FlushBlock(), 0);

    const std::vector<std::string> datagrams = Received();
    ExpectIntactDatagrams(datagrams);
    ASSERT_EQ(datagrams.size(), 4u);
    EXPECT_EQ(datagrams[0].size(), 2040u);
    EXPECT_EQ(SplitBlock(datagrams[0]).items, std::vector<std::string>{std::string(largest, 'a')});
    EXPECT_EQ(SplitBlock(datagrams[1]).items, (std::vector<std::string>{"b", fits}));
    EXPECT_EQ(datagrams[1].size(), 2040u);
    EXPECT_EQ(SplitBlock(datagrams[2]).items, std::vector<std::string>{"d"});
    EXPECT_EQ(SplitBlock(datagrams[3]).items, std::vector<std::string>{over});

    EXPECT_EQ(Send(std::string(2033, 'z')), -1);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateStopped);
}

TEST_F(UDPSendBufferTest, BinaryAtTheFillLimitIsTakenWholeOrRefusedWithANegativeResult) {
    Connect(ReplayCore::eStateRecord, kDataTypeBinary);
    const unsigned int header = g_UDPSendBuffer.GetBlockLength();
    unsigned int largest = 0;
    while ((8 * (largest + 1) + 6) / 7 <= LargestTextItem(header)) {
        ++largest;
    }
    EXPECT_LT(Send(std::string(largest + 1, '\x81'), kDataTypeBinary), 0);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateRecord);
    EXPECT_TRUE(g_UDPSendBuffer.IsEmpty());
    const std::string item(largest, '\xF3');
    EXPECT_EQ(Send(item, kDataTypeBinary), 0);

    // Behind a record the sender estimates Ascii7 growth as half the size again.
    g_nowMs = 100200;
    EXPECT_GT(Send("\x01\x02", kDataTypeBinary), 0);
    const unsigned int length = g_UDPSendBuffer.GetBlockLength();
    unsigned int behind = 0;
    while (length + 12 + (behind + 1) + (behind + 1) / 2 < 2032) {
        ++behind;
    }
    const std::string second(behind, '\x7E');
    g_nowMs = 100210;
    EXPECT_EQ(Send(second, kDataTypeBinary), 0);
    EXPECT_GT(FlushBlock(), 0);

    const std::vector<std::string> datagrams = Received();
    ExpectIntactDatagrams(datagrams);
    ASSERT_EQ(datagrams.size(), 2u);
    EXPECT_EQ(SplitBlock(datagrams[0]).items, std::vector<std::string>{Ascii7(item)});
    EXPECT_EQ(SplitBlock(datagrams[1]).items,
              (std::vector<std::string>{Ascii7("\x01\x02"), Ascii7(second)}));
}

TEST_F(UDPSendBufferTest, FirstItemAfterAnyPauseStartsTheBlockAndAnOldBlockWaitsForItsSlot) {
    Connect();
    g_nowMs = 100300;
    EXPECT_EQ(Send("first"), 0);
    EXPECT_EQ(g_UDPSendBuffer.GetBlockStartTime().m_timeMilliseconds, 100300);
    g_nowMs = 100350;
    EXPECT_GT(FlushBlock(), 0);

    g_nowMs = 100900;
    EXPECT_EQ(Send("after pause"), 0);
    EXPECT_EQ(g_UDPSendBuffer.GetBlockStartTime().m_timeMilliseconds, 100900);

    // In its slot but not a second old: not due, though the last send was.
    g_nowMs = 101500;
    g_UDPSendBuffer.SetTimeSlot(
        ReplayCore::GetTimeSlotFromTime(ReplayCore::MSTime::CurrentTimeMS()));
    EXPECT_EQ(Send("young"), 0);
    EXPECT_GT(FlushBlock(), 0);

    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 2u);
    EXPECT_EQ(SplitBlock(datagrams[0]).header, "\"100.300:Tester:!1 1:");
    const Block second = SplitBlock(datagrams[1]);
    EXPECT_EQ(second.header, "\"100.900:Tester:!1 2:");
    EXPECT_EQ(second.itemTimes, std::vector<std::string>{"101.500"});

    g_UDPSendBuffer.SetTimeSlot(3);
    g_nowMs = 200300;
    EXPECT_EQ(Send("first"), 0);
    g_nowMs = 201300;  // slot 3, but exactly a second old: not yet due
    EXPECT_EQ(Send("second"), 0);
    g_nowMs = 201400;  // old, but slot 4
    EXPECT_EQ(Send("third"), 0);
    g_nowMs = 202260;  // slot 3 (rounded up from .260 to .300)
    EXPECT_GT(Send("fourth"), 0);
    const std::vector<std::string> slotted = Received();
    ASSERT_EQ(slotted.size(), 3u);
    EXPECT_EQ(SplitBlock(slotted[2]).items, (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_EQ(g_UDPSendBuffer.GetBlockStartTime().m_timeMilliseconds, 202260);
}

TEST_F(UDPSendBufferTest, FailedBlockKeepsItsTrailerAndUsesUpASequenceNumber) {
    Connect();
    Send("kept");
    ASSERT_EQ(::shutdown(g_replayClient.Socket(), SHUT_WR), 0);
    EXPECT_EQ(FlushBlock(), -1);
    // Connecting, whose failed report then stopped the client.
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateStopped);
    EXPECT_EQ(g_UDPSendBuffer.GetBlockSequence(), 2u);

    ASSERT_GT(g_replayClient.Open(m_server.Address().c_str(), 4400), 0);
    g_clientStateManager.SetStateForTesting(ReplayCore::eStateRecord);
    EXPECT_GT(FlushBlock(), 0);  // the same block, trailer not appended twice
    Send("next");
    EXPECT_GT(FlushBlock(), 0);
    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 2u);
    EXPECT_TRUE(ChecksumValid(datagrams[0]));
    EXPECT_EQ(SplitBlock(datagrams[0]).header, "\"100.000:Tester:!1 1:");
    EXPECT_EQ(SplitBlock(datagrams[1]).header.substr(16), "!1 3:");
}

TEST_F(UDPSendBufferTest, ReconnectsNoMoreOftenThanTheInterval) {
    Connect(ReplayCore::eStateConnecting);
    CapturedDebug debug;
    // The server's address counts as remote: with a long external wait no open succeeds.
    ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 1000000);
    g_replayClient.close();
    for (int64_t t : {200000, 200100, 200149, 200150, 200299, 200300}) {
        g_nowMs = t;
        EXPECT_EQ(Send("x"), -1);
    }
    EXPECT_EQ(debug.Count("Attempting Server Reconnect"), 3) << debug.Dump();
}

TEST_F(UDPSendBufferTest, ConcurrentSendersLoseNoAcceptedItem) {
    ReplayCore::SetClockSourceForTesting(nullptr);
    Connect();
    ClientPingThread::SetIntervalsForTesting(1, 5);
    clientPingThread.start();
    const int kThreads = 4;
    const int kItems = 500;
    std::atomic<int> accepted{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([t, &accepted] {
            for (int i = 0; i < kItems; ++i) {
                if (Send("T" + std::to_string(t) + "-" + std::to_string(i)) >= 0) {
                    accepted.fetch_add(1);
                }
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    clientPingThread.RequestStop();
    FlushBlock();
    ASSERT_EQ(accepted.load(), kThreads * kItems);

    std::set<std::string> items;
    for (const std::string& datagram : Received()) {
        if (datagram[0] == '#') {
            continue;  // pings
        }
        for (const std::string& item : SplitBlock(datagram).items) {
            EXPECT_TRUE(items.insert(item).second) << item;
        }
    }
    EXPECT_EQ(items.size(), static_cast<size_t>(kThreads * kItems));
}

}  // namespace
