// Raw-data logging: called by the inbound routing for each message, by the raw-data configuration
// for the buffers and by the sensor commands for the heart-rate markers.
#include "diagnostics/raw_data.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>

#include "core/hub/sensor_table.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/mcu_packet.h"
#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "protocol/system.h"

using namespace shd;

Mutex g_raw_data_mutex;

namespace {

constexpr char kLogTag[] = "shd";
constexpr mode_t kDirMode = 0755;
constexpr mode_t kFileMode = 0666;
constexpr off_t kFileLimit = 12'000'000;  // bytes

constexpr int kStreamAlgorithm = 0;
constexpr int kStreamHeartRate = 1;
constexpr int kStreamIgnored = 2;
constexpr uint8_t kRecordSummary = 0xE0;
constexpr uint8_t kRecordAcc = 1;
constexpr uint8_t kRecordPpg = 5;

constexpr size_t kHeaderSize = 3;          // stream, unused, record kind
constexpr size_t kBufferSize = 2048;       // bytes
constexpr size_t kBufferLimit = 2047;      // bytes in use at most
constexpr size_t kContinuedMessage = 512;  // a message of this size announces another one
constexpr size_t kAccSampleSize = 6;       // three int16
constexpr size_t kPpgSampleSize = 10;      // five uint16

using SampleBlock = std::unique_ptr<uint8_t[]>;

// Fill counts outlive the blocks: only writing a buffer out sets its count back.
SampleBlock g_p_alg_acc_raw_data GUARDED_BY(g_raw_data_mutex);
SampleBlock g_p_hrm_ppg_raw_data GUARDED_BY(g_raw_data_mutex);
SampleBlock g_p_hrm_acc_raw_data GUARDED_BY(g_raw_data_mutex);
int32_t g_alg_acc_raw_len GUARDED_BY(g_raw_data_mutex) = 0;
int32_t g_hrm_ppg_raw_len GUARDED_BY(g_raw_data_mutex) = 0;
int32_t g_hrm_acc_raw_len GUARDED_BY(g_raw_data_mutex) = 0;

struct SampleBuffer {
    SampleBlock* block;
    int32_t* fill;  // bytes in use
};

SampleBuffer BufferOf(RawDataKind kind) REQUIRES(g_raw_data_mutex) {
    switch (kind) {
        case RawDataKind::kHrmPpg:
            return {&g_p_hrm_ppg_raw_data, &g_hrm_ppg_raw_len};
        case RawDataKind::kHrmAcc:
            return {&g_p_hrm_acc_raw_data, &g_hrm_acc_raw_len};
        case RawDataKind::kAlgAcc:
            break;
    }
    return {&g_p_alg_acc_raw_data, &g_alg_acc_raw_len};
}

struct StreamLog {
    const char* path;
    int32_t gate;  // handle whose enable lets the stream through
    const char* name;
};

constexpr StreamLog kStreamLogs[] = {
    {kAlgorithmLogPath, kHandleStepCounter, "alg"},
    {kHeartRateLogPath, kHandleHeartRate, "hrm"},
};

// Local time with one trailing space; empty when it cannot be computed.
std::string TimeText() {
    const std::time_t now = WallClockSec();
    tm local{};
    if (localtime_r(&now, &local) == nullptr) return {};
    std::array<char, 64> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%m-%d %H:%M:%S ", &local);
    return {text.data(), length};
}

void WriteLine(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One write a line, because two threads append to the same log. A full disk costs the line.
void WriteLine(int fd, const char* format, ...) {
    std::array<char, 160> line{};
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, args);
    va_end(args);
    if (length <= 0) return;
    (void)!write(fd, line.data(), std::min(static_cast<size_t>(length), line.size() - 1));
}

UniqueFd OpenLog(const char* path) {
    return UniqueFd(
        open(DevicePath(path).c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
}

void MakeDirectories() {
    struct stat status {};
    if (stat(DevicePath(kRawDataDir).c_str(), &status) == 0) return;
    if (mkdir(DevicePath(kLogDataDir).c_str(), kDirMode) != 0) {
        LOGE("mkdir MCU_DATA_DIR already exist");
    }
    if (mkdir(DevicePath(kRawDataDir).c_str(), kDirMode) != 0) {
        LOGE("mkdir MCU_RAW_DATA_DIR already exist");
    }
}

void LimitLog(const StreamLog& log) {
    struct stat status {};
    const DevicePath path(log.path);
    if (stat(path.c_str(), &status) != 0 || status.st_size <= kFileLimit) return;
    unlink(path.c_str());
    LOGW("Receive Mcu Raw Data %s log file out size", log.name);
}

void WriteSummary(int stream, int fd, std::span<const uint8_t> content, const std::string& time) {
    // The message block is zeroed behind its payload, so that missing fields read as 0.
    const auto first = ReadLe<int32_t>(content.data());
    if (stream == kStreamAlgorithm) {
        WriteLine(fd, "steps %d time:%s\n", first, time.c_str());
        return;
    }
    const auto status = ReadLe<int32_t>(content.data() + sizeof(first));
    WriteLine(fd, "bpm %d status %d time:%s\n", first, status, time.c_str());
}

void WriteSample(int fd, uint8_t kind, const uint8_t* sample) {
    if (kind == kRecordAcc) {
        WriteLine(fd, "%d %d %d %d\n", kind, ReadLe<int16_t>(sample), ReadLe<int16_t>(sample + 2),
                  ReadLe<int16_t>(sample + 4));
        return;
    }
    WriteLine(fd, "%d %d %d %d %d %d\n", kind, ReadLe<uint16_t>(sample),
              ReadLe<uint16_t>(sample + 2), ReadLe<uint16_t>(sample + 4),
              ReadLe<uint16_t>(sample + 6), ReadLe<uint16_t>(sample + 8));
}

// The buffer for a kind of records of a stream; none for a kind that the stream does not have.
std::optional<RawDataKind> KindOf(int stream, uint8_t record_kind) {
    if (stream == kStreamAlgorithm && record_kind == kRecordAcc) return RawDataKind::kAlgAcc;
    if (stream == kStreamHeartRate && record_kind == kRecordAcc) return RawDataKind::kHrmAcc;
    if (stream == kStreamHeartRate && record_kind == kRecordPpg) return RawDataKind::kHrmPpg;
    return std::nullopt;
}

void WriteOut(int fd, uint8_t record_kind, const SampleBuffer& buffer) {
    const size_t sample_size = record_kind == kRecordAcc ? kAccSampleSize : kPpgSampleSize;
    const auto fill = static_cast<size_t>(*buffer.fill);
    uint8_t* block = buffer.block->get();
    for (size_t offset = 0; offset + sample_size <= fill; offset += sample_size) {
        WriteSample(fd, record_kind, block + offset);
    }
    std::memset(block, 0, kBufferSize);
    *buffer.fill = 0;
}

}  // namespace

bool PrepareRawDataBuffer(RawDataKind kind) {
    SampleBlock& block = *BufferOf(kind).block;
    if (block == nullptr) block.reset(new (std::nothrow) uint8_t[kBufferSize]);
    if (block == nullptr) return false;
    std::memset(block.get(), 0, kBufferSize);
    return true;
}

void ReleaseRawData() {
    g_p_alg_acc_raw_data.reset();
    g_p_hrm_ppg_raw_data.reset();
    g_p_hrm_acc_raw_data.reset();
    for (const StreamLog& log : kStreamLogs) unlink(DevicePath(log.path).c_str());
}

int ReceiveMcuRawData(SensorHub* /*hub*/, const McuMessage* message) {
    const auto data = message->payload();
    if (data.size() < kHeaderSize) return 0;
    const std::string time = TimeText();
    MakeDirectories();

    const int stream = data[0] & 0x0F;
    if (stream == kStreamIgnored) return 0;
    if (stream != kStreamAlgorithm && stream != kStreamHeartRate) {
        LOGE("Receive Mcu Raw Data invalid Message type:%d", stream);
        return -1;
    }
    const StreamLog& log = kStreamLogs[stream];
    {
        const MutexLock lock(g_sensor_state_mutex);
        if (StateOf(log.gate).enable == 0) return 0;
    }

    const MutexLock lock(g_raw_data_mutex);
    LimitLog(log);
    const UniqueFd file = OpenLog(log.path);
    if (file.get() <= 0) {
        LOGE("open file /logdata/%s.txt failure", log.name);
        return 0;
    }
    if (data[2] == kRecordSummary) {
        WriteSummary(stream, file.get(), data.subspan(kHeaderSize), time);
    } else {
        (void)ParseMcuRawData(stream, file.get(), message);
    }
    return 0;
}

int ParseMcuRawData(int stream, int fd, const McuMessage* message) {
    if (message == nullptr) {
        LOGE("Receive Mcu Raw Data null ptr");
        return -1;
    }
    const auto data = message->payload();
    const uint8_t record_kind = message->data[2];
    const auto kind = KindOf(stream, record_kind);
    if (!kind) {
        LOGE("Receive Mcu Raw Data no support");
        return -1;
    }
    const SampleBuffer buffer = BufferOf(*kind);
    if (*buffer.block == nullptr) {
        LOGE("Receive Mcu Raw Data no g_p_alg_acc_raw_data buff");
        return -1;
    }
    const auto fill = static_cast<size_t>(*buffer.fill);
    if (data.size() < kHeaderSize) return -1;
    if (fill + data.size() > kBufferLimit) {
        LOGE("Receive Mcu Raw Data out of memory");
        return -1;
    }
    const auto content = data.subspan(kHeaderSize);
    if (!content.empty()) std::memcpy(buffer.block->get() + fill, content.data(), content.size());
    *buffer.fill += static_cast<int32_t>(content.size());
    if (data.size() < kContinuedMessage) WriteOut(fd, record_kind, buffer);
    return 0;
}

int McuRawDataSaveFileFlag(SensorHub* /*hub*/, int end_flag, int32_t mcu_sensor_id) {
    const std::string time = TimeText();
    const MutexLock lock(g_raw_data_mutex);
    if (g_p_hrm_ppg_raw_data == nullptr || mcu_sensor_id != kMcuHeartRate) return 0;
    const char* path = kStreamLogs[kStreamHeartRate].path;
    const UniqueFd file = OpenLog(path);
    if (!file.valid()) {
        LOGE("McuRawDataSaveFileFlag open file:%s err:%s", path, strerror(errno));
        return -1;
    }
    WriteLine(file.get(), "%s time:%s\n", end_flag == 0 ? "heartrate begin" : "heartrate end",
              time.c_str());
    return 0;
}
