// Faults on demand. Asked by the application and by the transmitter.
#include "tools/mcusim/line/faults.h"

namespace mcusim {

void Faults::RefuseRequests(uint8_t service, uint8_t command, uint8_t status, int count) {
    if (status == 0) {
        orders_.erase({service, command});
        return;
    }
    orders_.insert_or_assign({service, command}, Order{Verdict::kRefuse, status, count});
}

void Faults::SwallowRequests(uint8_t service, uint8_t command, int count) {
    orders_.insert_or_assign({service, command}, Order{Verdict::kSwallow, 0, count});
}

bool Faults::Happens(double probability) {
    return probability > 0 && std::uniform_real_distribution<>(0, 1)(random_) < probability;
}

bool Faults::DropIncoming() {
    if (!Happens(drop_)) return false;
    ++dropped_in_;
    return true;
}

bool Faults::DropOutgoing() {
    if (!Happens(drop_)) return false;
    ++dropped_out_;
    return true;
}

bool Faults::CorruptOutgoing(std::span<uint8_t> frame) {
    if (!Happens(corrupt_)) return false;
    ++corrupted_out_;
    const size_t bit = std::uniform_int_distribution<size_t>(0, frame.size() * 8 - 1)(random_);
    frame[bit / 8] = static_cast<uint8_t>(frame[bit / 8] ^ (1U << (bit % 8)));
    return true;
}

Faults::Verdict Faults::Judge(uint8_t service, uint8_t command, uint8_t& status) {
    const auto found = orders_.find({service, command});
    if (found == orders_.end()) return Verdict::kServe;
    const Order order = found->second;
    status = order.status;
    if (order.left == 1) {
        orders_.erase(found);
    } else if (order.left > 1) {
        --found->second.left;
    }
    return order.verdict;
}

}  // namespace mcusim
