// Tells samples that are missing from samples that only came late. Used by the live statistics and
// by the audit.
#pragma once

#include <cstdint>

#include "tools/client/sensor_info.h"

namespace shdtool {

// A sample that is not part of a batch is stamped when it arrives, so a line or a thread that
// stands still makes one long spacing and then, as what has piled up comes, short ones. A missing
// sample is a long spacing that the following ones do not make up for.
class GapCounter {
  public:
    static constexpr double kDefaultFactor = 1.8;

    // A spacing of more than factor periods is long.
    explicit GapCounter(double factor = kDefaultFactor) : factor_(factor) {}

    // The next distance of two samples, above 0.
    void Add(int64_t spacing_ns, int64_t period_ns);

    // Nothing follows: what was not made up for until here is missing.
    void Finish();

    [[nodiscard]] uint64_t gaps() const { return gaps_; }
    [[nodiscard]] uint64_t missing() const { return missing_; }  // samples, over all gaps
    [[nodiscard]] uint64_t late() const { return late_; }        // long spacings made up for

  private:
    const double factor_;
    double deficit_ = 0;    // periods too many in the spacing under watch; 0: there is none
    int64_t patience_ = 0;  // spacings that may still make up for it
    uint64_t long_spacings_ = 0;
    uint64_t gaps_ = 0;
    uint64_t missing_ = 0;
    uint64_t late_ = 0;
};

// False for sensors whose samples follow what happens (steps, gestures, the daemon's own sensors)
// and not a period: their spacing says nothing.
[[nodiscard]] bool IsPeriodic(const shdclient::SensorInfo& sensor);

}  // namespace shdtool
