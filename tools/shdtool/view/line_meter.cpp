// Bytes of frames in steps of half a second. Called by the feeds.
#include "tools/shdtool/view/line_meter.h"

#include <fmt/format.h>

#include "tools/shdtool/view/item_json.h"

namespace shdtool {
namespace {

constexpr timeline::Time kStep = 500'000'000;

}  // namespace

void LineMeter::Tell() {
    const timeline::Time end = begin_ + kStep;
    told_(end, fmt::format(R"({{"k":"load","t":{},"to":{},"from":{},"measured":true}})",
                           end / kNsPerUs, 2 * bytes_[1], 2 * bytes_[0]));
    bytes_ = {};
    begin_ = end;
}

void LineMeter::Tick(timeline::Time now) {
    if (begin_ == 0) return;
    for (int told = 0; now >= begin_ + kStep; ++told) {
        if (told == 2) begin_ = now / kStep * kStep - kStep;
        Tell();
    }
}

void LineMeter::Add(const timeline::Frame& frame) {
    Tick(frame.end);
    if (begin_ == 0) begin_ = frame.end / kStep * kStep;
    bytes_[frame.to_mcu ? 1 : 0] += frame.raw.size();
}

}  // namespace shdtool
