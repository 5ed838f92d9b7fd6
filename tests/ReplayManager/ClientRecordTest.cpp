#include "libreplay/server/ClientRecord.h"

#include <random>
#include <string>
#include <vector>

#include "tests/ReplayManager/RecordText.h"
#include "tests/support/TestSupport.h"

namespace {

using RecordText::Ascii7;
using ReplayCore::MSTime;
using ReplayTest::CapturedDebug;

std::string ReadRecord(const std::string& name) {
    return ReplayTest::ReadFile(std::string(REPLAY_TEST_DATA_DIR) + "/records/" + name);
}

bool Valid(const std::string& line) {
    return ReplayCore::CheckSumValid(line.data(), static_cast<unsigned int>(line.size()));
}

struct ParsedRecord {
    bool ok = false;
    std::string clientName = "unset";
    MSTime::MSTimeStruct time;
    unsigned int dataType = 99;
    unsigned int firstNumber = 99;
    unsigned int sequenceNumber = 99;
    unsigned int payloadLength = 99;
    unsigned int payloadStart = 99;
};

ParsedRecord Parse(const std::string& record) {
    ParsedRecord parsed;
    parsed.ok = ParseClientRecord(record, parsed.clientName, parsed.time, parsed.dataType,
                                  parsed.firstNumber, parsed.sequenceNumber, parsed.payloadLength,
                                  parsed.payloadStart);
    return parsed;
}

class ClientRecordTest : public ReplayTest::TargetRootTest {};

TEST_F(ClientRecordTest, StoredRecordsVerifyWithAnyLineEndAndAnyHexField) {
    for (const char* name : {"binary_block.rec", "text_lf.rec", "text_crlf.rec", "text_noeol.rec",
                             "status_empty.rec", "status_command.rec", "name20.rec"}) {
        EXPECT_TRUE(Valid(ReadRecord(name))) << name;
    }
    // The sum of "#5.005:Nav:" is 0x2b4, in every form "%x" reads.
    for (const char* field : {"     2b4", "     2B4", "000002b4", "\t    2b4", "   0x2b4"}) {
        EXPECT_TRUE(Valid(std::string("#5.005:Nav:") + field + "\n")) << field;
    }
    for (const char* line : {"#5.005:Nav:     2b5\n", "#5.005:Nav:        \n", "    0\n"}) {
        EXPECT_FALSE(Valid(line)) << line;
    }
}

TEST_F(ClientRecordTest, ChecksumReadsBytesAsSigned) {
    EXPECT_EQ(ReplayCore::ComputeChecksum("A\xDE", 2), 65u - 34u);
    // The word-wise sum against a plain signed sum at every length and alignment.
    std::mt19937 random(9);
    std::vector<char> data(5000);
    for (int round = 0; round < 300; ++round) {
        for (char& byte : data) {
            byte = round % 3 == 0 ? '\xFF' : static_cast<char>(random());
        }
        const unsigned int offset = random() % 8;
        const unsigned int length = random() % (data.size() - offset);
        uint32_t expected = 0;
        for (unsigned int i = 0; i < length; ++i) {
            expected += static_cast<uint32_t>(static_cast<signed char>(data[offset + i]));
        }
        ASSERT_EQ(ReplayCore::ComputeChecksum(data.data() + offset, length), expected) << length;
    }
}

TEST_F(ClientRecordTest, ParsesDataAndStatusRecordsAndRejectsMalformedHeadersAndNames) {
    const std::string block = ReadRecord("binary_block.rec");
    ParsedRecord parsed = Parse(block);
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.clientName, "NavGps");
    EXPECT_EQ(parsed.time.m_timeMilliseconds, 83061);
    EXPECT_EQ(parsed.dataType, kDataTypeAsciiEncodedBinary);
    EXPECT_EQ(parsed.firstNumber, 1u);
    EXPECT_EQ(parsed.sequenceNumber, 7u);
    EXPECT_EQ(block.substr(parsed.payloadStart, parsed.payloadLength),
              Ascii7(std::string("\x00\xFF", 2)) + "\xDE" +
                  "83.105:" + Ascii7("\x01\x23\x45\x67\x89\xab\xcd"));

    parsed = Parse(ReadRecord("status_empty.rec"));
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.dataType, kDataTypeStatusText);
    EXPECT_EQ(parsed.payloadLength, 0u);
    EXPECT_EQ(parsed.sequenceNumber, 99u);  // untouched without the number field

    const std::string command = ReadRecord("status_command.rec");
    parsed = Parse(command);
    EXPECT_EQ(command.substr(parsed.payloadStart, parsed.payloadLength), "#replay c=1;s=2;");

    parsed = Parse("\"1.000:Nav:!1 5");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.sequenceNumber, 5u);
    EXPECT_EQ(parsed.payloadLength, 0u);
    EXPECT_EQ(Parse("#1.000:Nav:ab").payloadLength, 0u);

    CapturedDebug debug;
    EXPECT_TRUE(ClientNameValid(std::string(20, 'A')));
    EXPECT_TRUE(ClientNameValid("0:;<=>?@[\\]^_`z"));
    for (const std::string& name : {std::string(21, 'A'), std::string("Nav-Gps"),
                                    std::string("Nav Gps"), std::string("Nav{\xE9")}) {
        EXPECT_FALSE(ClientNameValid(name)) << name;
    }
    EXPECT_FALSE(Parse("no colon at all\r\n").ok);
    EXPECT_FALSE(Parse("\"1.000:NavGps").ok);
    EXPECT_FALSE(Parse(ReadRecord("name21.rec")).ok);
    EXPECT_FALSE(Parse("\"1.000:Nav-Gps:x     123\n").ok);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "First Colon Missing in no colon at all\\n"), 1)
        << debug.Dump();

    parsed = Parse("'1.000:Nav:x     123\n");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.dataType, kDataTypeUnspecified);
}

}  // namespace
