// The outcome of an audit for people and for scripts. Used by the audit.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/shdtool/command.h"
#include "tools/shdtool/recording/audit_flush.h"
#include "tools/shdtool/recording/audit_sensor.h"

namespace shdtool {

struct SensorReport {
    const shdclient::SensorInfo* sensor;
    SensorVerdict verdict;
    uint64_t flush_complete = 0;         // events
    std::optional<FlushCounts> flushes;  // only where the audit flushed the sensor
};

struct AuditReport {
    std::vector<SensorReport> sensors;
    std::vector<std::string> stream_faults;  // of the connection, not of one sensor
    bool period_given = false;

    // Adds what the flushes of a sensor say to its faults.
    static void JudgeFlushes(SensorReport& sensor);

    [[nodiscard]] bool ok() const;
};

// Several lines, without the last line end.
[[nodiscard]] std::string AuditText(const AuditReport& report);

// {"faults": [...], "sensors": [...]}; times in ns.
[[nodiscard]] Json AuditFields(const AuditReport& report);

}  // namespace shdtool
