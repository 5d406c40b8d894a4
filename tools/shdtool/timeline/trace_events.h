// A file in the Trace Event Format: JSON that trace viewers open. Written by the timeline command.
//
// The format is public ("Trace Event Format", the JSON object form): complete events (X), counters
// (C), instants (i), flows (s and f) and metadata (M), with times in microseconds.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "tools/client/event_decoder.h"
#include "tools/shdtool/base/json.h"
#include "tools/shdtool/files/growing_file.h"
#include "tools/shdtool/timeline/item.h"

namespace shdtool::timeline {

// Writes event after event and keeps none. Slices of one track must not overlap but for those that
// lie within another; their order does not matter.
class TraceEvents {
  public:
    struct Track {
        int process = 0;
        int thread = 0;
    };
    struct Look {
        std::string_view category;
        bool bad = false;  // shown in red where a viewer knows the colours by their names
    };

    // The file must be there.
    explicit TraceEvents(GrowingFile& file);

    // The track of these names; told to the viewer when it is asked for first. Viewers show
    // processes in the order of their numbers, and threads in the order in which they come.
    [[nodiscard]] Track TrackOf(int process, std::string_view process_name,
                                const std::string& thread_name);

    void Slice(const Track& track, Time begin, Time end, std::string_view name, const Json& args,
               const Look& look);
    void Instant(const Track& track, Time at, std::string_view name, const Json& args,
                 const Look& look);
    // The values of a sample over its time stamp; of each process and name one diagram.
    void Counter(const Track& track, std::string_view name, const shdclient::DecodedEvent& sample);
    // An arrow from one slice to another; both must be slices at these times.
    void Flow(std::string_view name, const Track& from, Time begin, const Track& to, Time end);

    // The end of the file. other: what is worth knowing of the whole.
    void End(const Json& other);

    [[nodiscard]] uint64_t events() const { return events_; }

  private:
    void Metadata(const Track& track, std::string_view what, const Json& args);
    void Add(const std::string& event);

    GrowingFile& file_;
    std::string pending_;
    std::map<std::pair<int, std::string>, Track> tracks_;
    std::map<int, int> threads_;  // of each process
    uint64_t events_ = 0;
    uint64_t flows_ = 0;
};

}  // namespace shdtool::timeline
