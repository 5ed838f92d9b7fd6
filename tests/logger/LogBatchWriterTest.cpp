#include "logger/LogBatchWriter.h"

#include <filesystem>

#include "tests/ReplayManager/RecordText.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using MulticoreLogService::LogBatchWriter;
using MulticoreLogService::LogFileWriter;
using MulticoreLogService::LoggerStatistics;
using MulticoreLogService::RecordBatch;
using MulticoreLogService::RecordQueue;

class LogBatchWriterTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        m_medium = MakeTargetDirectory("/fs/usb0");
        m_file = std::make_unique<LogFileWriter>(m_medium + "/LOGFILE.DAT");
        m_writer = std::make_unique<LogBatchWriter>(
            *m_file, m_queue, m_statistics, 100ms,
            [this](const std::string& text) { m_notices.push_back(text); });
    }

    void Arrive(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            std::string framed;
            ReplayCore::LogFormat::FrameRecord(name + "\n", framed);
            ASSERT_TRUE(m_queue.AddRecord(framed.data(), framed.size()));
        }
        m_queue.Commit();
        std::deque<RecordBatch> batches;
        std::string console;
        ASSERT_TRUE(m_queue.Take(batches, console, 0ms));
        m_writer->Add(batches);
    }

    std::vector<std::string> Logged() const {
        std::vector<std::string> names = RecordText::LogPayloads(m_medium + "/LOGFILE.DAT");
        for (std::string& name : names) {
            name.pop_back();
        }
        return names;
    }

    std::string m_medium;
    RecordQueue m_queue{1024 * 1024};
    LoggerStatistics m_statistics;
    std::vector<std::string> m_notices;
    std::unique_ptr<LogFileWriter> m_file;
    std::unique_ptr<LogBatchWriter> m_writer;
    const LogBatchWriter::Clock::time_point m_t0 = LogBatchWriter::Clock::now();
};

TEST_F(LogBatchWriterTest, OutageHoldsRecordsAndWritesThemInOrderWhenTheMediumReturns) {
    ASSERT_NO_FATAL_FAILURE(Arrive({"a", "b"}));
    m_writer->WriteDue(m_t0);
    ASSERT_EQ(Logged(), (std::vector<std::string>{"a", "b"}));

    std::filesystem::rename(m_medium, m_medium + ".away");
    ASSERT_NO_FATAL_FAILURE(Arrive({"c"}));
    m_writer->WriteDue(m_t0 + 1ms);
    EXPECT_TRUE(m_writer->Failing());
    ASSERT_NO_FATAL_FAILURE(Arrive({"d", "e"}));
    std::filesystem::rename(m_medium + ".away", m_medium);
    // The retry falls due 100 ms after the failure, not a tick earlier.
    m_writer->WriteDue(m_t0 + 101ms - LogBatchWriter::Clock::duration(1));
    EXPECT_EQ(Logged().size(), 2u);
    EXPECT_EQ(m_notices.size(), 1u);
    EXPECT_NE(m_queue.HeldBytes(), 0u);

    m_writer->WriteDue(m_t0 + 101ms);
    EXPECT_FALSE(m_writer->Failing());
    EXPECT_EQ(Logged(), (std::vector<std::string>{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(m_queue.HeldBytes(), 0u);
    EXPECT_EQ(m_statistics.recordsWritten.load(), 5u);
    EXPECT_EQ(m_statistics.outages.load(), 1u);
    EXPECT_EQ(m_statistics.RecordsDropped(), 0u);
    ASSERT_EQ(m_notices.size(), 2u);
    EXPECT_NE(m_notices[0].find("cannot write"), std::string::npos) << m_notices[0];
    EXPECT_NE(m_notices[1].find("again after 0.1 s; 3 records held meanwhile written, 0 dropped"),
              std::string::npos)
        << m_notices[1];
}

TEST_F(LogBatchWriterTest, FullMediumLeavesNoPartOfABatchAndStopCountsWhatIsStillHeld) {
    ASSERT_NO_FATAL_FAILURE(Arrive({"a"}));
    m_writer->WriteDue(m_t0);
    const std::string before = ReplayTest::ReadFile(m_medium + "/LOGFILE.DAT");

    std::filesystem::rename(m_medium + "/LOGFILE.DAT", m_medium + "/kept");
    std::filesystem::create_symlink("/dev/full", m_medium + "/LOGFILE.DAT");
    ASSERT_NO_FATAL_FAILURE(Arrive({"b", "c"}));
    m_writer->WriteDue(m_t0 + 1ms);
    ASSERT_NO_FATAL_FAILURE(Arrive({"d"}));
    m_writer->WriteDue(m_t0 + 200ms);
    EXPECT_TRUE(m_writer->Failing());
    EXPECT_EQ(m_statistics.outages.load(), 1u);
    EXPECT_EQ(ReplayTest::ReadFile(m_medium + "/kept"), before);

    m_writer->Finish(m_t0 + 300ms);
    EXPECT_EQ(m_statistics.recordsDroppedUnwritten.load(), 3u);
    EXPECT_EQ(m_queue.HeldBytes(), 0u);
    ASSERT_FALSE(m_notices.empty());
    EXPECT_NE(m_notices.back().find("No space left on device; 3 held records dropped"),
              std::string::npos)
        << m_notices.back();
}

}  // namespace
