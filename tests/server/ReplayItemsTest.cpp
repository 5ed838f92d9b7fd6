#include "server/ReplayItems.h"

#include <gtest/gtest.h>

#include "libreplay/server/ClientRecord.h"
#include "tests/ReplayManager/ServerTestSupport.h"

namespace {

using ReplayServer::CutRecordItems;
using ReplayServer::FormItemRecord;
using ReplayServer::ItemCut;

const char kSeparator = static_cast<char>(ReplayCore::kItemSeparator);

std::string TimeText(int64_t ms) {
    return ReplayCore::MSTime::MSTimeStruct(0, ms).ToString();
}

// Items without a time are skipped, empty ones never handed over; an
// unreadable time is the previous item's.
TEST(ReplayItemsTest, CutsItemsAsAClientDoes) {
    const std::string payload = std::string("first") + kSeparator + TimeText(2010) + ":second" +
                                kSeparator + "no time here" + kSeparator + TimeText(2020) + ":" +
                                kSeparator + TimeText(2030) + ":x" + kSeparator + "bad:late" +
                                kSeparator + TimeText(2040) + ":a:b";
    const std::string record = ServerTest::DataRecord("gps", 2000, 42, payload);
    for (const std::string& sent : {record, record.substr(0, record.size() - 1)}) {
        ItemCut cut;
        ASSERT_TRUE(CutRecordItems(sent, cut));
        EXPECT_EQ(cut.client, "gps");
        EXPECT_EQ(cut.sequence, 42u);
        ASSERT_EQ(cut.items.size(), 4u);
        EXPECT_EQ(cut.items[0].data, "first");
        EXPECT_EQ(cut.items[0].timeMs, 2000);
        EXPECT_EQ(cut.items[1].data, "second");
        EXPECT_EQ(cut.items[1].timeMs, 2010);
        EXPECT_EQ(cut.items[2].data, "late");
        EXPECT_EQ(cut.items[2].timeMs, 2030);
        EXPECT_EQ(cut.items[3].data, "a:b");
        EXPECT_EQ(cut.itemsWithoutTime, 1u);
        EXPECT_EQ(cut.emptyItems, 2u);
    }

    ItemCut cut;
    EXPECT_FALSE(CutRecordItems(ServerTest::StatusRecord("gps", 1, "#replay"), cut));
    EXPECT_FALSE(CutRecordItems("no colon at all", cut));
    EXPECT_FALSE(CutRecordItems("\"1.000:", cut));
}

TEST(ReplayItemsTest, FormedRecordsCarryOneItemAndAValidChecksum) {
    const std::string header = "$5.123:nav:!1 4294967295:";
    const std::string largest = "x\x81:y" + std::string(2048 - 8 - header.size() - 4, 'z');
    std::string record;
    ASSERT_TRUE(FormItemRecord('$', "nav", 5123, 4294967295u, largest, record));
    EXPECT_EQ(record.size(), 2048u);
    EXPECT_NE(record.back(), '\n');
    EXPECT_TRUE(ReplayCore::CheckSumValid(record.data(), static_cast<unsigned int>(record.size())));
    ItemCut cut;
    ASSERT_TRUE(CutRecordItems(record, cut));
    EXPECT_EQ(cut.typeCharacter, '$');
    EXPECT_EQ(cut.client, "nav");
    EXPECT_EQ(cut.sequence, 4294967295u);
    EXPECT_EQ(cut.blockTimeMs, 5123);
    ASSERT_EQ(cut.items.size(), 1u);
    EXPECT_EQ(cut.items[0].data, largest);
    EXPECT_FALSE(FormItemRecord('$', "nav", 5123, 4294967295u, largest + "z", record));
    EXPECT_FALSE(FormItemRecord('"', "nav", 1000, 1, std::string("a\0b", 3), record));
}

}  // namespace
