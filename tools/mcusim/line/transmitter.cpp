// The MCU's sending side. Called by the application, its sensors and streams, and for crashes.
#include "tools/mcusim/line/transmitter.h"

#include <vector>

#include "tools/mcusim/line/packet.h"
#include "tools/wire/frame.h"

namespace mcusim {

void Transmitter::Watch(TimePoint at, std::span<const uint8_t> packet,
                        std::string_view note) const {
    if (watcher_) watcher_(at, packet, note);
}

bool Transmitter::Send(TimePoint earliest, std::span<const uint8_t> packet, FrameKind kind) {
    const size_t room = kind == FrameKind::kReply ? kReplyBacklogBytes : kReportBacklogBytes;
    if (kind != FrameKind::kCoreDump && stalled_bytes_ + line_.BacklogBytes(earliest) > room) {
        ++frames_refused_;
        Watch(earliest, packet, "discarded, send buffer full");
        return false;
    }

    ++frames_out_;
    if (faults_.DropOutgoing()) {
        Watch(earliest, packet, "lost on the line");
        return true;
    }
    std::vector<uint8_t> frame = EncodeFrame(packet);
    Watch(earliest, packet, faults_.CorruptOutgoing(frame) ? "damaged on the line" : "");
    line_.Send(earliest, frame, kBitsPerByte8N1);
    return true;
}

}  // namespace mcusim
