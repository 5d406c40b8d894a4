// The live table: one row per sensor with its latest values and how it does. Used by watch and
// replay.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/shdtool/engine/sensor_stats.h"
#include "tools/shdtool/views/live_view.h"

namespace shdtool {

// Sensors by handle.
using StatsMap = std::map<int32_t, SensorStats>;

// The rows of the table with their heading, for a window of that many columns: in a narrow one the
// values stand on lines of their own. Of the sensors from the first one on, what fits into so many
// rows; the last line says how many sensors do not.
[[nodiscard]] std::vector<Line> TableLines(const StatsMap& sensors, int64_t now_ns, WindowSize size,
                                           size_t first);

// What the sensors' reports take of the UART: "line: 1.8 kB/s, 16 % of the line".
[[nodiscard]] Line LineBudgetLine(const StatsMap& sensors, int64_t now_ns);

// On a terminal the table is drawn in place; at the end its last state is printed. Elsewhere only
// that.
class TableView final : public LiveView {
  public:
    // named: handles of the sensors that have a row even before they send.
    TableView(const StatsOptions& options, std::vector<int32_t> named)
        : options_(options), named_(std::move(named)) {}

    void OnEvent(const shdclient::WatchedEvent& event) override;
    void OnChange(const Delivery& change) override;

  protected:
    [[nodiscard]] std::vector<Line> Page(const WatchState& state, WindowSize size) override;
    void Reset(int64_t now_ns) override;
    [[nodiscard]] size_t Count() const override { return sensors_.size(); }

  private:
    [[nodiscard]] std::vector<Line> StatusLines(const WatchState& state, size_t columns);
    [[nodiscard]] std::string NotBack(int64_t now_ns) const;
    void NoteSilence(int64_t now_ns);

    const StatsOptions options_;
    const std::vector<int32_t> named_;
    StatsMap sensors_;
    std::optional<int64_t> start_ns_;  // of the samples counted
    uint64_t samples_ = 0;
    std::optional<int64_t> lost_ns_;  // set while the daemon is away
    bool all_silent_ = false;         // as of the last page
    std::optional<int64_t>
        resumed_ns_;  // when somebody sent again after that, or a daemon came back
    uint64_t reconnections_ = 0;
};

}  // namespace shdtool
