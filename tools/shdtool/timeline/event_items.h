// Samples, ends of flushes and losses from what a source of events delivers. Used by the timeline
// command and by the view.
#pragma once

#include <utility>

#include "tools/shdtool/engine/delivery.h"
#include "tools/shdtool/timeline/item.h"

namespace shdtool::timeline {

// One source: a live hub or a recording; one thread.
class EventItems {
  public:
    explicit EventItems(Sink sink) : sink_(std::move(sink)) {}

    // In the order of their arrival.
    void Push(const Delivery& delivery) const;

  private:
    Sink sink_;
};

}  // namespace shdtool::timeline
