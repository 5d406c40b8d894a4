// What the live table and the chart have in common: drawing now and then, the keys, the help, and
// the last page at the end. Used by watch and replay.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "tools/shdtool/engine/loop.h"
#include "tools/shdtool/views/screen.h"

namespace shdtool {

class LiveView : public EventSink {
  public:
    void OnStart(EventSource& source) override;
    // What stands above the page while it is drawn, when the events are those of the hub.
    void SetTitle(const std::string& title) { title_ = title; }
    void OnSilence() final;
    [[nodiscard]] shdclient::Result<bool> OnTick(const WatchState& state) final;
    [[nodiscard]] shdclient::Status OnEnd(const WatchState& state) final;

  protected:
    // The lines for a window of that size.
    [[nodiscard]] virtual std::vector<Line> Page(const WatchState& state, WindowSize size) = 0;
    // Begins anew; the first call comes before all events.
    virtual void Reset(int64_t now_ns) = 0;
    // How many rows or strips there are to move through.
    [[nodiscard]] virtual size_t Count() const = 0;

    [[nodiscard]] bool paused() const { return paused_; }
    [[nodiscard]] size_t first() const { return std::min(first_, Count()); }  // that is shown
    // The next tick draws.
    void DrawSoon() { drawn_ = {}; }

  private:
    [[nodiscard]] bool Obey(Key key, int64_t now_ns);
    [[nodiscard]] std::vector<Line> TitledPage(const WatchState& state);

    EventSource* source_ = nullptr;
    Screen screen_;
    WindowSize window_{};  // as of the last tick
    std::string title_;
    size_t first_ = 0;
    bool paused_ = false;
    bool help_ = false;
    std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace shdtool
