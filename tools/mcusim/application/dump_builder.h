// The core dump that the firmware sends when it crashes. The application's crash builds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mcusim {

inline constexpr int kMaxDumpPieces = 255;
inline constexpr int kDefaultDumpPieces = 6;
inline constexpr size_t kDumpBytes = 6144;
inline constexpr size_t kMaxDumpPieceBytes = 1200;

// A dump as a Cortex-M firmware writes it, little-endian: header, the registers at the fault, the
// fault status registers (ARMv7-M, System Control Block), then memory areas with their addresses:
// the stack below the fault and the start of the RAM. Depends on its arguments alone. At most
// size bytes; the areas are cut where they do not fit.
[[nodiscard]] std::vector<uint8_t> BuildCoreDump(uint64_t seed, size_t size);

// Cuts a dump into that many pieces of uneven sizes. At most kDumpBytes and pieces *
// kMaxDumpPieceBytes long, it gives none larger than kMaxDumpPieceBytes + 1.
[[nodiscard]] std::vector<std::span<const uint8_t>> CutDump(std::span<const uint8_t> dump,
                                                            size_t pieces);

}  // namespace mcusim
