// The arithmetic of the line. Called by the table, by the audit and by enable.
#include "tools/shdtool/engine/line_budget.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace shdtool {
namespace {

using namespace shd;

struct SampleSize {
    int32_t handle;
    int bytes;  // of one sample in a report of the MCU
};

// The daemon derives the sensors that are not listed from others: they cost nothing of their own.
constexpr std::array<SampleSize, 12> kSampleSizes{{
    {kHandleAccelerometer, 6},
    {kHandleGyroscope, 6},
    {kHandlePressure, 4},
    {kHandleGravity, 12},
    {kHandleLinearAcceleration, 12},
    {kHandleRotationVector, 16},
    {kHandleGameRotationVector, 16},
    {kHandleStepCounter, 4},
    {kHandleHeartRate, 8},
    {kHandleRawRecord, 10},
    {kHandleWristTilt, 4},
    {kHandleMotionHealth, 16},
}};

constexpr double kReportBytes = 7;          // header, check sequence and flag
constexpr double kEscapes = 1 + 2.0 / 256;  // two of the 256 values are sent as two bytes

}  // namespace

double LineLoad(const shdclient::SensorInfo& sensor, double rate_hz, double batch) {
    const auto* found =
        std::find_if(kSampleSizes.begin(), kSampleSizes.end(),
                     [&](const SampleSize& s) { return s.handle == sensor.handle; });
    if (found == kSampleSizes.end()) return 0;
    return rate_hz * (found->bytes + kReportBytes / std::max(batch, 1.0)) * kEscapes;
}

double SumOfLoads(const std::map<int32_t, double>& loads) {
    double sum = 0;
    for (const auto& [handle, load] : loads) sum += load;
    const auto one = loads.find(kHandleRotationVector),
               other = loads.find(kHandleGameRotationVector);
    if (one != loads.end() && other != loads.end()) sum -= std::min(one->second, other->second);
    return sum;
}

std::string LineText(double bytes_per_sec) {
    return fmt::format("{:.1f} kB/s, {:.0f} % of the line", bytes_per_sec / 1000,
                       bytes_per_sec / kLineBytesPerSec * 100);
}

}  // namespace shdtool
