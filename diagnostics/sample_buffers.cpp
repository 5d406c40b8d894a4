// Gathering of raw-data samples and their lines; called by the raw-data logging.
#include "diagnostics/sample_buffers.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "diagnostics/log_file.h"
#include "mcu_link/byte_order.h"

Mutex g_raw_data_mutex;

namespace {

constexpr size_t kBlockSize = 2048;
constexpr size_t kFillLimit = 2047;

using SampleBlock = std::unique_ptr<uint8_t[]>;

// Fill counts outlive the blocks: only writing a buffer out sets its count back.
SampleBlock g_p_alg_acc_raw_data GUARDED_BY(g_raw_data_mutex);
SampleBlock g_p_hrm_ppg_raw_data GUARDED_BY(g_raw_data_mutex);
SampleBlock g_p_hrm_acc_raw_data GUARDED_BY(g_raw_data_mutex);
int32_t g_alg_acc_raw_len GUARDED_BY(g_raw_data_mutex) = 0;
int32_t g_hrm_ppg_raw_len GUARDED_BY(g_raw_data_mutex) = 0;
int32_t g_hrm_acc_raw_len GUARDED_BY(g_raw_data_mutex) = 0;

void WriteAccLine(int fd, const uint8_t* sample) {
    WriteLine(fd, "%d %d %d %d\n", kRecordAcc, ReadLe<int16_t>(sample), ReadLe<int16_t>(sample + 2),
              ReadLe<int16_t>(sample + 4));
}

void WritePpgLine(int fd, const uint8_t* sample) {
    WriteLine(fd, "%d %d %d %d %d %d\n", kRecordPpg, ReadLe<uint16_t>(sample),
              ReadLe<uint16_t>(sample + 2), ReadLe<uint16_t>(sample + 4),
              ReadLe<uint16_t>(sample + 6), ReadLe<uint16_t>(sample + 8));
}

constexpr SampleBuffer kBuffers[] = {
    {RawDataStream::kAlgorithm, kRecordAcc, "g_p_alg_acc_raw_data", &g_p_alg_acc_raw_data,
     &g_alg_acc_raw_len, 6, WriteAccLine},
    {RawDataStream::kHeartRate, kRecordPpg, "g_p_hrm_ppg_raw_data", &g_p_hrm_ppg_raw_data,
     &g_hrm_ppg_raw_len, 10, WritePpgLine},
    {RawDataStream::kHeartRate, kRecordAcc, "g_p_hrm_acc_raw_data", &g_p_hrm_acc_raw_data,
     &g_hrm_acc_raw_len, 6, WriteAccLine},
};

}  // namespace

std::span<const SampleBuffer> SampleBuffers() {
    return kBuffers;
}

const SampleBuffer* FindSampleBuffer(RawDataStream stream, uint8_t record_kind) {
    const auto* buffer =
        std::find_if(std::begin(kBuffers), std::end(kBuffers), [=](const SampleBuffer& candidate) {
            return candidate.stream == stream && candidate.record_kind == record_kind;
        });
    return buffer == std::end(kBuffers) ? nullptr : buffer;
}

bool PrepareBuffer(const SampleBuffer& buffer) {
    SampleBlock& block = *buffer.block;
    if (block == nullptr) block.reset(new (std::nothrow) uint8_t[kBlockSize]);
    if (block == nullptr) return false;
    std::memset(block.get(), 0, kBlockSize);
    return true;
}

bool AppendSamples(const SampleBuffer& buffer, std::span<const uint8_t> content,
                   size_t message_size) {
    const auto fill = static_cast<size_t>(*buffer.fill);
    if (fill + message_size > kFillLimit) return false;
    if (!content.empty()) std::memcpy(buffer.block->get() + fill, content.data(), content.size());
    *buffer.fill += static_cast<int32_t>(content.size());
    return true;
}

void WriteOutSamples(const SampleBuffer& buffer, int fd) {
    const auto fill = static_cast<size_t>(*buffer.fill);
    uint8_t* block = buffer.block->get();
    for (size_t offset = 0; offset + buffer.sample_size <= fill; offset += buffer.sample_size) {
        buffer.write_line(fd, block + offset);
    }
    std::memset(block, 0, kBlockSize);
    *buffer.fill = 0;
}
