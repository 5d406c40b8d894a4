// What the distances of a sensor's samples tell: the period, how evenly it is kept, and which
// samples are missing and not only late. Used by the live statistics and by the audit.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

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

    // The next distance of two samples, of whatever sign; the period is above 0.
    void Add(int64_t spacing_ns, int64_t period_ns);

    // What follows is another sequence, or nothing: what was just being made up for was late, for
    // all that anybody can tell; a lag that lasted is missing.
    void Break();

    // A gap is a run of long spacings, for the stamps spread a lost batch over the next one.
    [[nodiscard]] uint64_t gaps() const { return gaps_; }
    [[nodiscard]] uint64_t missing() const { return missing_; }  // samples, over all gaps
    [[nodiscard]] uint64_t late() const { return late_; }        // such runs that were made up for

    // gaps() and what will be gaps if it is not made up for.
    [[nodiscard]] uint64_t presumed_gaps() const;

  private:
    [[nodiscard]] uint64_t PresumedMissing() const;
    void GiveUp();  // what was not made up for until here is missing
    void Close();

    const double factor_;
    double lag_ = 0;  // periods, since the first spacing under watch
    double worst_lag_ = 0;
    double ahead_ = 0;     // periods by which the samples before came too early
    uint64_t delays_ = 0;  // under watch; 0: there is nothing to make up for
    bool was_long_ = false;
    int64_t patience_ = 0;  // samples that may still make up for it
    uint64_t gaps_ = 0;
    uint64_t missing_ = 0;
    uint64_t late_ = 0;
};

// False for sensors whose samples follow what happens (steps, gestures, the daemon's own sensors)
// and not a period: their spacing says nothing.
[[nodiscard]] bool IsPeriodic(const shdclient::SensorInfo& sensor);

// What stands in a row of spacings where what follows is not measured against what came before.
inline constexpr int64_t kSequenceBreak = INT64_MIN;

// What a row of spacings tells.
struct Spacings {
    int64_t period_ns = 0;  // their mean over the stretches without a gap
    double mean_ns = 0;     // the same, not rounded
    double jitter_ns = 0;   // standard deviation, over the same
    int64_t shortest_ns = 0;
    int64_t longest_ns = 0;  // also of the gaps
};

// Measures a row of spacings; empty when none is above 0 in the middle. A gap is a spacing of more
// than factor periods that the following ones do not make up for. asked_ns: see GapPeriod.
[[nodiscard]] std::optional<Spacings> Measure(const std::vector<int64_t>& spacings_ns,
                                              std::optional<int64_t> asked_ns,
                                              double factor = GapCounter::kDefaultFactor);

// Of at least one value; of an even number the greater one of the two in the middle.
[[nodiscard]] int64_t Median(std::vector<int64_t> values);

// What gaps are measured against: the period that the samples have, since a sensor that runs a
// little fast or slow loses nothing; but what was asked for when that is more than 10 % off.
[[nodiscard]] int64_t GapPeriod(std::optional<int64_t> asked_ns, int64_t apparent_ns);

}  // namespace shdtool
