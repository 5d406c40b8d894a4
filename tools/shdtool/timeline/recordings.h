// Files of any kind that together tell of a session: recognised by what they hold, and read onto
// one clock. Used by the timeline command and by the view.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/client/result.h"
#include "tools/shdtool/timeline/clock_anchor.h"

namespace shdtool::timeline {

enum class RecordingKind : uint8_t {
    kLine,    // mcusim --record, shdtool tap -o
    kEvents,  // shdtool record
    kLog,     // the daemon's log, also as shdtool log -o keeps it
    kTrace,   // mcusim --trace
};

// "line", "events", "log", "trace".
[[nodiscard]] std::string_view NameOf(RecordingKind kind);

struct Recording {
    std::string path;
    RecordingKind kind = RecordingKind::kLine;
    ClockAnchor anchor = {};  // all that the file says of the clocks
    Time begin = 0;           // of kEvents: the time in which events were recorded
    Time end = 0;
};

class Recordings {
  public:
    // Looks at all files. Fails with kInvalidArgument and the file's name when one cannot be read
    // or is of no known kind, and when nothing says how it stands to the boot clock: a log may do
    // with the anchors of the files beside it.
    [[nodiscard]] static shdclient::Result<Recordings> Open(const std::vector<std::string>& paths);

    [[nodiscard]] const std::vector<Recording>& files() const { return files_; }

    // Hands over all items of one of them, nearly in the order of their times. Gives what is wrong
    // with the rest of the file, empty when it was whole. Fails with kInvalidArgument when a line
    // says nothing that it could; the items before it were handed over.
    [[nodiscard]] shdclient::Result<std::string> Read(const Recording& file,
                                                      const Sink& sink) const;

    // All anchors of all files.
    [[nodiscard]] const ClockAnchor& anchor() const { return anchor_; }

  private:
    std::vector<Recording> files_;
    ClockAnchor anchor_;
};

}  // namespace shdtool::timeline
