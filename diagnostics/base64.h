// Base64 text of RFC 4648, for the core dumps.
#pragma once

#include <cstddef>
#include <cstdint>

// Characters of the text of a given number of bytes, without the terminating NUL.
[[nodiscard]] constexpr size_t Base64Size(size_t length) {
    return (length + 2) / 3 * 4;
}

// Writes the text, padded and without line breaks, and a terminating NUL; output has room for
// Base64Size(length) + 1 characters. Returns 0, or -1 when input or output is null.
[[nodiscard]] int Base64Encode(const uint8_t* input, size_t length, char* output);
