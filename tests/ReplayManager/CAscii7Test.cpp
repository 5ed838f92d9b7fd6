#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ReplayManager/Ascii7.h"
#include "libreplay/ReplayClientC.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes RandomBytes(std::mt19937& random, unsigned int length) {
    Bytes bytes(length);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

// The C encoder must give exactly the text of the send path's encoder, and
// the C decoder must restore the bytes, at every length around the 7-byte
// group boundaries and at the send path's largest item.
TEST(CAscii7Test, RoundTripsAndMatchesTheSendPathEncoder) {
    std::mt19937 random(7);
    for (unsigned int length : {1u, 6u, 7u, 8u, 13u, 14u, 15u, 255u, 1000u, 1791u}) {
        const Bytes data = RandomBytes(random, length);
        const unsigned int size = CAscii7EncodedSize(length);
        ASSERT_EQ(size, (8 * length + 6) / 7 + 1) << length;
        std::string text(size, 'x');
        const int written = CEncodeAscii7(data.data(), length, &text[0], size);
        ASSERT_EQ(written, static_cast<int>(size - 1)) << length;
        EXPECT_EQ(text[size - 1], '\0');

        Ascii7Encoder::CMessageEncode encoder;
        unsigned int referenceLength = 0;
        const char* reference =
            Ascii7Encoder::ConvertToAscii7(encoder, data.data(), length, referenceLength);
        ASSERT_NE(reference, nullptr);
        EXPECT_EQ(std::string(text.c_str()), std::string(reference, referenceLength)) << length;

        Bytes decoded(length + 8, 0xEE);
        EXPECT_EQ(CDecodeAscii7(text.c_str(), decoded.data(), length + 8),
                  static_cast<int>(length));
        EXPECT_EQ(Bytes(decoded.begin(), decoded.begin() + length), data) << length;
        EXPECT_EQ(decoded[length], 0xEE) << "wrote past the decoded bytes";
    }
}

// The C encoder has no 2047-character limit of its own: the caller sizes
// the output.
TEST(CAscii7Test, EncodesItemsLargerThanTheSendPathBuffer) {
    std::mt19937 random(11);
    const Bytes data = RandomBytes(random, 5000);
    std::vector<char> text(CAscii7EncodedSize(5000));
    ASSERT_GT(CEncodeAscii7(data.data(), 5000, text.data(), text.size()), 2047);
    Bytes decoded(5000);
    EXPECT_EQ(CDecodeAscii7(text.data(), decoded.data(), 5000), 5000);
    EXPECT_EQ(decoded, data);
}

TEST(CAscii7Test, RefusesAnOutputOneByteShortAndBadPointers) {
    const unsigned char data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const unsigned int size = CAscii7EncodedSize(8);
    std::vector<char> text(size, 'x');
    EXPECT_EQ(CEncodeAscii7(data, 8, text.data(), size - 1), -1);
    EXPECT_EQ(text[0], '\0') << "a refused output must not look like a text";
    EXPECT_EQ(CEncodeAscii7(nullptr, 8, text.data(), size), -1);
    EXPECT_EQ(CEncodeAscii7(data, 8, nullptr, size), -1);
    EXPECT_EQ(CDecodeAscii7(nullptr, text.data(), 4), -1);
    // Nothing to encode is an empty text, nothing to decode no bytes.
    EXPECT_EQ(CEncodeAscii7(nullptr, 0, text.data(), 1), 0);
    EXPECT_EQ(text[0], '\0');
    EXPECT_EQ(CDecodeAscii7("", text.data(), 4), 0);
}

TEST(CAscii7Test, DecodingStopsAtTheCapacityAndAtANonAscii7Character) {
    const unsigned char data[14] = {'a', 'b', 'c', 'd', 'e', 'f', 'g',
                                    'h', 'i', 'j', 'k', 'l', 'm', 'n'};
    std::vector<char> text(CAscii7EncodedSize(14));
    ASSERT_EQ(CEncodeAscii7(data, 14, text.data(), text.size()), 16);
    unsigned char out[16] = {};
    EXPECT_EQ(CDecodeAscii7(text.data(), out, 5), 5);
    EXPECT_EQ(out[5], 0) << "wrote past the capacity";
    // A space (below '%') ends the text after the first 7-byte group.
    std::string cut(text.data());
    cut[8] = ' ';
    EXPECT_EQ(CDecodeAscii7(cut.c_str(), out, sizeof out), 7);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 7), "abcdefg");
}

}  // namespace
