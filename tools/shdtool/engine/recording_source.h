// A recording as a source of events, at the speed at which it was recorded or another. Used by
// replay and audit.
#pragma once

#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "tools/shdtool/engine/record_file.h"
#include "tools/shdtool/engine/source.h"

namespace shdtool {

class RecordingSource final : public EventSource {
  public:
    // speed: of the recording's time; 0: without waiting. handles: empty: all sensors.
    RecordingSource(RecordReader reader, double speed, std::vector<int32_t> handles)
        : reader_(std::move(reader)), speed_(speed), handles_(std::move(handles)) {}

    [[nodiscard]] shdclient::Status Start() override;
    [[nodiscard]] shdclient::Result<bool> Take(std::chrono::milliseconds timeout,
                                               Deliveries& deliveries) override;
    [[nodiscard]] int64_t now_ns() const override { return now_ns_; }
    void Pause(bool paused) override;
    [[nodiscard]] bool live() const override { return false; }

    // After the end, what is wrong with the file: see RecordReader.
    [[nodiscard]] const auto& damage() const { return reader_.damage(); }

  private:
    [[nodiscard]] bool Wanted(const Delivery& delivery) const;
    [[nodiscard]] int64_t Playhead() const;
    void Advance();

    RecordReader reader_;
    const double speed_;
    const std::vector<int32_t> handles_;
    std::optional<Delivery> next_;
    int64_t now_ns_ = 0;
    std::chrono::steady_clock::time_point start_{};
    std::optional<std::chrono::steady_clock::time_point> paused_;
};

}  // namespace shdtool
