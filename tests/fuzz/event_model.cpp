// The model of the event conversion; used by the differential target.
#include "tests/fuzz/event_model.h"

#include <bit>
#include <cstring>

namespace shdtest {

namespace {

struct Source {
    uint8_t id;
    int32_t handle, type;
    size_t size;     // bytes of a sample; 0: one sample of any length
    size_t minimum;  // bytes without which there is no event
};
constexpr Source kSources[] = {
    {16, 0, 1, 6, 0},    {17, 5, 4, 6, 0},   {22, 6, 6, 4, 0},       {23, 25, 65537, 10, 0},
    {32, 10, 10, 12, 0}, {33, 9, 9, 12, 0},  {35, 11, 11, 16, 0},    {48, 19, 19, 0, 4},
    {50, 21, 21, 0, 8},  {51, 26, 26, 0, 0}, {64, 27, 65538, 16, 0},
};

constexpr float kAcc = std::bit_cast<float>(0x3B9CD0E7U);
constexpr float kGyro = std::bit_cast<float>(0x3AA00DB1U);
constexpr uint32_t kSign = 0x80000000;
constexpr uint32_t kOne = 0x3F800000;  // 1.0

uint32_t Word(std::span<const uint8_t> sample, size_t at) {
    return uint32_t{sample[at]} | uint32_t{sample[at + 1]} << 8 | uint32_t{sample[at + 2]} << 16 |
           uint32_t{sample[at + 3]} << 24;
}

uint32_t Scaled(std::span<const uint8_t> sample, size_t axis, float factor) {
    const auto raw = static_cast<int16_t>(sample[2 * axis] | sample[2 * axis + 1] << 8U);
    return std::bit_cast<uint32_t>(static_cast<float>(raw) * factor);
}

}  // namespace

std::vector<shd::SensorEvent> EventModel::Report(uint8_t mcu_sensor, Sample data, int64_t now) {
    id_ = mcu_sensor;
    now_ = now;
    event_ = {};
    events_.clear();
    event_.version = 104;
    const Source* source = nullptr;
    for (const Source& each : kSources) {
        if (each.id == mcu_sensor) source = &each;
    }
    if (source == nullptr) {
        Account(0);
        return events_;
    }
    event_.sensor = source->handle;
    event_.type = source->type;
    if (source->size > 0) {
        Samples(data, source->size);
    } else if (data.size() < source->minimum) {
        Account(0);
    } else {
        Stamp(0);
        if (mcu_sensor == 48) {
            Step(Word(data, 0));
        } else {
            Convert(data);
            events_.push_back(event_);
        }
        Account(1);
    }
    return events_;
}

void EventModel::Samples(Sample data, size_t size) {
    const bool opaque = id_ == 23 || id_ == 64;  // neither skipped nor measured
    const auto count = static_cast<int32_t>(data.size() / size);
    int32_t sent = count;
    if (!opaque) {
        const ModelSensor& s = sensor();
        if (s.batchcnt > 0 && s.flush_pending == 0 && s.batchcnt < count) sent = s.batchcnt;
        MeasureInterval(sent);
    }
    int32_t left = count;
    for (int32_t i = count - sent; i < count; ++i) {
        Stamp(id_ == 23 ? --left : Index(sent, &left));
        Convert(data.subspan(static_cast<size_t>(i) * size, size));
        if (id_ == 35 && sensors[15].enable != 0) {
            shd::SensorEvent copy = event_;
            copy.sensor = copy.type = 15;
            std::memset(copy.data + 12, 0, 4);
            events_.push_back(copy);
        }
        if (id_ != 35 || sensors[11].enable != 0) events_.push_back(event_);
    }
    Account(sent);
}

int32_t EventModel::Index(int32_t sent, int32_t* left) {
    ModelSensor& s = sensor();
    if (sent >= s.batchcnt) return --*left;
    if (s.batch_left <= 0) s.batch_left = s.batchcnt;
    return --s.batch_left;
}

void EventModel::MeasureInterval(int32_t count) {
    ModelSensor& s = sensor();
    s.time_adjust = 0;
    if ((id_ != 16 && id_ != 17 && id_ != 22) || count < 2) return;
    if (s.last_time >= 0) {
        s.time_adjust = (now_ - s.last_time) / count - int64_t{s.period_ms} * 1'000'000;
    }
    s.last_time = now_;
}

void EventModel::Stamp(int32_t index) {
    ModelSensor& s = sensor();
    if (s.flush_pending == 1 && s.flush_count > 0) index = --s.flush_count;
    // 32 bits that wrap, then a signed division.
    const uint32_t product = static_cast<uint32_t>(s.period_ms) * static_cast<uint32_t>(index);
    if (static_cast<int32_t>(product) / 1000 >= now_) return;
    const uint64_t interval = static_cast<uint64_t>(int64_t{s.period_ms} * 1'000'000) +
                              static_cast<uint64_t>(s.time_adjust);
    event_.timestamp = static_cast<int64_t>(static_cast<uint64_t>(now_) -
                                            static_cast<uint64_t>(int64_t{index}) * interval);
}

void EventModel::Convert(Sample sample) {
    std::array<uint32_t, 4> data{};
    switch (id_) {
        case 16:
            data = {Scaled(sample, 1, kAcc), Scaled(sample, 0, kAcc) ^ kSign,
                    Scaled(sample, 2, kAcc)};
            break;
        case 17:
            data = {Scaled(sample, 0, kGyro), Scaled(sample, 1, kGyro) ^ kSign,
                    Scaled(sample, 2, kGyro) ^ kSign};
            break;
        case 22:
            data[0] = std::bit_cast<uint32_t>(static_cast<float>(Word(sample, 0)) / 2048.0F);
            break;
        case 50:
            data = {std::bit_cast<uint32_t>(static_cast<float>(Word(sample, 0))), sample[4]};
            break;
        case 51:
            break;
        default:  // as they are
            std::memcpy(data.data(), sample.data(), sample.size());
            if (id_ == 35) data[2] ^= kSign;
    }
    std::memcpy(event_.data, data.data(), sizeof(data));
}

void EventModel::SendAs(int32_t handle, int32_t type) {
    shd::SensorEvent event{};
    event.version = 104;
    event.sensor = handle;
    event.type = type;
    event.timestamp = event_.timestamp;
    std::memcpy(event.data, &kOne, sizeof(kOne));
    events_.push_back(event);
}

void EventModel::Step(uint32_t mcu_step) {
    if (rebooted) last_reset_ = last_step_;
    rebooted = false;
    const uint32_t value = mcu_step + last_reset_;
    const auto steps = static_cast<int32_t>(value - last_step_);
    for (int32_t i = 0; i < steps && sensors[18].virtual_enable != 0; ++i) SendAs(18, 19);
    if (sensors[17].virtual_enable != 0) {
        int64_t& last = sensors[17].last_time;
        if (last < 0 || event_.timestamp < last) last = 0;
        if (steps != 0 && event_.timestamp - last > 10'000'000'000) {
            SendAs(17, 17);
            last = event_.timestamp;
        }
    }
    last_step_ = value;
    std::memcpy(event_.data, &value, sizeof(value));
    events_.push_back(event_);
}

void EventModel::Account(int32_t consumed) {
    ModelSensor& s = sensor();
    if (s.flush_count > 0) s.flush_count -= consumed;
    if (s.flush_pending != 1 || s.flush_count > 0) return;
    s.flush_pending = 0;
    shd::SensorEvent done{};
    done.version = 2;
    const int32_t slots[] = {1, event_.sensor};
    std::memcpy(done.data, slots, sizeof(slots));
    events_.push_back(done);
}

}  // namespace shdtest
