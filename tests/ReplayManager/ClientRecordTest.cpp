#include "libreplay/ClientRecord.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "libreplay/Ascii7.h"
#include "libreplay/ExecutionTimer.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::MSTime;
using ReplayTest::CapturedDebug;

std::string ReadRecord(const std::string& name) {
    return ReplayTest::ReadFile(std::string(REPLAY_TEST_DATA_DIR) + "/records/" + name);
}

bool Valid(const std::string& line) {
    return ReplayCore::CheckSumValid(line.data(), static_cast<unsigned int>(line.size()));
}

std::string Ascii7(const std::vector<unsigned char>& data) {
    static Ascii7Encoder::CMessageEncode encoder;
    unsigned int length = 0;
    const char* text = Ascii7Encoder::ConvertToAscii7(
        encoder, data.data(), static_cast<unsigned int>(data.size()), length);
    return std::string(text, length);
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

TEST_F(ClientRecordTest, StoredRecordsVerifyWithAnyLineEnd) {
    for (const char* name : {"binary_block.rec", "text_lf.rec", "text_crlf.rec", "text_noeol.rec",
                             "status_empty.rec", "status_command.rec", "name20.rec"}) {
        EXPECT_TRUE(Valid(ReadRecord(name))) << name;
    }
    // A sum below 0x10000000 travels space-padded: "     a2a".
    const std::string record = ReadRecord("text_lf.rec");
    EXPECT_EQ(record.substr(record.size() - 9), "     a2a\n");
}

TEST_F(ClientRecordTest, ChecksumReadsBytesAsSigned) {
    EXPECT_EQ(ReplayCore::ComputeChecksum("\xDE", 1), 0xFFFFFFDEu);
    EXPECT_EQ(ReplayCore::ComputeChecksum("A\xA4", 2), 65u - 92u);
    // The stored block holds 0xDE and Ascii7 characters above 127; read
    // unsigned, its sum would not match.
    const std::string block = ReadRecord("binary_block.rec");
    unsigned int unsignedSum = 0;
    for (size_t i = 0; i + 9 < block.size(); ++i) {
        unsignedSum += static_cast<unsigned char>(block[i]);
    }
    EXPECT_NE(unsignedSum, ReplayCore::ComputeChecksum(block.data(), block.size() - 9));

    // The word-wise sum agrees with a plain signed sum at every length and
    // alignment, long runs of 0xFF included.
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

TEST_F(ClientRecordTest, MismatchIsRejectedAndReported) {
    CapturedDebug debug;
    std::string record = ReadRecord("text_lf.rec");
    record[5] = 'X';
    EXPECT_FALSE(Valid(record));
    EXPECT_EQ(
        debug.Count(CapturedDebug::kWarning,
                    "libReplay::ReplayCore::CheckSumValid: Length of CheckSum string=42; "
                    "Checksum String:     a2a\n; Computed CheckSum: a52; Last 2 Bytes:32 61;"),
        1)
        << debug.Dump();
    const std::string log = ReadTargetFile("/tmp/ReplayLog.txt");
    EXPECT_NE(log.find("Length of CheckSum string=42;"), std::string::npos);
    EXPECT_NE(log.find("Full String:\"12.5X0:Sensor_1:"), std::string::npos);

    debug.Clear();
    EXPECT_FALSE(ReplayCore::CheckSumValid("", 0));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Zero Length line passed to CheckSumValid"), 1);
    EXPECT_FALSE(Valid("    0\n"));
}

TEST_F(ClientRecordTest, ChecksumFieldIsReadAsHexInAnyForm) {
    // The sum of "#5.005:Nav:" is 0x2b4; fields other writers could produce
    // read back the same way.
    for (const char* field : {"     2b4", "     2B4", "000002b4", "\t    2b4", "   0x2b4"}) {
        EXPECT_TRUE(Valid(std::string("#5.005:Nav:") + field + "\n")) << field;
    }
    EXPECT_FALSE(Valid("#5.005:Nav:     2b5\n"));
    EXPECT_FALSE(Valid("#5.005:Nav:        \n"));
}

TEST_F(ClientRecordTest, WritersBuildTheStoredBlockAndStatusRecordsByteForByte) {
    char block[2048];
    unsigned int length = ReplayCore::WriteDataBlockHeader(
        block, sizeof block, '$', MSTime::MSTimeStruct(0, 83061), "NavGps", 7);
    EXPECT_EQ(std::string(block, length), "$83.061:NavGps:!1 7:");
    ReplayCore::RecordWriter writer(block, sizeof block, length);
    writer.Text(Ascii7({0x00, 0xFF}).c_str());
    length = writer.Length();
    length += ReplayCore::WriteItemSeparator(block + length, 20, MSTime::MSTimeStruct(0, 83105));
    ReplayCore::RecordWriter(block, sizeof block, length)
        .Text(Ascii7({0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd}).c_str());
    length = static_cast<unsigned int>(std::strlen(block));
    unsigned int checksum = 0;
    ASSERT_EQ(ReplayCore::AppendChecksum(block, length, sizeof block, checksum),
              static_cast<int>(length + 9));
    EXPECT_EQ(checksum, 0x645u);
    EXPECT_EQ(std::string(block), ReadRecord("binary_block.rec"));

    char status[205];
    length = ReplayCore::WriteStatusRecord(status, 196, MSTime::MSTimeStruct(0, 5005), "Nav",
                                           nullptr, 0);
    ReplayCore::AppendChecksum(status, length, sizeof status, checksum);
    EXPECT_EQ(std::string(status), ReadRecord("status_empty.rec"));
    const char command[] = "#replay c=1;s=2;";
    length = ReplayCore::WriteStatusRecord(status, 196, MSTime::MSTimeStruct(0, 5005), "Nav",
                                           command, sizeof command - 1);
    ReplayCore::AppendChecksum(status, length, sizeof status, checksum);
    EXPECT_EQ(std::string(status), ReadRecord("status_command.rec"));
}

TEST_F(ClientRecordTest, WritersCutToTheirBufferAndAppendChecksumChecksRoom) {
    CapturedDebug debug;
    char area[32];
    std::memset(area, '#', sizeof area);
    // A 20-byte area holds at most 19 characters of a separator.
    const unsigned int length =
        ReplayCore::WriteItemSeparator(area, 20, MSTime::MSTimeStruct(0, 123456789012345678));
    EXPECT_EQ(length, 19u);
    EXPECT_EQ(area[19], '\0');
    EXPECT_EQ(area[20], '#');

    const std::string longMessage(300, 'm');
    char status[205];
    EXPECT_EQ(ReplayCore::WriteStatusRecord(status, 196, MSTime::MSTimeStruct(0, 1000), "Nav",
                                            longMessage.data(), 300),
              195u);
    unsigned int checksum = 0;
    EXPECT_EQ(ReplayCore::AppendChecksum(status, 195, sizeof status, checksum), 204);
    EXPECT_TRUE(Valid(std::string(status, 204)));

    // Exactly nine bytes of room: the trailer fits without its terminator.
    char tight[12] = "abc";
    std::memset(tight + 3, '#', sizeof tight - 3);
    EXPECT_EQ(ReplayCore::AppendChecksum(tight, 3, 12, checksum), 12);
    EXPECT_EQ(std::string(tight, 12), "abc     126\n");
    EXPECT_EQ(ReplayCore::AppendChecksum(tight, 4, 12, checksum), -1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "libReplay::ReplayCore::AppendChecksum: Buffer not large enough"),
              1);

    ReplayCore::RecordWriter writer(area, 4);
    writer.Text("abcdef");
    EXPECT_TRUE(writer.Truncated());
    EXPECT_EQ(std::string(area), "abc");
}

TEST_F(ClientRecordTest, TimeTextMatchesTheClockText) {
    for (int64_t milliseconds : {int64_t{0}, int64_t{5}, int64_t{83061}, int64_t{-5},
                                 int64_t{-1005}, int64_t{999}, int64_t{31535999999}}) {
        char text[32];
        ReplayCore::RecordWriter writer(text, sizeof text);
        const MSTime::MSTimeStruct time(0, milliseconds);
        writer.Time(time);
        EXPECT_EQ(std::string(text, writer.Length()), time.ToString()) << milliseconds;
    }
}

TEST_F(ClientRecordTest, DataBlockTypeCharacters) {
    char c = 0;
    EXPECT_TRUE(ReplayCore::DataBlockTypeCharacter(kDataTypeNormalizedAsciiText, c));
    EXPECT_EQ(c, '!');
    EXPECT_TRUE(ReplayCore::DataBlockTypeCharacter(kDataTypeBinary, c));
    EXPECT_EQ(c, '$');
    EXPECT_TRUE(ReplayCore::DataBlockTypeCharacter(kDataTypeAsciiEncodedBinary, c));
    EXPECT_EQ(c, '$');
    EXPECT_FALSE(ReplayCore::DataBlockTypeCharacter(kDataTypeStatusText, c));
    EXPECT_EQ(c, '"');
}

TEST_F(ClientRecordTest, ClientNames) {
    EXPECT_TRUE(ClientNameValid(std::string(20, 'A')));
    EXPECT_FALSE(ClientNameValid(std::string(21, 'A')));
    EXPECT_TRUE(ClientNameValid(""));
    EXPECT_TRUE(ClientNameValid("0:;<=>?@[\\]^_`z"));
    for (const char* name : {"Nav-Gps", "Nav Gps", "Nav/", "Nav{", "Nav\xE9"}) {
        EXPECT_FALSE(ClientNameValid(name)) << name;
    }
}

TEST_F(ClientRecordTest, ParsesDataAndStatusRecords) {
    ReplayCore::ExecutionTimer& timer =
        ReplayCore::ExecutionTimerManager::Get().GetTimer("ParseClientRecord");
    const unsigned int callsBefore = timer.GetCalls();

    const std::string block = ReadRecord("binary_block.rec");
    ParsedRecord parsed = Parse(block);
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.clientName, "NavGps");
    EXPECT_EQ(parsed.time.m_timeMilliseconds, 83061);
    EXPECT_EQ(parsed.dataType, kDataTypeAsciiEncodedBinary);
    EXPECT_EQ(parsed.firstNumber, 1u);
    EXPECT_EQ(parsed.sequenceNumber, 7u);
    EXPECT_EQ(block.substr(parsed.payloadStart, parsed.payloadLength),
              Ascii7({0x00, 0xFF}) +
                  "\xDE"
                  "83.105:" +
                  Ascii7({0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd}));

    parsed = Parse(ReadRecord("status_empty.rec"));
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.dataType, kDataTypeStatusText);
    EXPECT_EQ(parsed.payloadLength, 0u);
    EXPECT_EQ(parsed.firstNumber, 99u);  // untouched without the number field
    EXPECT_EQ(parsed.sequenceNumber, 99u);

    const std::string command = ReadRecord("status_command.rec");
    parsed = Parse(command);
    EXPECT_EQ(command.substr(parsed.payloadStart, parsed.payloadLength), "#replay c=1;s=2;");

    EXPECT_TRUE(Parse(ReadRecord("name20.rec")).ok);
    EXPECT_EQ(timer.GetCalls(), callsBefore + 4);
}

