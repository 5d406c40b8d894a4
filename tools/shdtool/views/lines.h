// Events as a stream of text, one line each: for people, as JSON objects, or as comma-separated
// values. Used by watch and replay.
#pragma once

#include <map>
#include <string>

#include "tools/shdtool/engine/loop.h"

namespace shdtool {

// Prints to standard output, flushed after each round of events. What cannot be written ends the
// loop.
class StreamPrinter : public EventSink {
  public:
    void OnEvent(const shdclient::WatchedEvent& event) final;
    [[nodiscard]] shdclient::Result<bool> OnTick(const WatchState& state) final;
    [[nodiscard]] shdclient::Status OnEnd(const WatchState& state) final;

  protected:
    // Appends the lines of one event, each with its line end.
    virtual void Format(const shdclient::WatchedEvent& event, std::string& out) = 0;
    void Print(std::string_view text) { pending_ += text; }

  private:
    std::string pending_;
};

// Sensor, values with unit, time stamp since boot, spacing to the sensor's previous event. A narrow
// terminal gets no time stamp.
class LinePrinter final : public StreamPrinter {
  protected:
    void Format(const shdclient::WatchedEvent& event, std::string& out) override;

  private:
    std::map<int32_t, int64_t> last_ns_;  // by handle
};

// {"event": "sample", "sensor": ..., "handle": ..., "timestamp_ns": ..., "arrival_ns": ...,
// "values": {AXIS: NUMBER, ...}, "bytes": "HEX"}, values and bytes only where the sensor has them;
// {"event": "flush-complete", "sensor", "handle", "arrival_ns"}; {"event": "disconnected"}
// and {"event": "reconnected"} with "arrival_ns"; {"event": "missed"} with "from_ns", too.
class JsonPrinter final : public StreamPrinter {
  public:
    void OnChange(const Delivery& change) override;
    void OnSilence() override;

  protected:
    void Format(const shdclient::WatchedEvent& event, std::string& out) override;
};

// A heading and then a row for each event; columns that an event does not fill are empty.
class CsvPrinter final : public StreamPrinter {
  public:
    CsvPrinter();

  protected:
    void Format(const shdclient::WatchedEvent& event, std::string& out) override;
};

}  // namespace shdtool
