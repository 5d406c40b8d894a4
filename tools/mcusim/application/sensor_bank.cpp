// The MCU's sensors at work. Commanded and run by the application.
#include "tools/mcusim/application/sensor_bank.h"

#include <algorithm>

namespace mcusim {
namespace {

TimePoint Period(const SensorBank::Channel& channel) {
    return std::chrono::milliseconds(channel.period_ms);
}

TimePoint GridAtOrAfter(TimePoint time, TimePoint period) {
    return (time + period - TimePoint(1)) / period * period;
}

// Samples to a report. What one report of such a sensor can hold is a single sample, whatever the
// batch.
size_t BatchSize(const SensorBank::Channel& channel) {
    if (channel.traits->reporting != Reporting::kBatched) return 1;
    return static_cast<size_t>(std::max(channel.batch, 1));
}

}  // namespace

SensorBank::SensorBank(SensorSignals& signals, Transmitter& transmitter)
    : signals_(signals), transmitter_(transmitter) {
    for (const SensorTraits& traits : Sensors()) channels_.emplace_back().traits = &traits;
    Reset();
}

void SensorBank::Reset() {
    for (Channel& channel : channels_) {
        Deactivate(channel.traits->id);
        channel.period_ms = channel.traits->default_period_ms;
        channel.batch = 0;
    }
}

void SensorBank::Resume(TimePoint now) {
    for (Channel& channel : channels_) {
        if (channel.active) Schedule(channel, now);
    }
}

const SensorBank::Channel* SensorBank::Find(uint8_t sensor) const {
    const auto found = std::ranges::find_if(
        channels_, [sensor](const Channel& channel) { return channel.traits->id == sensor; });
    return found == channels_.end() ? nullptr : &*found;
}

SensorBank::Channel& SensorBank::Get(uint8_t sensor) {
    return *std::ranges::find_if(
        channels_, [sensor](const Channel& channel) { return channel.traits->id == sensor; });
}

void SensorBank::Schedule(Channel& channel, TimePoint after) {
    const uint8_t id = channel.traits->id;
    const Reporting reporting = channel.traits->reporting;
    if (reporting == Reporting::kBatched || reporting == Reporting::kSingle) {
        channel.next_sample = GridAfter(after, Period(channel));
        return;
    }
    channel.next_sample = signals_.NextChange(id, after);
    if (channel.next_sample && reporting == Reporting::kOnChange) {
        channel.next_sample = GridAtOrAfter(*channel.next_sample, Period(channel));
    }
}

void SensorBank::Activate(uint8_t sensor, TimePoint now) {
    Channel& channel = Get(sensor);
    if (channel.active) return;
    channel.active = true;
    channel.last_sample = now;
    if (channel.traits->reporting == Reporting::kOnChange) {
        Sample(channel, now);
        Report(channel, now, channel.pending_samples());
    }
    Schedule(channel, now);
}

void SensorBank::Deactivate(uint8_t sensor) {
    Channel& channel = Get(sensor);
    channel.active = false;
    channel.next_sample.reset();
    channel.discarded += channel.pending_samples();
    channel.pending.clear();
}

bool SensorBank::SetPeriod(uint8_t sensor, int32_t period_ms, TimePoint now) {
    if (period_ms < 0 || period_ms > kMaxPeriodMs) return false;
    Channel& channel = Get(sensor);
    RunTo(channel, now);
    channel.period_ms = period_ms == 0 ? channel.traits->default_period_ms : period_ms;
    if (channel.active) Schedule(channel, now);
    return true;
}

bool SensorBank::SetBatch(uint8_t sensor, int32_t period_ms, int32_t count, TimePoint now) {
    if (count < 0 || count > kMaxBatch || !SetPeriod(sensor, period_ms, now)) return false;
    Channel& channel = Get(sensor);
    channel.batch = count;
    // Samples that waited for a bigger batch go out in batches of the new size.
    while (channel.pending_samples() >= BatchSize(channel)) {
        Report(channel, now, BatchSize(channel));
    }
    return true;
}

size_t SensorBank::Pending(uint8_t sensor, TimePoint now) {
    RunTo(Get(sensor), now);
    return Get(sensor).pending_samples();
}

void SensorBank::Flush(uint8_t sensor, TimePoint now) {
    Report(Get(sensor), now, Pending(sensor, now));
}

void SensorBank::PokeSteps(TimePoint now) {
    Channel& channel = Get(kStepCounter);
    if (!channel.active) return;
    const TimePoint next = GridAfter(now, Period(channel));
    channel.next_sample = std::min(channel.next_sample.value_or(next), next);
}

bool SensorBank::EmitTilt(TimePoint now) {
    Channel& channel = Get(kWristTilt);
    if (!channel.active) return false;
    RunTo(channel, now);
    Sample(channel, now);
    Report(channel, now, channel.pending_samples());
    return true;
}

void SensorBank::Sample(Channel& channel, TimePoint at) {
    const SampleValues values =
        signals_.At(channel.traits->id, at, at - std::min(channel.last_sample, at));
    channel.last_sample = at;
    ++channel.generated;
    AppendSample(channel.pending, channel.traits->id, values);
}

// Takes the channel's samples due by now and sends each batch as it becomes complete.
void SensorBank::RunTo(Channel& channel, TimePoint now) {
    while (channel.active && channel.next_sample && *channel.next_sample <= now) {
        const TimePoint at = *channel.next_sample;
        Sample(channel, at);
        Schedule(channel, at);
        if (channel.pending_samples() >= BatchSize(channel)) {
            Report(channel, at, BatchSize(channel));
        }
    }
}

void SensorBank::Report(Channel& channel, TimePoint at, size_t samples) {
    const size_t sample_bytes = channel.traits->sample_bytes;
    const size_t most = kMaxReportBytes / sample_bytes;
    const std::span<const uint8_t> data(channel.pending);
    for (size_t begin = 0; begin < samples; begin += most) {
        const size_t count = std::min(most, samples - begin);
        const Bytes packet = BuildReport(channel.traits->id,
                                         data.subspan(begin * sample_bytes, count * sample_bytes));
        if (transmitter_.Send(at, packet, FrameKind::kReport)) {
            channel.sent += count;
            ++channel.reports;
        } else {
            channel.dropped += count;
        }
    }
    channel.pending.erase(channel.pending.begin(),
                          channel.pending.begin() + static_cast<long>(samples * sample_bytes));
}

std::optional<TimePoint> SensorBank::ReportDue(const Channel& channel) {
    if (!channel.active || !channel.next_sample) return std::nullopt;
    const auto missing = static_cast<int64_t>(BatchSize(channel) - channel.pending_samples());
    return *channel.next_sample + (missing - 1) * Period(channel);
}

void SensorBank::Advance(TimePoint now) {
    while (true) {
        Channel* first = nullptr;
        TimePoint first_due = now;
        for (Channel& channel : channels_) {
            const std::optional<TimePoint> due = ReportDue(channel);
            if (!due || *due > first_due || (first != nullptr && *due == first_due)) continue;
            first = &channel;
            first_due = *due;
        }
        if (first == nullptr) return;
        RunTo(*first, first_due);
    }
}

std::optional<TimePoint> SensorBank::NextDue() const {
    std::optional<TimePoint> next;
    for (const Channel& channel : channels_) next = Earlier(next, ReportDue(channel));
    return next;
}

}  // namespace mcusim
