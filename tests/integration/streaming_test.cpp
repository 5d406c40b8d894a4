// The stream of events from the MCU to the clients, at the line's real speed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "tests/integration/hub.h"

using namespace shd;

namespace {

struct Stream {
    int32_t handle;
    const char* sensor;  // mcusim's name
    int32_t period_ms;
    int32_t batch;
    bool measured;  // its stamps follow the arrival times of its batches
};

// Together nine tenths of what 115,200 bit/s carry.
constexpr Stream kStreams[] = {
    {0, "accelerometer", 5, 20, true},     {5, "gyroscope", 5, 20, true},
    {6, "pressure", 20, 10, true},         {25, "raw-25", 10, 10, false},
    {9, "gravity", 10, 0, false},          {10, "linear-acceleration", 10, 0, false},
    {11, "rotation-vector", 10, 0, false}, {15, "rotation-vector", 10, 0, false},
    {19, "step-counter", 200, 0, false},   {21, "heart-rate", 1000, 0, false},
    {26, "wrist-tilt", 100, 0, false},     {27, "motion-health", 250, 4, false},
};

// After the first batch, whose interval is not measured yet.
void ExpectEvenStamps(const std::vector<SensorEvent>& events, const Stream& stream) {
    std::vector<int64_t> spacings;
    for (size_t i = static_cast<size_t>(stream.batch) + 1; i < events.size(); ++i) {
        spacings.push_back(events[i].timestamp - events[i - 1].timestamp);
    }
    ASSERT_FALSE(spacings.empty());
    std::ranges::sort(spacings);
    EXPECT_GT(spacings.front(), 0) << "stamps do not rise";
    const double period_ns = stream.period_ms * 1e6;
    const double total = std::accumulate(spacings.begin(), spacings.end(), 0.0);
    EXPECT_NEAR(static_cast<double>(spacings[spacings.size() / 2]), period_ns, period_ns * 0.05);
    EXPECT_NEAR(total / static_cast<double>(spacings.size()), period_ns, period_ns * 0.05);
}

TEST(Streaming, LosesNothingAndStampsEvenlyOnAFullLine) {
    const char* text = std::getenv("SHD_SOAK_SECONDS");
    const int seconds = text != nullptr ? std::atoi(text) : 10;
    Hub hub;
    hub.StartUp({"--baud", "115200"});
    const EventTap tap(hub);
    const EventTap other_tap(hub);
    shdclient::HubClient client = hub.Client();
    Must(client.Activate(18));
    constexpr int32_t kNoSampleYetMs = 60'000;  // until both rotation vectors are enabled
    for (const Stream& stream : kStreams) {
        const bool rotation = stream.sensor == std::string_view("rotation-vector");
        Must(client.Batch(stream.handle, rotation ? kNoSampleYetMs : stream.period_ms,
                          stream.batch));
        Must(client.Activate(stream.handle));
    }
    Must(client.SetDelay(11, 10));
    const int64_t bytes_before = hub.Stats().at("line_bytes_out");
    for (int second = 0; second < seconds; ++second) {
        hub.Simulate("steps +3");
        hub.Simulate("tilt");
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    const int64_t bytes = hub.Stats().at("line_bytes_out").get<int64_t>() - bytes_before;
    EXPECT_GT(static_cast<double>(bytes), seconds * 0.7 * 11'520) << "the line was not busy";
    for (const Stream& stream : kStreams) {
        SCOPED_TRACE(stream.sensor);
        if (stream.measured) ExpectEvenStamps(tap.Of(stream.handle), stream);
        Must(client.Flush(stream.handle));
    }
    for (const Stream& stream : kStreams) {
        const int32_t flush = EventTap::kFlushOf + stream.handle;
        Eventually("flush of " + std::string(stream.sensor), [&] { return tap.Count(flush) > 0; });
    }
    Must(client.SetDelay(11, kNoSampleYetMs));
    for (const Stream& stream : kStreams) Must(client.Deactivate(stream.handle));

    const nlohmann::json sensors = hub.Stats().at("sensors");
    for (const Stream& stream : kStreams) {
        const nlohmann::json& counters = sensors.at(stream.sensor);
        SCOPED_TRACE(stream.sensor + counters.dump());
        const int64_t sent = counters.at("sent");
        EXPECT_GT(sent, 0);
        EXPECT_EQ(counters.at("dropped"), 0);
        for (const EventTap* each : {&tap, &other_tap}) {
            Eventually("all have come", [&] { return each->Count(stream.handle) >= sent; });
            EXPECT_EQ(each->Count(stream.handle), sent);
            EXPECT_EQ(each->Count(EventTap::kFlushOf + stream.handle), 1);
            EXPECT_TRUE(each->intact());
        }
    }
    const SensorEvent last = tap.Of(19).back();
    int64_t steps = 0;
    std::memcpy(&steps, last.data, sizeof(steps));
    EXPECT_EQ(tap.Count(18), steps);  // one event of the step detector for each
}

}  // namespace