TEST_F(ClientRecordTest, RejectsMalformedHeadersWithWarnings) {
    CapturedDebug debug;
    EXPECT_FALSE(Parse("no colon at all\r\n").ok);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning,
                          "ReplayServer::ReplayLogManager::ParseClientRecord: First Colon Missing "
                          "in no colon at all\\n"),
              1)
        << debug.Dump();
    EXPECT_FALSE(Parse("\"1.000:NavGps").ok);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Second Colon Missing in \"1.000:NavGps"), 1);
    EXPECT_FALSE(Parse(ReadRecord("name21.rec")).ok);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Invalid Client Name ABCDEFGHIJKLMNOPQRSTU"), 1);
    EXPECT_FALSE(Parse("\"1.000:Nav-Gps:x     123\n").ok);

    // An unknown type character is warned about and read as unspecified.
    debug.Clear();
    ParsedRecord parsed = Parse("'1.000:Nav:x     123\n");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.dataType, kDataTypeUnspecified);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Invalid Data Type 7"), 1);

    // Records too short for their trailer, or with an open number field,
    // have no payload.
    parsed = Parse("\"1.000:Nav:!1 5");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(parsed.sequenceNumber, 5u);
    EXPECT_EQ(parsed.payloadLength, 0u);
    EXPECT_EQ(Parse("#1.000:Nav:ab").payloadLength, 0u);
}

}  // namespace
