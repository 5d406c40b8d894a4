// Raw-data logging: called by the inbound routing for each message, by the raw-data configuration
// for the buffers and by the sensor commands for the heart-rate markers.
#include "diagnostics/raw_data.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "core/hub/sensor_table.h"
#include "diagnostics/log_file.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/mcu_packet.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kStreamIgnored = 2;
constexpr uint8_t kRecordSummary = 0xE0;
constexpr size_t kHeaderSize = 3;          // stream, unused, record kind
constexpr size_t kContinuedMessage = 512;  // a message of this size announces another one

void WriteStepSummary(int fd, const uint8_t* content, const std::string& time) {
    WriteLine(fd, "steps %d time:%s\n", ReadLe<int32_t>(content), time.c_str());
}

void WriteHeartRateSummary(int fd, const uint8_t* content, const std::string& time) {
    WriteLine(fd, "bpm %d status %d time:%s\n", ReadLe<int32_t>(content),
              ReadLe<int32_t>(content + sizeof(int32_t)), time.c_str());
}

// The streams that are logged, in the order of their numbers.
struct StreamLog {
    const char* path;
    int32_t gate;      // handle whose enable lets the stream through
    const char* name;  // in log messages
    void (*write_summary)(int fd, const uint8_t* content, const std::string& time);
};

constexpr StreamLog kStreamLogs[] = {
    {kAlgorithmLogPath, kHandleStepCounter, "alg", WriteStepSummary},
    {kHeartRateLogPath, kHandleHeartRate, "hrm", WriteHeartRateSummary},
};

bool IsGateOpen(const StreamLog& log) {
    const MutexLock lock(g_sensor_state_mutex);
    return StateOf(log.gate).enable != 0;
}

bool AreHeartRateSamplesLogged() REQUIRES(g_raw_data_mutex) {
    return FindSampleBuffer(RawDataStream::kHeartRate, kRecordPpg)->allocated();
}

}  // namespace

bool PrepareRawData(RawDataStream stream) {
    for (const SampleBuffer& buffer : SampleBuffers()) {
        if (buffer.stream != stream) continue;
        const MutexLock lock(g_raw_data_mutex);
        if (PrepareBuffer(buffer)) continue;
        LOGE("McuRawDataConfig %s alloc failure", buffer.name);
        return false;
    }
    return true;
}

void ReleaseRawData() {
    const MutexLock lock(g_raw_data_mutex);
    for (const SampleBuffer& buffer : SampleBuffers()) buffer.block->reset();
    for (const StreamLog& log : kStreamLogs) unlink(DevicePath(log.path).c_str());
}

int ReceiveMcuRawData(SensorHub* /*hub*/, const McuMessage* message) {
    const auto data = message->payload();
    if (data.size() < kHeaderSize) return 0;
    const std::string time = TimeText();
    MakeLogDirectories();

    const int stream = data[0] & 0x0F;
    if (stream == kStreamIgnored) return 0;
    if (static_cast<size_t>(stream) >= std::size(kStreamLogs)) {
        LOGE("Receive Mcu Raw Data invalid Message type:%d", stream);
        return -1;
    }
    const StreamLog& log = kStreamLogs[stream];
    if (!IsGateOpen(log)) return 0;

    const MutexLock lock(g_raw_data_mutex);
    if (DeleteLargeLog(log.path)) LOGW("Receive Mcu Raw Data %s log file out size", log.name);
    const UniqueFd file = OpenLog(log.path);
    if (!file.valid()) {
        LOGE("open file /logdata/%s.txt failure", log.name);
        return 0;
    }
    if (data[2] == kRecordSummary) {
        // The message block is zeroed behind its payload, so that missing fields read as 0.
        log.write_summary(file.get(), message->data + kHeaderSize, time);
        return 0;
    }
    // A message that is dropped has been reported.
    ParseMcuRawData(static_cast<RawDataStream>(stream), file.get(), message);
    return 0;
}

int ParseMcuRawData(RawDataStream stream, int fd, const McuMessage* message) {
    if (message == nullptr) {
        LOGE("Receive Mcu Raw Data null ptr");
        return -1;
    }
    const SampleBuffer* buffer = FindSampleBuffer(stream, message->data[2]);
    if (buffer == nullptr) {
        LOGE("Receive Mcu Raw Data no support");
        return -1;
    }
    if (!buffer->allocated()) {
        LOGE("Receive Mcu Raw Data no g_p_alg_acc_raw_data buff");
        return -1;
    }
    const auto data = message->payload();
    if (data.size() < kHeaderSize) return -1;
    if (!AppendSamples(*buffer, data.subspan(kHeaderSize), data.size())) {
        LOGE("Receive Mcu Raw Data out of memory");
        return -1;
    }
    if (data.size() < kContinuedMessage) WriteOutSamples(*buffer, fd);
    return 0;
}

int McuRawDataSaveFileFlag(SensorHub* /*hub*/, int end_flag, int32_t mcu_sensor_id) {
    if (mcu_sensor_id != kMcuHeartRate) return 0;
    const std::string time = TimeText();
    const MutexLock lock(g_raw_data_mutex);
    if (!AreHeartRateSamplesLogged()) return 0;
    const UniqueFd file = OpenLog(kHeartRateLogPath);
    if (!file.valid()) {
        LOGE("McuRawDataSaveFileFlag open file:%s err:%s", kHeartRateLogPath, strerror(errno));
        return -1;
    }
    WriteLine(file.get(), "%s time:%s\n", end_flag == 0 ? "heartrate begin" : "heartrate end",
              time.c_str());
    return 0;
}
