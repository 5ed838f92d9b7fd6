#include <string>

#include "libreplay/ReplayClientC.h"
#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;

int Replayed(void*, unsigned int, unsigned int) {
    return 1;
}

using ReplayClientExportsTest = ClientFixture;

TEST_F(ReplayClientExportsTest, EntryPointsDriveTheClient) {
    ReplayCore::SetClockSourceForTesting(nullptr);
    ASSERT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 1);
    EXPECT_EQ(CGetReplayState(), ReplayCore::eStateStopped);
    EXPECT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 0);

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateRecord);
    EXPECT_EQ(CSendClientData("buffered", 8, 0, kDataTypeAsciiText), 0);
    // Any non-zero flag sends at once.
    EXPECT_GT(CSendClientData("at once", 7, 2, kDataTypeAsciiText), 0);
    bool immediate = false;
    for (const std::string& datagram : Received()) {
        immediate = immediate || datagram.find(":at once") != std::string::npos;
        EXPECT_EQ(datagram.find("buffered"), std::string::npos);
    }
    EXPECT_TRUE(immediate);
}

}  // namespace
