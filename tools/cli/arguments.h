// What a command line says, after it was found to be right. Read by the commands.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/client/sensor_info.h"

namespace cli {

// Options and arguments by the name of their row; of "-o,--output" by "--output". The parser has
// checked every value against its row, so nothing here fails for what the user wrote; a value of
// the wrong kind is a mistake in the program and throws std::logic_error.
class Arguments {
  public:
    void Add(const std::string& name, std::string value) {
        values_[name].push_back(std::move(value));
    }
    void SetStandard(const std::string& name, std::string value) {
        standards_[name] = std::move(value);
    }

    [[nodiscard]] bool Has(const std::string& name) const { return values_.contains(name); }

    // The last value given, else the standard one, else empty.
    [[nodiscard]] std::string Text(const std::string& name) const;
    [[nodiscard]] std::vector<std::string> All(const std::string& name) const;

    [[nodiscard]] double Number(const std::string& name) const;
    [[nodiscard]] int64_t Integer(const std::string& name) const;
    // Empty when neither given nor standard.
    [[nodiscard]] std::optional<double> MaybeNumber(const std::string& name) const;

    [[nodiscard]] const shdclient::SensorInfo& Sensor(const std::string& name) const;
    [[nodiscard]] std::vector<const shdclient::SensorInfo*> Sensors(const std::string& name) const;

  private:
    std::map<std::string, std::vector<std::string>> values_;
    std::map<std::string, std::string> standards_;
};

// The whole text as a number; empty when it is none.
[[nodiscard]] std::optional<double> ParseNumber(std::string_view text);
[[nodiscard]] std::optional<int64_t> ParseInteger(std::string_view text);

// From 0 to 2^32 units, with a k, M or G for 1,024 bytes and so on behind it.
[[nodiscard]] std::optional<int64_t> ParseBytes(std::string_view text);

}  // namespace cli
