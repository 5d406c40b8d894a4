// Cost of the frame codec on the same random bytes as a bare table FCS: byte by byte as the reader
// thread uses it, and a frame at a time. Run by scripts/bench.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "mcu_link/frame_codec.h"

namespace {

// The same in every run.
std::vector<uint8_t> RandomBytes(benchmark::State& state) {
    std::minstd_rand random(1);
    std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)));
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() & 0xFF);
    return bytes;
}

std::vector<uint8_t> FrameAround(std::span<const uint8_t> payload) {
    std::vector<uint8_t> frame(2 * payload.size() + 16);
    frame.resize(static_cast<size_t>(EncodeFrame(frame, payload)));
    return frame;
}

// The measure: what RFC 1662, appendix C.2 prints.
void TableFcs(benchmark::State& state) {
    std::array<uint16_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned value = byte;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? 0x8408U : 0U);
        table[byte] = static_cast<uint16_t>(value);
    }
    const auto bytes = RandomBytes(state);
    for ([[maybe_unused]] const auto _ : state) {
        uint16_t fcs = 0xFFFF;
        for (const uint8_t byte : bytes) {
            fcs = static_cast<uint16_t>((fcs >> 8) ^ table[(fcs ^ byte) & 0xFF]);
        }
        benchmark::DoNotOptimize(fcs);
    }
}
BENCHMARK(TableFcs)->Arg(64);

void DecodeByteByByte(benchmark::State& state) {
    const auto frame = FrameAround(RandomBytes(state));
    std::array<uint8_t, 1500> buffer{};
    FrameDecoder decoder(buffer);
    for ([[maybe_unused]] const auto _ : state) {
        DecoderStatus status = DECODER_NORMAL;
        for (const uint8_t& byte : frame) {
            int consumed = 0;
            status = decoder.PutBytes({&byte, 1}, &consumed);
        }
        if (status != DECODER_FINISH) state.SkipWithError("the frame was not decoded");
        decoder.Reset(buffer);
    }
}
BENCHMARK(DecodeByteByByte)->Arg(64);

void Encode(benchmark::State& state) {
    const auto payload = RandomBytes(state);
    std::array<uint8_t, 192> frame{};
    for ([[maybe_unused]] const auto _ : state) {
        if (EncodeFrame(frame, payload) < 0) state.SkipWithError("the frame was not encoded");
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Encode)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
