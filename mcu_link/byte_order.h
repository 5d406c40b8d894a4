// Little-endian access to the MCU's byte strings, free of alignment and aliasing assumptions.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

static_assert(std::endian::native == std::endian::little,
              "the wire's byte order is taken for the machine's");

// Reads a T stored at bytes; the caller has checked that sizeof(T) bytes are there.
template <typename T>
[[nodiscard]] T ReadLe(const uint8_t* bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}
