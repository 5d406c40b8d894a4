// Turns the texts of a command line into values. Called by the parser and by the commands.
#include "tools/cli/arguments.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace cli {
namespace {

template <typename T>
std::optional<T> Parse(std::string_view text) {
    if (text.starts_with('+')) text.remove_prefix(1);
    T number{};
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end) return std::nullopt;
    return number;
}

template <typename T>
T Must(const std::optional<T>& value, const std::string& name) {
    if (!value) throw std::logic_error("no value of " + name);
    return *value;
}

}  // namespace

std::optional<double> ParseNumber(std::string_view text) {
    const auto number = Parse<double>(text);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

std::optional<int64_t> ParseInteger(std::string_view text) {
    return Parse<int64_t>(text);
}

std::optional<int64_t> ParseBytes(std::string_view text) {
    constexpr std::string_view kUnits = "kMG";
    constexpr int kBitsPerUnit = 10;
    constexpr int64_t kMost = int64_t{1} << 32;
    const size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
    if (unit != std::string_view::npos) text.remove_suffix(1);
    const std::optional<int64_t> number = ParseInteger(text);
    if (!number || *number < 0 || *number > kMost) return std::nullopt;
    if (unit == std::string_view::npos) return number;
    return *number << (kBitsPerUnit * static_cast<int>(unit + 1));
}

std::string Arguments::Text(const std::string& name) const {
    const auto given = values_.find(name);
    if (given != values_.end()) return given->second.back();
    const auto standard = standards_.find(name);
    return standard != standards_.end() ? standard->second : "";
}

std::vector<std::string> Arguments::All(const std::string& name) const {
    const auto given = values_.find(name);
    return given != values_.end() ? given->second : std::vector<std::string>{};
}

double Arguments::Number(const std::string& name) const {
    return Must(ParseNumber(Text(name)), name);
}

int64_t Arguments::Integer(const std::string& name) const {
    const auto number = ParseInteger(Text(name));
    return number ? *number : Must(ParseBytes(Text(name)), name);
}

std::optional<double> Arguments::MaybeNumber(const std::string& name) const {
    return ParseNumber(Text(name));
}

const shdclient::SensorInfo& Arguments::Sensor(const std::string& name) const {
    const auto sensor = shdclient::LookupSensor(Text(name));
    if (!sensor) throw std::logic_error("no sensor as " + name);
    return **sensor;
}

std::vector<const shdclient::SensorInfo*> Arguments::Sensors(const std::string& name) const {
    std::vector<const shdclient::SensorInfo*> sensors;
    for (const std::string& text : All(name)) {
        const auto sensor = shdclient::LookupSensor(text);
        if (!sensor) throw std::logic_error("no sensor among " + name);
        sensors.push_back(*sensor);
    }
    return sensors;
}

}  // namespace cli
