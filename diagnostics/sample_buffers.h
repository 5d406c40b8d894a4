// The buffers in which the samples of the raw-data streams are gathered until their lines are
// written, one row a kind of samples; used by the raw-data logging.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/mutex.h"

// The streams of raw data, by the number that their messages carry.
enum class RawDataStream : uint8_t { kAlgorithm = 0, kHeartRate = 1 };

// Kinds of records that hold samples.
inline constexpr uint8_t kRecordAcc = 1;
inline constexpr uint8_t kRecordPpg = 5;

// Guards the buffers and their fill counts. Held for one change of a buffer, or for one message
// with its file writes; never while a property is set.
extern Mutex g_raw_data_mutex;

// One kind of samples of one stream.
struct SampleBuffer {
    RawDataStream stream;
    uint8_t record_kind;
    const char* name;                   // in log messages
    std::unique_ptr<uint8_t[]>* block;  // 2048 bytes; null while it is not allocated
    int32_t* fill;                      // bytes in use, at most 2047; outlives the block
    size_t sample_size;                 // bytes
    void (*write_line)(int fd, const uint8_t* sample);

    [[nodiscard]] bool allocated() const REQUIRES(g_raw_data_mutex) { return *block != nullptr; }
};

// The buffers in the order in which they are prepared.
[[nodiscard]] std::span<const SampleBuffer> SampleBuffers();

// The buffer for a kind of records of a stream; null for a kind that the stream does not have.
[[nodiscard]] const SampleBuffer* FindSampleBuffer(RawDataStream stream, uint8_t record_kind);

// Allocates the block when it is not there, and zeroes it; its fill count stays. False when memory
// is short.
[[nodiscard]] bool PrepareBuffer(const SampleBuffer& buffer) REQUIRES(g_raw_data_mutex);

// Appends content to an allocated buffer. False, with nothing done, when a message of message_size
// bytes, the content and its header, would not fit.
[[nodiscard]] bool AppendSamples(const SampleBuffer& buffer, std::span<const uint8_t> content,
                                 size_t message_size) REQUIRES(g_raw_data_mutex);

// Writes a line for each whole sample to fd and empties the buffer; a rest is dropped.
void WriteOutSamples(const SampleBuffer& buffer, int fd) REQUIRES(g_raw_data_mutex);
