// Building a core dump and cutting it into pieces. Called when the simulated firmware crashes.
#include "tools/mcusim/application/dump_builder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <random>

#include "tools/firmware/dump_layout.h"
#include "tools/firmware/part.h"
#include "tools/mcusim/line/packet.h"

namespace mcusim {
namespace {

constexpr uint32_t kStackBytes = 2048;
constexpr uint32_t kCodeBytes = 48 * 1024;
constexpr uint32_t kThumbBit = 1;
constexpr uint32_t kExceptionReturn = 0xFFFFFFF9;  // to thread mode, main stack
constexpr uint32_t kHardFault = 3;                 // exception number in xPSR
constexpr uint32_t kPreciseDataBusError = 0x8200;  // CFSR: PRECISERR and BFARVALID
constexpr uint32_t kForcedHardFault = 0x40000000;  // HFSR: FORCED
constexpr uint32_t kWildPointer = 0x60000000;      // external memory that is not there

class DumpWriter {
  public:
    explicit DumpWriter(uint64_t seed) : random_(seed) {}

    void Word(uint32_t value) { Append32(bytes_, value); }
    void Head(const firmware::CoreDumpHead& head) {
        const auto words = std::bit_cast<std::array<uint32_t, sizeof(head) / 4>>(head);
        for (const uint32_t word : words) Word(word);
    }
    uint32_t Random(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    uint32_t CodeAddress() { return firmware::kFlashBase + 0x400 + Random(kCodeBytes / 2) * 2; }
    uint32_t RamAddress() { return firmware::kRamBase + Random(firmware::kRamSizeBytes / 4) * 4; }

    // What words of a stack or of static data look like: mostly small numbers and zeros, pointers
    // into the RAM, and return addresses.
    uint32_t MemoryWord() {
        switch (Random(8)) {
            case 0:
                return CodeAddress() | kThumbBit;
            case 1:
            case 2:
                return RamAddress();
            case 3:
                return Random(0xFFFFFFFF);
            case 4:
            case 5:
                return Random(1000);
            default:
                return 0;
        }
    }

    Bytes Take() { return std::move(bytes_); }
    [[nodiscard]] size_t size() const { return bytes_.size(); }

  private:
    std::mt19937_64 random_;
    Bytes bytes_;
};

}  // namespace

std::vector<uint8_t> BuildCoreDump(uint64_t seed, size_t size) {
    DumpWriter dump(seed);
    const uint32_t stack_pointer =
        firmware::kRamBase + firmware::kRamSizeBytes - kStackBytes + dump.Random(64) * 8;

    firmware::CoreDumpHead head{};
    head.magic = firmware::kCoreDumpMagic;
    head.version = firmware::kCoreDumpVersion;
    head.size = static_cast<uint32_t>(size);
    head.exception = kHardFault;
    for (uint32_t& general : head.general) general = dump.MemoryWord();
    head.sp = stack_pointer;
    head.lr = kExceptionReturn;
    head.pc = dump.CodeAddress();
    head.xpsr = 0x01000000 | kHardFault;  // Thumb state, exception number
    head.cfsr = kPreciseDataBusError;
    head.hfsr = kForcedHardFault;
    head.mmfar = kWildPointer;
    head.bfar = kWildPointer + dump.Random(0x1000) * 4;
    dump.Head(head);

    dump.Word(stack_pointer);
    dump.Word(kStackBytes);
    for (uint32_t i = 0; i < kStackBytes / 4; ++i) dump.Word(dump.MemoryWord());
    dump.Word(firmware::kRamBase);
    dump.Word(static_cast<uint32_t>(size > dump.size() + 4 ? size - dump.size() - 4 : 0));
    while (dump.size() < size) dump.Word(dump.MemoryWord());

    Bytes bytes = dump.Take();
    bytes.resize(size);
    return bytes;
}

std::vector<std::span<const uint8_t>> CutDump(std::span<const uint8_t> dump, size_t pieces) {
    std::vector<std::span<const uint8_t>> cut;
    const size_t mean = dump.size() / pieces;
    for (size_t i = 0; i + 1 < pieces; ++i) {
        const size_t bytes = std::min(dump.size(), mean + i % 3 - std::min<size_t>(mean, 1));
        cut.push_back(dump.first(bytes));
        dump = dump.subspan(bytes);
    }
    cut.push_back(dump);
    return cut;
}

}  // namespace mcusim
