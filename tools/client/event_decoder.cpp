// Checks and decodes event records by the sensor table. Called by RecordAssembler and by clients.
#include "tools/client/event_decoder.h"

#include <algorithm>
#include <cstring>

using namespace shd;

namespace shdclient {
namespace {

constexpr size_t kFlushDataBytes = 8;

template <typename T>
T Load(const SensorEvent& event, size_t offset) {
    T value;
    std::memcpy(&value, event.data + offset, sizeof(value));
    return value;
}

bool AllZero(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

bool UnusedBytesAreZero(const SensorEvent& event, size_t used) {
    return event.reserved0 == 0 && event.flags == 0 && AllZero(event.reserved1) &&
           AllZero(std::span(event.data).subspan(used));
}

// The sensor whose flush has ended, or nullptr when the record is no flush-complete event.
const SensorInfo* FlushedSensor(const SensorEvent& event) {
    if (event.version != kFlushCompleteVersion || event.type != kTypeFlushComplete ||
        event.sensor != 0 || event.timestamp != 0 || Load<int32_t>(event, 0) != 1) {
        return nullptr;
    }
    return FindSensor(Load<int32_t>(event, 4));
}

const SensorInfo* SampledSensor(const SensorEvent& event) {
    if (event.version != kSampleEventVersion) return nullptr;
    const SensorInfo* sensor = FindSensor(event.sensor);
    return sensor != nullptr && sensor->type == event.type ? sensor : nullptr;
}

void DecodeValues(const SensorEvent& event, DecodedEvent& decoded) {
    const SensorInfo& sensor = *decoded.sensor;
    decoded.value_count = sensor.axes.size();
    switch (sensor.form) {
        case DataForm::kFloats:
            for (size_t i = 0; i < sensor.axes.size(); ++i) {
                decoded.all_values[i] = Load<float>(event, i * sizeof(float));
            }
            break;
        case DataForm::kStepCount:
            decoded.all_values[0] = static_cast<double>(Load<uint64_t>(event, 0));
            break;
        case DataForm::kHeartRate:
            decoded.all_values[0] = Load<float>(event, 0);
            decoded.all_values[1] = Load<uint8_t>(event, 4);
            break;
        case DataForm::kMotionHealth:
            decoded.all_values[0] = Load<uint32_t>(event, 0);
            decoded.all_values[1] = Load<uint16_t>(event, 4);
            decoded.all_values[2] = Load<uint8_t>(event, 10);
            break;
        case DataForm::kOpaque:
            break;
    }
    if (sensor.form == DataForm::kOpaque || sensor.form == DataForm::kMotionHealth) {
        decoded.byte_count = sensor.data_bytes;
        std::memcpy(decoded.all_bytes.data(), event.data, sensor.data_bytes);
    }
}

}  // namespace

bool IsHubRecord(const SensorEvent& event) {
    if (FlushedSensor(event) != nullptr) return UnusedBytesAreZero(event, kFlushDataBytes);
    const SensorInfo* sensor = SampledSensor(event);
    return sensor != nullptr && UnusedBytesAreZero(event, sensor->data_bytes);
}

std::optional<DecodedEvent> DecodeEvent(const SensorEvent& event) {
    if (!IsHubRecord(event)) return std::nullopt;
    DecodedEvent decoded;
    decoded.timestamp_ns = event.timestamp;
    decoded.sensor = FlushedSensor(event);
    decoded.flush_complete = decoded.sensor != nullptr;
    if (decoded.flush_complete) return decoded;
    decoded.sensor = SampledSensor(event);
    DecodeValues(event, decoded);
    return decoded;
}

}  // namespace shdclient
