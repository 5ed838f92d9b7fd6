// Ascii7 encode and decode throughput on the largest input that fits one
// encoder (1791 bytes), beside base64 and memcpy of the same bytes. Every
// figure is in bytes of binary data per second.

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "ReplayManager/Ascii7.h"

#ifdef REPLAY_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

constexpr unsigned int kInputBytes = 1791;

const std::vector<unsigned char>& Input() {
    static const std::vector<unsigned char> input = [] {
        std::vector<unsigned char> bytes(kInputBytes);
        std::mt19937 random(1791);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random());
        }
        return bytes;
    }();
    return input;
}

const std::vector<unsigned char>& EncodedInput() {
    static const std::vector<unsigned char> text = [] {
        static Ascii7Encoder::CMessageEncode encoder;
        unsigned int length = 0;
        const char* encoded =
            Ascii7Encoder::ConvertToAscii7(encoder, Input().data(), kInputBytes, length);
        std::vector<unsigned char> copy(encoded, encoded + length + 1);
        return copy;
    }();
    return text;
}

void BM_Ascii7Encode(benchmark::State& state) {
    Ascii7Encoder::CMessageEncode encoder;
    const std::vector<unsigned char>& input = Input();
    for (auto _ : state) {
        unsigned int length = 0;
        const char* text =
            Ascii7Encoder::ConvertToAscii7(encoder, input.data(), kInputBytes, length);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Ascii7Encode);

// The bit writer alone, one byte per call: the coder without its block path.
void BM_Ascii7EncodeBitWriterBytewise(benchmark::State& state) {
    std::vector<unsigned char> output(Ascii7Encoder::CMessageEncode::kOutputCapacity);
    const std::vector<unsigned char>& input = Input();
    for (auto _ : state) {
        Ascii7Encoder::DBG_CODE7BIT_T writer;
        Ascii7Encoder::dbg_code7bit_init(&writer, output.data(),
                                         static_cast<unsigned int>(output.size()));
        for (unsigned char byte : input) {
            Ascii7Encoder::dbg_code7bit(&writer, byte, 8);
        }
        benchmark::DoNotOptimize(Ascii7Encoder::dbg_code7bit_close(&writer));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Ascii7EncodeBitWriterBytewise);

void BM_Ascii7Decode(benchmark::State& state) {
    const std::vector<unsigned char>& text = EncodedInput();
    std::vector<char> output(kInputBytes);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            Ascii7Decoder::DecodeAscii7(text.data(), kInputBytes, output.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Ascii7Decode);

void BM_Ascii7DecodeIntoMemoryBuffer(benchmark::State& state) {
    const std::vector<unsigned char>& text = EncodedInput();
    ReplayCore::MemoryBuffer output("bench", kInputBytes, 65535);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Ascii7Decoder::DecodeAscii7(text.data(), kInputBytes, output));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Ascii7DecodeIntoMemoryBuffer);

// The bit reader alone, eight bits per call.
void BM_Ascii7DecodeBitReaderBytewise(benchmark::State& state) {
    const std::vector<unsigned char>& text = EncodedInput();
    std::vector<char> output(kInputBytes);
    for (auto _ : state) {
        Ascii7Decoder::DBG_DECODE7BIT_T reader;
        Ascii7Decoder::dbg_decode7bit_init(&reader, text.data());
        unsigned long byte = 0;
        for (unsigned int i = 0; i < kInputBytes; ++i) {
            Ascii7Decoder::dbg_decode7bit_get(&reader, &byte, 8);
            output[i] = static_cast<char>(byte);
        }
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Ascii7DecodeBitReaderBytewise);

void BM_Memcpy(benchmark::State& state) {
    const std::vector<unsigned char>& input = Input();
    std::vector<unsigned char> output(kInputBytes);
    for (auto _ : state) {
        std::memcpy(output.data(), input.data(), kInputBytes);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Memcpy);

#ifdef REPLAY_HAVE_OPENSSL
void BM_Base64Encode(benchmark::State& state) {
    const std::vector<unsigned char>& input = Input();
    std::vector<unsigned char> output(4 * ((kInputBytes + 2) / 3) + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_EncodeBlock(output.data(), input.data(), kInputBytes));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Base64Encode);

void BM_Base64Decode(benchmark::State& state) {
    std::vector<unsigned char> text(4 * ((kInputBytes + 2) / 3) + 1);
    const int textLength = EVP_EncodeBlock(text.data(), Input().data(), kInputBytes);
    std::vector<unsigned char> output(text.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_DecodeBlock(output.data(), text.data(), textLength));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kInputBytes);
}
BENCHMARK(BM_Base64Decode);
#endif

}  // namespace

BENCHMARK_MAIN();
