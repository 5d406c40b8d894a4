// The live table: one row per sensor with its latest values and how it does. Used by watch and
// replay.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/shdtool/watch/loop.h"
#include "tools/shdtool/watch/screen.h"
#include "tools/shdtool/watch/stats.h"

namespace shdtool {

// The rows of the table with their heading and legend, for a window of that many columns: in a
// narrow one the values stand on lines of their own.
[[nodiscard]] std::vector<std::string> TableLines(const std::map<int32_t, SensorStats>& sensors,
                                                  int64_t now_ns, size_t columns);

// On a terminal the table is drawn in place; at the end its last state is printed. Elsewhere only
// that.
class TableView final : public EventSink {
  public:
    explicit TableView(std::optional<int64_t> asked_ns) : asked_ns_(asked_ns) {}

    void OnEvent(const shdclient::WatchedEvent& event) override;
    void OnChange(shdclient::WatchChange change, int64_t at_ns) override;
    void OnSilence() override;
    [[nodiscard]] shdclient::Status OnTick(const WatchState& state) override;
    [[nodiscard]] shdclient::Status OnEnd(const WatchState& state) override;

  private:
    [[nodiscard]] std::vector<std::string> Page(const WatchState& state, size_t columns) const;

    const std::optional<int64_t> asked_ns_;
    const bool terminal_ = IsTerminal();
    Screen screen_;
    std::map<int32_t, SensorStats> sensors_;  // by handle
    std::optional<int64_t> start_ns_;
    std::optional<int64_t> lost_ns_;  // set while the daemon is away
    uint64_t reconnections_ = 0;
    std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace shdtool
