// Recorded signals from files. Called by the simulator for --signal.
#include "tools/mcusim/host/signal_file.h"

#include <fmt/core.h>

#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "tools/mcusim/host/text_file.h"

namespace mcusim {
namespace {

constexpr double kMaxTimeSec = 1e9;

std::string_view Trim(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

// Nothing when a field is no number.
std::optional<std::vector<double>> ParseNumbers(std::string_view line) {
    std::vector<double> numbers;
    while (true) {
        const size_t comma = std::min(line.find(','), line.size());
        const std::string_view field = Trim(line.substr(0, comma));
        double value = 0;
        const char* end = field.data() + field.size();
        const auto parsed = std::from_chars(field.data(), end, value);
        if (parsed.ec != std::errc() || parsed.ptr != end || !std::isfinite(value)) {
            return std::nullopt;
        }
        numbers.push_back(value);
        if (comma == line.size()) return numbers;
        line.remove_prefix(comma + 1);
    }
}

}  // namespace

RecordedSignal LoadSignal(const std::string& path, const SensorTraits& sensor) {
    RecordedSignal signal;
    bool heading_allowed = true;
    int number = 0;
    for (const std::string& line : ReadLines(path)) {
        ++number;
        const auto fail = [&](const std::string& why) {
            throw std::runtime_error(fmt::format("{}:{}: {}", path, number, why));
        };
        const std::string_view text = Trim(line);
        if (text.empty() || text.starts_with('#')) continue;
        const auto numbers = ParseNumbers(text);
        if (!numbers && heading_allowed) {
            heading_allowed = false;
            continue;
        }
        heading_allowed = false;
        if (!numbers) fail("not a row of numbers");
        if (numbers->size() != sensor.value_count + size_t{1}) {
            fail(fmt::format("{} columns where {} needs time_s and {}", numbers->size(),
                             sensor.name, sensor.value_count));
        }
        if (std::abs(numbers->front()) > kMaxTimeSec) fail("time out of range");
        RecordedSignal::Row row{FromSeconds(numbers->front()), {}};
        std::copy(numbers->begin() + 1, numbers->end(), row.values.begin());
        if (!signal.rows.empty() && row.time <= signal.rows.back().time) {
            fail("time does not rise");
        }
        signal.rows.push_back(row);
    }
    if (signal.rows.empty()) throw std::runtime_error(path + ": no rows");
    return signal;
}

}  // namespace mcusim
