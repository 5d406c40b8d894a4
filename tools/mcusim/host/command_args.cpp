// The words behind a command's name. Called by the parsers of commands and scripts.
#include "tools/mcusim/host/command_args.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>

#include "tools/mcusim/host/tester_commands.h"

namespace mcusim {

void CommandArgs::SkipSpace() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t"), rest_.size()));
}

std::string_view CommandArgs::Word() {
    const size_t length = std::min(rest_.find_first_of(" \t"), rest_.size());
    const std::string_view word = rest_.substr(0, length);
    rest_.remove_prefix(length);
    SkipSpace();
    return word;
}

std::string_view CommandArgs::Rest() {
    const std::string_view rest = rest_;
    rest_ = {};
    return rest;
}

bool CommandArgs::TakeIf(std::string_view word) {
    CommandArgs copy = *this;
    if (copy.Word() != word) return false;
    *this = copy;
    return true;
}

int64_t CommandArgs::Integer(std::string_view name, int64_t low, int64_t high) {
    const std::string_view word = Word();
    std::string_view digits = word;
    int base = 10;
    if (digits.starts_with("0x")) {
        digits.remove_prefix(2);
        base = 16;
    } else if (digits.starts_with('+')) {
        digits.remove_prefix(1);
    }
    int64_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto parsed = std::from_chars(digits.data(), end, value, base);
    if (parsed.ec != std::errc() || parsed.ptr != end || value < low || value > high) {
        throw CommandError(
            fmt::format("{} must be a number from {} to {}, not \"{}\"", name, low, high, word));
    }
    return value;
}

double CommandArgs::Number(std::string_view name, double low, double high) {
    const std::string_view word = Word();
    double value = 0;
    const char* end = word.data() + word.size();
    const auto parsed = std::from_chars(word.data(), end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end || !(value >= low && value <= high)) {
        throw CommandError(
            fmt::format("{} must be a number from {} to {}, not \"{}\"", name, low, high, word));
    }
    return value;
}

void CommandArgs::ExpectEnd() const {
    if (!AtEnd()) throw CommandError(fmt::format("unexpected \"{}\"", rest_));
}

}  // namespace mcusim
