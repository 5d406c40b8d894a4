// Cost of the frame codec, byte by byte as the reader thread uses it and a frame at a time. Run by
// hand: frame_codec_bench of the preset in question.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "mcu_link/frame_codec.h"

namespace {

// The same in every run: a frame around random bytes.
std::vector<uint8_t> RandomFrame(size_t payload_size) {
    std::minstd_rand random(1);
    std::vector<uint8_t> payload(payload_size);
    for (uint8_t& byte : payload) byte = static_cast<uint8_t>(random() & 0xFF);
    std::vector<uint8_t> frame(2 * payload_size + 16);
    const int size = EncodeFrame(frame, payload);
    frame.resize(static_cast<size_t>(size));
    return frame;
}

void ReportBytes(benchmark::State& state, size_t frame_size) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frame_size));
}

void DecodeByteByByte(benchmark::State& state) {
    const auto frame = RandomFrame(static_cast<size_t>(state.range(0)));
    std::array<uint8_t, 1500> buffer{};
    FrameDecoder decoder(buffer);
    for (auto _ : state) {
        DecoderStatus status = DECODER_NORMAL;
        for (const uint8_t& byte : frame) {
            int consumed = 0;
            status = decoder.PutBytes({&byte, 1}, &consumed);
        }
        if (status != DECODER_FINISH) state.SkipWithError("the frame was not decoded");
        decoder.Reset(buffer);
    }
    ReportBytes(state, frame.size());
}
BENCHMARK(DecodeByteByByte)->Arg(64)->Arg(1024);

void EncodeFrameOfARequest(benchmark::State& state) {
    const std::array<uint8_t, 16> payload = {0x01, 0x00, 0x10, 0x03, 0x14};
    std::array<uint8_t, 64> frame{};
    int size = 0;
    for (auto _ : state) {
        size = EncodeFrame(frame, payload);
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
    ReportBytes(state, static_cast<size_t>(size));
}
BENCHMARK(EncodeFrameOfARequest);

}  // namespace

BENCHMARK_MAIN();
