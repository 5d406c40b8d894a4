// The words behind a command's name, taken one after the other. Used by the parsers of the
// commands and of scripts.
#pragma once

#include <cstdint>
#include <string_view>

namespace mcusim {

// Every member throws CommandError naming the argument when it is missing or out of range.
class CommandArgs {
  public:
    explicit CommandArgs(std::string_view text) : rest_(text) { SkipSpace(); }

    [[nodiscard]] bool AtEnd() const { return rest_.empty(); }
    // The next word, empty at the end.
    std::string_view Word();
    // Everything that is left.
    std::string_view Rest();
    // Takes the word when it is the next one.
    bool TakeIf(std::string_view word);

    // Decimal, or hexadecimal with 0x.
    int64_t Integer(std::string_view name, int64_t low, int64_t high);
    double Number(std::string_view name, double low, double high);

    void ExpectEnd() const;

  private:
    void SkipSpace();

    std::string_view rest_;
};

}  // namespace mcusim
