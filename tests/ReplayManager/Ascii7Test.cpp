#include "ReplayManager/Ascii7.h"
#include "libreplay/ReplayClientC.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/ReplayManager/RecordText.h"
#include "tests/support/TestSupport.h"

namespace {

using Ascii7Decoder::DecodeAscii7;
using Ascii7Encoder::CMessage;
using Ascii7Encoder::CMessageEncode;
using Ascii7Encoder::ConvertToAscii7;
using ReplayTest::CapturedDebug;

typedef std::vector<unsigned char> Bytes;

Bytes ReadData(const std::string& name) {
    const std::string text = ReplayTest::ReadFile(std::string(REPLAY_TEST_DATA_DIR) + "/" + name);
    return Bytes(text.begin(), text.end());
}

class Ascii7Test : public ReplayTest::TargetRootTest {};

TEST_F(Ascii7Test, KnownVectorsEncodeAndDecodeByteForByte) {
    for (const char* name : {"byte00", "byteFF", "seven", "eight", "max1791"}) {
        SCOPED_TRACE(name);
        const Bytes binary = ReadData(std::string("ascii7/") + name + ".bin");
        const Bytes text = ReadData(std::string("ascii7/") + name + ".txt");
        EXPECT_EQ(text.size(), (8 * binary.size() + 6) / 7);
        const std::string encoded = RecordText::Ascii7(std::string(binary.begin(), binary.end()));
        EXPECT_EQ(Bytes(encoded.begin(), encoded.end()), text);
        std::string cText(CAscii7EncodedSize(static_cast<unsigned int>(binary.size())), 'x');
        EXPECT_EQ(CEncodeAscii7(binary.data(), static_cast<unsigned int>(binary.size()), &cText[0],
                                static_cast<unsigned int>(cText.size())),
                  static_cast<int>(text.size()));
        EXPECT_EQ(cText, encoded + '\0');

        Bytes terminated = text;
        terminated.push_back(0);
        std::vector<char> decoded(binary.size() + 8, '\x55');
        // The padding of the last character never becomes a byte.
        EXPECT_EQ(DecodeAscii7(terminated.data(), static_cast<unsigned int>(decoded.size()),
                               decoded.data()),
                  binary.size());
        EXPECT_EQ(Bytes(decoded.begin(), decoded.begin() + binary.size()), binary);
        std::vector<char> shorter(binary.size() + 1, '\x55');
        EXPECT_EQ(DecodeAscii7(terminated.data(), static_cast<unsigned int>(binary.size() - 1),
                               shorter.data()),
                  binary.size() - 1);
        EXPECT_EQ(shorter[binary.size() - 1], '\x55');
    }
}

TEST_F(Ascii7Test, InputsBeyondTheOutputOrTheLimitAreRejected) {
    CapturedDebug debug;
    CMessageEncode encoder;
    unsigned int length = 99;

    const Bytes overflow = ReadData("ascii7/overflow1792.bin");
    encoder.init();
    EXPECT_EQ(encoder.putRawData(overflow.data(), 1792), CMessage::BUFFER_OVERFLOW_ERROR);
    EXPECT_EQ(encoder.State().index, 2047u);  // never past the terminator's place
    EXPECT_EQ(ConvertToAscii7(encoder, overflow.data(), 1792, length), nullptr);

    // 2048 bytes pass the input limit, then overflow the output.
    const Bytes refused = ReadData("ascii7/refused2049.bin");
    EXPECT_EQ(ConvertToAscii7(encoder, refused.data(), 2048, length), nullptr);
    EXPECT_EQ(ConvertToAscii7(encoder, refused.data(), 2049, length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "dataLength=1792"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "dataLength=2048"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "exceeds limit of 2048"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "2049 exceeds limit of 2048"), 1);
}

TEST_F(Ascii7Test, DecodingStopsOnlyOutsideTheAlphabet) {
    const std::string valid = "abcdefgh:%%%%%%%";
    char out[32];
    EXPECT_EQ(DecodeAscii7(reinterpret_cast<const unsigned char*>(valid.c_str()), 32, out), 14u);
    for (char stop : {'\n', ' ', '!', '"', '#', '$', '\xA5', '\xFF'}) {
        std::string text = valid;
        text[8] = stop;
        EXPECT_EQ(DecodeAscii7(reinterpret_cast<const unsigned char*>(text.c_str()), 32, out), 7u)
            << static_cast<int>(stop);
    }
}

TEST_F(Ascii7Test, RunLengthPackingAndThePercentOnlyUnpacker) {
    // 168 + k stands for k '%'; 169, c, (k - 4) + 37 for k of c; 168, c for three.
    const std::pair<std::string, std::string> cases[] = {
        {std::string(16, '%'), "\xB7%"},
        {std::string(17, '%'), "\xB7\xAA"},
        {"xAAyAAAzAAAA", "xAAy\xA8\x41z\xA9\x41%"},
        {std::string(22, 'B'), "\xA9\x42\x34\xA8\x42"},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> text(c.first.begin(), c.first.end());
        text.push_back(0);
        int length = -1;
        Ascii7Encoder::dbg_code7rle2(text.data(), &length);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(text.data())), c.second) << c.first;
        EXPECT_EQ(length, static_cast<int>(c.second.size()));
    }

    const unsigned char packed[] = {'x', 0xB7, 0xA9, 'B', '4', 0};
    unsigned char out[32];
    int length = 0;
    ASSERT_NE(Ascii7Decoder::dbg_decode7rle2(packed, out, sizeof out, &length), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out)),
              "x" + std::string(15, '%') + "\xA9\x42\x34");
    EXPECT_EQ(length, 19);
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(Ascii7Decoder::dbg_decode7rle2(packed, out, 10, &length), nullptr);
    EXPECT_EQ(out[10], '#');
}

// The C interface has no limit of 2047 characters: the caller sizes the output.
TEST(CAscii7Test, RoundTripsBeyondTheSendPathLimitAndRefusesShortOutputsAndBadPointers) {
    std::mt19937 random(7);
    Bytes data(5000);
    for (unsigned char& byte : data) {
        byte = static_cast<unsigned char>(random());
    }
    std::string encoded(CAscii7EncodedSize(5000), 'x');
    ASSERT_EQ(
        CEncodeAscii7(data.data(), 5000, &encoded[0], static_cast<unsigned int>(encoded.size())),
        static_cast<int>(encoded.size() - 1));
    Bytes decoded(5008, 0xEE);
    EXPECT_EQ(CDecodeAscii7(encoded.c_str(), decoded.data(), 5008), 5000);
    EXPECT_EQ(Bytes(decoded.begin(), decoded.begin() + 5000), data);
    EXPECT_EQ(decoded[5000], 0xEE) << "wrote past the decoded bytes";

    const unsigned int size = CAscii7EncodedSize(8);
    std::vector<char> text(size, 'x');
    EXPECT_EQ(CEncodeAscii7(data.data(), 8, text.data(), size - 1), -1);
    EXPECT_EQ(text[0], '\0') << "a refused output must not look like a text";
    EXPECT_EQ(CEncodeAscii7(nullptr, 8, text.data(), size), -1);
    EXPECT_EQ(CEncodeAscii7(data.data(), 8, nullptr, size), -1);
    EXPECT_EQ(CDecodeAscii7(nullptr, text.data(), 4), -1);
    EXPECT_EQ(CEncodeAscii7(nullptr, 0, text.data(), 1), 0);
    EXPECT_EQ(text[0], '\0');
    EXPECT_EQ(CDecodeAscii7("", text.data(), 4), 0);
}

}  // namespace
