// A fault at one byte. Called by the machine for every byte, and by a tester's command.
#include "tools/mcusim/line/line_fault.h"

#include <utility>

namespace mcusim {

void LineFault::Set(const Order& order) {
    Clear();
    order_ = order;
}

void LineFault::Clear() {
    order_.reset();
    silent_ = false;
}

LineFault::Effect LineFault::Pass(wire::Direction direction, uint8_t byte,
                                  std::vector<uint8_t>& passed) {
    if (silent_) return Effect::kNone;
    if (!order_ || order_->direction != direction || order_->byte-- > 0) {
        passed.push_back(byte);
        return Effect::kNone;
    }
    const Order order = *std::exchange(order_, std::nullopt);
    ++happened_;
    duration_ = order.duration;
    switch (order.kind) {
        case Kind::kDrop:
            break;
        case Kind::kFlip:
            passed.push_back(byte ^ order.value);
            break;
        case Kind::kDouble:
            passed.insert(passed.end(), {byte, byte});
            break;
        case Kind::kInsert:
            passed.insert(passed.end(), {order.value, byte});
            break;
        case Kind::kPause:
            return Effect::kPause;
        case Kind::kSilence:
            silent_ = true;
            break;
        case Kind::kPower:
            return Effect::kPower;
    }
    return Effect::kNone;
}

}  // namespace mcusim
