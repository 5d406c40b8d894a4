// The outcome of an audit for people and for scripts. Used by the audit.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/shdtool/audit/flush_probe.h"
#include "tools/shdtool/audit/verdict.h"
#include "tools/shdtool/base/json.h"

namespace shdtool {

struct SensorReport {
    const shdclient::SensorInfo* sensor;
    SensorVerdict verdict;
    uint64_t flush_complete = 0;         // events
    std::optional<FlushCounts> flushes;  // only where the audit flushed the sensor
};

struct AuditReport {
    std::vector<SensorReport> sensors;
    std::vector<std::string> stream_faults;  // of the connection or the line, not of one sensor
    int64_t watched_ns = 0;
    double line_bytes_per_sec = 0;  // what the samples that came took of the line
    bool period_given = false;

    // Adds what the flushes of a sensor say to its faults.
    static void JudgeFlushes(SensorReport& sensor);
    // Adds the full line to the faults, when samples are missing and it may be why.
    void JudgeLine();

    [[nodiscard]] bool ok() const;
};

// Several lines of at most 80 columns, without the last line end.
[[nodiscard]] std::string AuditText(const AuditReport& report);

// {"faults": [...], "watched_ns", "line_bytes_per_sec", "sensors": [...]}; times in ns.
[[nodiscard]] Json AuditFields(const AuditReport& report);

}  // namespace shdtool
