#include "server/RecordForwarder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "libreplay/FileLogger.h"
#include "libreplay/ReplayLogger.h"
#include "server/ReplayServer.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayServer::RecordForwarder;
using ReplayTest::WaitFor;

constexpr auto kDeadline = std::chrono::seconds(10);

// A write function that stands for a full pipe until it is opened.
class GatedSink {
  public:
    int Write(const char* record, unsigned int length) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_waiting = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        m_records.emplace_back(record, length);
        return m_failNext ? -1 : static_cast<int>(length);
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void WaitUntilBlocked() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_waiting; });
    }
    void FailWrites() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_failNext = true;
    }
    std::vector<std::string> Records() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_waiting = false;
    bool m_failNext = false;
    std::vector<std::string> m_records;
};

RecordForwarder::WriteFunction Into(GatedSink& sink) {
    return [&sink](const char* record, unsigned int length) { return sink.Write(record, length); };
}

TEST(RecordForwarderTest, QueuesWhileThePipeIsFullAndWritesInOrderOnceItEmpties) {
    GatedSink sink;
    RecordForwarder forwarder(Into(sink), 64);
    ASSERT_TRUE(forwarder.Push("first", 5));
    sink.WaitUntilBlocked();
    // The writing thread waits on the pipe; queuing does not.
    EXPECT_TRUE(forwarder.Push("second", 6));
    EXPECT_TRUE(forwarder.Push("third", 5));
    EXPECT_FALSE(forwarder.WaitUntilWritten(20));
    // Beyond the byte limit a record is refused and counted.
    EXPECT_FALSE(forwarder.Push(std::string(60, 'x').c_str(), 60));
    EXPECT_EQ(forwarder.Dropped(), 1u);

    sink.Open();
    EXPECT_TRUE(forwarder.WaitUntilWritten(10000));
    EXPECT_EQ(sink.Records(), (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_EQ(forwarder.Written(), 3u);
    EXPECT_EQ(forwarder.Failed(), 0u);
}

TEST(RecordForwarderTest, CountsFailedWritesAndWritesWhatIsQueuedBeforeItEnds) {
    GatedSink sink;
    {
        RecordForwarder forwarder(Into(sink), 1024);
        forwarder.Push("a", 1);
        sink.WaitUntilBlocked();
        forwarder.Push("b", 1);
        forwarder.Push("c", 1);
        sink.FailWrites();
        sink.Open();
        EXPECT_TRUE(forwarder.WaitUntilWritten(10000));
        EXPECT_EQ(forwarder.Failed(), 3u);
        forwarder.Push("d", 1);
    }
    EXPECT_EQ(sink.Records().size(), 4u);
}

class ForwardingServerTest : public ReplayTest::TargetRootTest {
  protected:
    void TearDown() override {
        m_server.reset();
        ReplayLogger::Get().ResetForTesting();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    std::unique_ptr<ReplayServer::ReplayServer> m_server;
};

// A burst fills the writer's pipe while the writer waits for the client
// table, which the receive path holds: every record must still reach the log.
TEST_F(ForwardingServerTest, BurstOfRecordsReachesTheLogWithoutStallingTheServer) {
    MakeTargetDirectory("/fs/usb0");
    WriteTargetFile("/kfsystem/multicore/navi/Q", "");
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> part(1, 254);
    std::string ip;
    for (int attempt = 0; attempt < 50 && m_server == nullptr; ++attempt) {
        ip = "127." + std::to_string(part(random)) + "." + std::to_string(part(random)) + "." +
             std::to_string(part(random));
        ReplayServer::ServerSettings settings;
        settings.bindAddress = ip;
        m_server.reset(new ReplayServer::ReplayServer(settings));
        std::string error;
        if (!m_server->Start(error)) {
            m_server.reset();
        }
    }
    ASSERT_NE(m_server, nullptr);
    m_server->StartRecording();

    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = ServerTest::Address(ip, 4400);
    constexpr unsigned int kRecords = 1000;
    // Records big enough that the pipe holds only a few of them.
    const std::string payload(1800, 'p');
    for (unsigned int sequence = 1; sequence <= kRecords; ++sequence) {
        const std::string record =
            ServerTest::DataRecord("burst", 1000 + sequence, sequence, payload);
        sendto(fd, record.data(), record.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }
    close(fd);
    ASSERT_TRUE(WaitFor([&] { return m_server->Counters().datagrams >= kRecords; }, kDeadline))
        << m_server->Counters().datagrams << " datagrams handled";
    ASSERT_TRUE(m_server->StopRecording(0));

    std::vector<std::string> data;
    for (const std::string& record :
         ServerTest::SplitFramedRecords(ReadTargetFile("/kfsystem/multicore/navi/Q"))) {
        if (record[0] == '"') {
            data.push_back(record);
        }
    }
    ASSERT_EQ(data.size(), kRecords);
    for (unsigned int sequence = 1; sequence <= kRecords; ++sequence) {
        EXPECT_NE(data[sequence - 1].find(":!1 " + std::to_string(sequence) + ":"),
                  std::string::npos);
    }
}

}  // namespace
