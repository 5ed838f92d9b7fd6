// What a client hands over is what the log holds, at the moment it was handed over.

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ReplayManager/Ascii7.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "tests/e2e/clients/TimedItems.h"
#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::WaitFor;

struct PlannedItem {
    long pauseMs;
    char type;  // 't' or 'b'
    size_t size;
};

struct HandOver {
    int64_t beforeMs = 0;
    int64_t afterMs = 0;
    int result = 0;
};

struct Stored {
    int64_t timeMs = 0;
    int count = 0;
};

class RecordTimingTest : public ReplayTest::EndToEndTest {
  protected:
    void StartTimedClient(const std::string& name, const std::vector<PlannedItem>& plan) {
        const std::string base = Root() + "/" + name;
        std::ofstream out(base + ".plan");
        for (const PlannedItem& item : plan) {
            out << item.pauseMs << ' ' << item.type << ' ' << item.size << '\n';
        }
        out.close();
        m_plans[name] = plan;
        m_clients.emplace_back(
            new ReplayTest::Process({ReplayTest::BuiltBinary("tests/timed_item_client"), name,
                                     base + ".plan", base + ".journal"},
                                    base + ".out", m_environment));
    }

    std::string Journal(const std::string& name) const {
        return ReplayTest::ReadFile(Root() + "/" + name + ".journal");
    }
    std::vector<HandOver> HandOvers(const std::string& name) const {
        std::vector<HandOver> handOvers;
        std::istringstream in(Journal(name));
        size_t index = 0;
        HandOver handOver;
        while (in >> index >> handOver.beforeMs >> handOver.afterMs >> handOver.result) {
            handOvers.push_back(handOver);
        }
        return handOvers;
    }

    std::map<std::string, std::map<std::string, Stored>> ReadLog() const {
        std::map<std::string, std::map<std::string, Stored>> items;
        ReplayCore::ReplayLogReader reader;
        ReplayCore::LogRecord record;
        ReplayCore::LogClientRecord fields;
        if (!reader.Open(LogPath())) {
            return items;
        }
        while (reader.Next(record)) {
            if (record.kind != ReplayCore::LogRecordKind::kClient ||
                !ReplayCore::ParseLogClientRecord(record.payload, fields) ||
                fields.typeCharacter == '#') {
                continue;
            }
            EXPECT_LE(record.payload.size(), GetMaximumClientRecordSize()) << "oversized record";
            std::map<std::string, Stored>& client = items[fields.clientName];
            ReplayCore::ForEachLogItem(record.payload, fields,
                                       [&](int64_t timeMs, const char* data, size_t length) {
                                           Stored& stored = client[std::string(data, length)];
                                           stored.timeMs = timeMs;
                                           ++stored.count;
                                       });
        }
        return items;
    }

    std::string StoredForm(const std::string& name, size_t index) const {
        const PlannedItem& planned = m_plans.at(name)[index];
        const std::string bytes = TimedItems::ItemBytes(index, planned.type, planned.size);
        if (planned.type == 't') {
            return bytes;
        }
        Ascii7Encoder::CMessageEncode encoder;
        unsigned int length = 0;
        const char* text = Ascii7Encoder::ConvertToAscii7(
            encoder, reinterpret_cast<const unsigned char*>(bytes.data()),
            static_cast<unsigned int>(bytes.size()), length);
        return text != nullptr ? std::string(text, length) : std::string();
    }

    bool AllPlansDone() const {
        return std::all_of(m_plans.begin(), m_plans.end(), [&](const auto& plan) {
            return Journal(plan.first).find("done\n") != std::string::npos;
        });
    }

    std::map<std::string, std::vector<PlannedItem>> m_plans;
};

TEST_F(RecordTimingTest, EveryItemIsStoredAtItsHandOverTimeOrRefusedOutright) {
    std::vector<PlannedItem> slow(6, PlannedItem{1000, 't', 24});
    std::vector<PlannedItem> idle;
    const long pauses[] = {150, 400, 700, 950, 20, 300, 850, 60, 500, 990, 5, 640};
    for (size_t i = 0; i < sizeof pauses / sizeof pauses[0]; ++i) {
        idle.push_back({pauses[i], i % 3 == 2 ? 'b' : 't', 16 + i * 40});
    }
    std::vector<PlannedItem> sizes;
    for (size_t size = 2003; size <= 2032; ++size) {
        sizes.push_back({5, 't', 8});
        sizes.push_back({0, 't', size});
        sizes.push_back({40, 't', size});
    }
    for (size_t size : {1700u, 1740u, 1750u, 1755u, 1758u, 1760u, 1765u, 1780u, 1791u, 1800u}) {
        sizes.push_back({5, 'b', 6});
        sizes.push_back({0, 'b', size});
        sizes.push_back({40, 'b', size});
    }
    // Only the default hold keeps a 1 Hz client's late blocks in the log.
    ASSERT_NO_FATAL_FAILURE(StartServer(5000));
    StartTimedClient("slow", slow);
    StartTimedClient("idle", idle);
    StartTimedClient("sizes", sizes);
    ASSERT_NO_FATAL_FAILURE(WaitUntilRunning({"slow", "idle", "sizes"}));

    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(WaitFor([&] { return AllPlansDone(); }, 60s, 100ms));
    std::this_thread::sleep_for(500ms);
    ASSERT_EQ(Send("stop").status, 0);
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();

    const auto logged = ReadLog();
    for (const auto& plan : m_plans) {
        SCOPED_TRACE(plan.first);
        const std::vector<HandOver> handOvers = HandOvers(plan.first);
        ASSERT_EQ(handOvers.size(), plan.second.size());
        const std::map<std::string, Stored>& stored = logged.at(plan.first);
        size_t slowCalls = 0;
        size_t refused = 0;
        for (size_t i = 0; i < handOvers.size(); ++i) {
            const HandOver& handOver = handOvers[i];
            const auto found = stored.find(StoredForm(plan.first, i));
            if (handOver.result < 0) {
                ++refused;
                EXPECT_GE(plan.second[i].size, 1700u) << "item " << i;
                EXPECT_TRUE(found == stored.end()) << "item " << i;
                continue;
            }
            ASSERT_TRUE(found != stored.end()) << "item " << i;
            EXPECT_EQ(found->second.count, 1) << "item " << i;
            EXPECT_GE(found->second.timeMs, handOver.beforeMs) << "item " << i;
            EXPECT_LE(found->second.timeMs, handOver.afterMs) << "item " << i;
            if (handOver.afterMs - handOver.beforeMs > 2) {
                ++slowCalls;
            }
        }
        // A loaded machine may stretch some calls, but not most.
        EXPECT_LE(slowCalls, handOvers.size() / 2) << slowCalls << " slow calls";
        if (plan.first == "sizes") {
            EXPECT_GE(handOvers[1].result, 0);
            EXPECT_LT(handOvers[88].result, 0);
            EXPECT_LT(handOvers.back().result, 0);
            EXPECT_GT(refused, 0u);
            EXPECT_GE(handOvers[handOvers.size() - 3].result, 0);
        } else {
            EXPECT_EQ(refused, 0u);
        }
    }
    ExpectLogIntact();
}

}  // namespace
