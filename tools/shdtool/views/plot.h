// The live chart: one strip per axis of every sensor, as wide and high as the window. Used by watch
// and replay.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/shdtool/engine/sensor_stats.h"
#include "tools/shdtool/views/live_view.h"

namespace shdtool {

// The curve of one value over the latest time.
class PlotStrip {
  public:
    struct Point {
        int64_t time_ns;
        double value;  // not a number: the curve is broken here
    };

    PlotStrip(const shdclient::SensorInfo& sensor, size_t axis) : sensor_(sensor), axis_(axis) {}

    void Add(Point point) { points_.push_back(point); }
    // Forgets what lies before that time, but for the last such point, where the curve comes from.
    void Forget(int64_t before_ns);

    // A caption with name, latest value and scale, and below it the curve from start_ns to end_ns
    // on rows - 1 lines. rows and columns are at least 2. silent_ns: how long nothing has come,
    // when that is too long.
    [[nodiscard]] std::vector<Line> Draw(int64_t start_ns, int64_t end_ns, size_t columns,
                                         size_t rows, std::optional<int64_t> silent_ns) const;

  private:
    [[nodiscard]] std::pair<double, double> Scale() const;
    [[nodiscard]] std::string Caption(double low, double high,
                                      std::optional<int64_t> silent_ns) const;

    const shdclient::SensorInfo& sensor_;
    const size_t axis_;
    std::deque<Point> points_;
};

class PlotView final : public LiveView {
  public:
    // window_sec: the time that the chart shows.
    PlotView(double window_sec, const StatsOptions& options);

    void OnEvent(const shdclient::WatchedEvent& event) override;
    void OnChange(const Delivery& change) override;

  protected:
    [[nodiscard]] std::vector<Line> Page(const WatchState& state, WindowSize size) override;
    void Reset(int64_t now_ns) override;
    [[nodiscard]] size_t Count() const override { return Strips().size(); }

  private:
    // Of one sensor: how far apart its samples usually are, and its strips, one per axis.
    struct Sensor {
        SensorStats stats;
        std::vector<PlotStrip> strips = {};
        double usual_ns = 0;
        bool was_long = false;  // the last spacing
    };
    struct Place {
        const Sensor* sensor;
        const PlotStrip* strip;
    };

    [[nodiscard]] static bool IsGap(Sensor& sensor, const shdclient::DecodedEvent& event);
    [[nodiscard]] std::string StatusLine(const WatchState& state, size_t shown) const;
    [[nodiscard]] std::vector<Place> Strips() const;

    const int64_t window_ns_;
    const StatsOptions options_;
    std::map<int32_t, Sensor> sensors_;  // by handle
    std::optional<Delivery> change_;     // the last
};

}  // namespace shdtool
