// The core dump of the simulated firmware, little-endian: the registers at the fault, the fault
// status registers (ARMv7-M, System Control Block), then memory areas. The simulator writes it and
// the dump command reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace firmware {

inline constexpr uint32_t kCoreDumpMagic = 0x504D4443;  // "CDMP"
inline constexpr uint32_t kCoreDumpVersion = 1;

struct CoreDumpHead {
    uint32_t magic;                    // @0
    uint32_t version;                  // @4
    uint32_t size;                     // @8 bytes of the whole dump
    uint32_t exception;                // @12 number as in xPSR: 3 is the hard fault
    std::array<uint32_t, 13> general;  // @16 r0 to r12
    uint32_t sp, lr, pc, xpsr;         // @68
    uint32_t cfsr, hfsr, dfsr;         // @84 what went wrong
    uint32_t mmfar, bfar;              // @96 where, when cfsr says that they are valid
};
static_assert(sizeof(CoreDumpHead) == 104 && offsetof(CoreDumpHead, cfsr) == 84);

// In front of each area's bytes; the first area is the stack from sp on.
struct CoreDumpArea {
    uint32_t address;  // @0
    uint32_t bytes;    // @4
};
static_assert(sizeof(CoreDumpArea) == 8);

}  // namespace firmware
