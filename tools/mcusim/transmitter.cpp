// The MCU's sending side.
#include "tools/mcusim/transmitter.h"

#include <vector>

#include "tools/mcusim/frame.h"

namespace mcusim {

bool Transmitter::Send(TimePoint earliest, std::span<const uint8_t> packet, FrameKind kind) {
    const size_t room = kind == FrameKind::kReply ? kReplyBacklogBytes : kReportBacklogBytes;
    if (kind != FrameKind::kCoreDump && stalled_bytes_ + line_.BacklogBytes(earliest) > room) {
        ++frames_refused_;
        return false;
    }

    ++frames_out_;
    if (watcher_) watcher_(earliest, packet);
    if (faults_.DropOutgoing()) return true;
    std::vector<uint8_t> frame = EncodeFrame(packet);
    faults_.CorruptOutgoing(frame);
    line_.Send(earliest, frame, kBitsPerByte8N1);
    return true;
}

}  // namespace mcusim
