#include "server/IngestJournal.h"

#include "tests/ReplayManager/ServerTestSupport.h"

namespace {

using ReplayServer::IngestJournal;
using ServerTest::DataRecord;
using Clock = IngestJournal::Clock;

class IngestJournalTest : public ReplayTest::TargetRootTest {
  protected:
    std::string Path() const { return Root() + "/var/lib/replay/journal"; }
    // What a restart now would recover, read from a copy (opening rewrites).
    std::vector<std::string> Recover() const {
        WriteTargetFile("/restart/journal", ReadTargetFile("/var/lib/replay/journal"));
        IngestJournal after(Root() + "/restart/journal");
        std::vector<std::string> unwritten;
        const ReplayPlatform::Status opened = after.Open(unwritten);
        EXPECT_TRUE(opened.IsOk()) << opened.Message();
        return unwritten;
    }
    static void Receive(IngestJournal& journal, const std::string& record) {
        journal.Received(record.data(), record.size());
    }
    static void Write(IngestJournal& journal, const std::string& record) {
        journal.Written(record.data(), record.size());
    }
};

TEST_F(IngestJournalTest, RestartBringsBackWhatWasNeverWrittenInArrivalOrderUntilAReset) {
    const std::string a = DataRecord("a", 1000, 1), b = DataRecord("b", 900, 1),
                      c = DataRecord("a", 1100, 2);
    {
        IngestJournal journal(Path());
        std::vector<std::string> none;
        ASSERT_TRUE(journal.Open(none).IsOk());
        Receive(journal, a);
        Receive(journal, b);
        Receive(journal, c);
        EXPECT_TRUE(Recover().empty());
        journal.FlushGathered(Clock::now());
        Write(journal, b);
        EXPECT_EQ(Recover(), (std::vector<std::string>{a, c}));
        EXPECT_EQ(journal.ReceivedCount(), 3u);
        EXPECT_EQ(journal.WrittenCount(), 1u);
        // Killed here: no Close.
    }
    IngestJournal restarted(Path());
    std::vector<std::string> unwritten;
    ASSERT_TRUE(restarted.Open(unwritten).IsOk());
    EXPECT_EQ(unwritten, (std::vector<std::string>{a, c}));
    EXPECT_EQ(Recover(), (std::vector<std::string>{a, c}));

    Receive(restarted, DataRecord("a", 1200, 3));
    restarted.Reset();
    EXPECT_TRUE(Recover().empty());
    const std::string d = DataRecord("a", 1300, 4);
    Receive(restarted, d);
    restarted.FlushGathered(Clock::now());
    EXPECT_EQ(Recover(), std::vector<std::string>{d});
}

TEST_F(IngestJournalTest, RepeatedRecordsNeedAMarkEachAndATornTailIsIgnored) {
    const std::string a = DataRecord("a", 1000, 1);
    IngestJournal journal(Path());
    std::vector<std::string> none;
    ASSERT_TRUE(journal.Open(none).IsOk());
    Receive(journal, a);
    Receive(journal, a);
    journal.FlushGathered(Clock::now());
    Write(journal, a);
    EXPECT_EQ(Recover(), std::vector<std::string>{a});
    Write(journal, a);
    Write(journal, a);
    EXPECT_TRUE(Recover().empty());

    const std::string b = DataRecord("b", 1200, 1);
    Receive(journal, b);
    journal.FlushGathered(Clock::now());
    journal.Close();
    const std::string contents = ReadTargetFile("/var/lib/replay/journal");
    WriteTargetFile("/var/lib/replay/journal", contents.substr(0, contents.size() - 3));
    EXPECT_TRUE(Recover().empty());
    WriteTargetFile("/var/lib/replay/journal", contents);
    EXPECT_EQ(Recover(), std::vector<std::string>{b});
}

TEST_F(IngestJournalTest, OpenFailsWhereNoFileCanBeMade) {
    WriteTargetFile("/var/lib/replay", "a file where the directory should be");
    IngestJournal journal(Path());
    std::vector<std::string> unwritten;
    const ReplayPlatform::Status opened = journal.Open(unwritten);
    EXPECT_FALSE(opened.IsOk());
    EXPECT_NE(opened.Message().find("journal"), std::string::npos);
    Receive(journal, DataRecord("a", 1000, 1));
    journal.FlushGathered(Clock::now());
    EXPECT_GE(journal.WriteFailures(), 1u);
}

TEST_F(IngestJournalTest, ALongRecordingKeepsTheFileToWhatIsUnwritten) {
    IngestJournal journal(Path(), 4096);
    std::vector<std::string> none;
    ASSERT_TRUE(journal.Open(none).IsOk());
    std::vector<std::string> pending;
    for (int k = 1; k <= 400; ++k) {
        const std::string record = DataRecord("long", 1000 + k, static_cast<unsigned int>(k));
        Receive(journal, record);
        if (k % 10 == 0) {
            journal.FlushGathered(Clock::now());
        }
        if (k % 50 != 0) {
            Write(journal, record);
        } else {
            pending.push_back(record);
        }
    }
    journal.FlushGathered(Clock::now());
    EXPECT_LT(ReadTargetFile("/var/lib/replay/journal").size(), 4096u + 2048u);
    EXPECT_EQ(Recover(), pending);
}

}  // namespace
