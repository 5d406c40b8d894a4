// What the fuzz targets share: the entry point, called by libFuzzer or, over the seed corpus, by
// corpus_main.cpp, and the reading of its input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

namespace shdtest {

// Ends the target, which is what a finding looks like.
inline void Require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
}

// Takes an input apart from its front; 0 and nothing when it is used up.
class Input {
  public:
    Input(const uint8_t* bytes, size_t size) : rest_(bytes, size) {}

    [[nodiscard]] bool empty() const { return rest_.empty(); }

    std::span<const uint8_t> Take(size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    // Little-endian, as everything that the seeds are made of.
    template <typename T = uint8_t>
    T Number() {
        T number{};
        const auto taken = Take(sizeof(number));
        if (!taken.empty()) std::memcpy(&number, taken.data(), taken.size());
        return number;
    }

    // As many bytes as the number before them says.
    template <typename Length = uint8_t>
    std::span<const uint8_t> Block() {
        return Take(Number<Length>());
    }

    std::span<const uint8_t> Rest() { return Take(rest_.size()); }

  private:
    std::span<const uint8_t> rest_;
};

[[nodiscard]] inline std::string Text(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace shdtest
