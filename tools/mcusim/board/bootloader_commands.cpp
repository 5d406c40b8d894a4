// The twelve commands of the simulated bootloader, byte for byte as AN3155 describes them. Run by
// bootloader.cpp whenever a transmission of the host is complete.
#include <algorithm>
#include <numeric>
#include <utility>

#include "tools/firmware/part.h"
#include "tools/mcusim/board/bootloader.h"

namespace mcusim {
namespace {

using firmware::kRamBase;

constexpr uint16_t kMassErase = 0xFFFF;
constexpr uint16_t kBank1Erase = 0xFFFE;
constexpr uint16_t kFirstSpecialErase = 0xFFF0;
constexpr uint8_t kGlobalErase = 0xFF;

// What the host may reach (AN2606, STM32F411): the bootloader keeps the first 12 KiB of RAM for
// itself. The code in the system memory is not modelled, it reads as erased.
struct Region {
    uint32_t base;
    uint32_t size;  // bytes
    bool writable;
    bool executable;
};
constexpr Region kFlashRegion{kFlashBase, kFlashSizeBytes, true, true};
constexpr Region kRamRegion{kRamBase + 0x3000, 0x1D000, true, true};
constexpr Region kOptionRegion{kOptionBytesBase, kOptionBytesSize, true, false};
constexpr Region kSystemRegion{0x1FFF0000, 0x7800, false, false};
constexpr std::array<const Region*, 4> kRegions = {&kFlashRegion, &kRamRegion, &kOptionRegion,
                                                   &kSystemRegion};

const Region* RegionOf(uint32_t address) {
    const auto found = std::find_if(kRegions.begin(), kRegions.end(), [address](const Region* r) {
        return address >= r->base && address - r->base < r->size;
    });
    return found == kRegions.end() ? nullptr : *found;
}

bool Fits(const Region& region, uint32_t address, size_t length) {
    return length <= region.size - (address - region.base);
}

uint8_t Xor(std::span<const uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), uint8_t{0},
                           [](uint8_t a, uint8_t b) { return static_cast<uint8_t>(a ^ b); });
}

uint16_t BigEndian16(std::span<const uint8_t> bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

// Lengths of transmissions that begin with a count N: N + 1 items and a checksum follow.
size_t CountedBytes(std::span<const uint8_t> head) {
    return 1 + (head[0] + size_t{1}) + 1;
}

size_t ErasePages(std::span<const uint8_t> head) {
    return head[0] == kGlobalErase ? 2 : CountedBytes(head);
}

size_t ExtendedErasePages(std::span<const uint8_t> head) {
    const uint16_t count = BigEndian16(head);
    return count >= kFirstSpecialErase ? 3 : 2 + 2 * (count + size_t{1}) + 1;
}

}  // namespace

// A part has either Erase or Extended Erase; this one has both, so that a host of either kind can
// be tried on it.
const std::array<Bootloader::Command, 12> Bootloader::kCommands = {{
    {0x00, true, &Bootloader::Get},
    {0x01, true, &Bootloader::GetVersion},
    {0x02, true, &Bootloader::GetId},
    {0x11, false, &Bootloader::ReadMemory},
    {0x21, false, &Bootloader::Go},
    {0x31, false, &Bootloader::WriteMemory},
    {0x43, false, &Bootloader::Erase},
    {0x44, false, &Bootloader::ExtendedErase},
    {0x63, false, &Bootloader::WriteProtect},
    {0x73, false, &Bootloader::WriteUnprotect},
    {0x82, false, &Bootloader::ReadoutProtect},
    {0x92, true, &Bootloader::ReadoutUnprotect},
}};

void Bootloader::OnCommand() {
    const uint8_t code = block_[0];
    const auto command = std::find_if(kCommands.begin(), kCommands.end(),
                                      [code](const Command& c) { return c.code == code; });
    if ((block_[0] ^ block_[1]) != 0xFF || command == kCommands.end() ||
        (flash_.ReadProtected() && !command->when_read_protected)) {
        return Nack();
    }
    (this->*command->run)();
}

void Bootloader::Get() {
    std::vector<uint8_t> reply = {kAck, static_cast<uint8_t>(kCommands.size()), kVersion};
    for (const Command& command : kCommands) reply.push_back(command.code);
    Send(reply);
    Ack();
}

void Bootloader::GetVersion() {
    Send(std::array<uint8_t, 4>{kAck, kVersion, 0x00, 0x00});
    Ack();
}

void Bootloader::GetId() {
    Send(std::array<uint8_t, 4>{kAck, 1, kProductId >> 8, kProductId & 0xFF});
    Ack();
}

// The address of a five-byte transmission; nullopt on a wrong checksum.
std::optional<uint32_t> Bootloader::AddressInBlock() const {
    if (Xor(block_) != 0) return std::nullopt;
    const auto bytes = std::span(block_);
    return uint32_t{BigEndian16(bytes)} << 16 | BigEndian16(bytes.subspan(2));
}

void Bootloader::ReadMemory() {
    AckAndExpect(&Bootloader::OnReadAddress, 5);
}

void Bootloader::OnReadAddress() {
    const auto address = AddressInBlock();
    if (!address || RegionOf(*address) == nullptr) return Nack();
    address_ = *address;
    AckAndExpect(&Bootloader::OnReadLength, 2);
}

void Bootloader::OnReadLength() {
    const Region& region = *RegionOf(address_);
    const size_t length = block_[0] + size_t{1};
    if ((block_[0] ^ block_[1]) != 0xFF || !Fits(region, address_, length)) return Nack();
    std::vector<uint8_t> data(length, 0xFF);
    if (&region == &kFlashRegion) {
        flash_.Read(address_, data);
    } else if (&region == &kRamRegion) {
        std::copy_n(ram_.data() + (address_ - kRamBase), length, data.begin());
    } else if (&region == &kOptionRegion) {
        std::copy_n(flash_.option_bytes().begin() + (address_ - kOptionBytesBase), length,
                    data.begin());
    }
    Ack();
    Send(data);
}

void Bootloader::Go() {
    AckAndExpect(&Bootloader::OnGoAddress, 5);
}

void Bootloader::OnGoAddress() {
    const auto address = AddressInBlock();
    const Region* region = address ? RegionOf(*address) : nullptr;
    if (region == nullptr || !region->executable) return Nack();
    Ack();
    go_ = address;
    stopped_ = true;
}

void Bootloader::WriteMemory() {
    AckAndExpect(&Bootloader::OnWriteAddress, 5);
}

void Bootloader::OnWriteAddress() {
    const auto address = AddressInBlock();
    const Region* region = address ? RegionOf(*address) : nullptr;
    if (region == nullptr || !region->writable) return Nack();
    address_ = *address;
    AckAndExpect(&Bootloader::OnWriteData, 1, &CountedBytes);
}

void Bootloader::OnWriteData() {
    const Region& region = *RegionOf(address_);
    const auto data = std::span(block_).subspan(1, block_.size() - 2);
    const bool refuse = nack_in_ > 0 && --nack_in_ == 0;
    if (refuse || Xor(block_) != 0 || !Fits(region, address_, data.size())) return Nack();
    if (&region == &kFlashRegion) return ProgramBlock(data);
    if (&region == &kRamRegion) {
        std::copy(data.begin(), data.end(), ram_.data() + (address_ - kRamBase));
        return Ack();
    }
    auto options = flash_.option_bytes();
    std::copy(data.begin(), data.end(), options.begin() + (address_ - kOptionBytesBase));
    Begin({OptionStep([this, options] { flash_.SetOptionBytes(options); })}, true);
}

void Bootloader::ProgramBlock(std::span<const uint8_t> data) {
    const size_t words = (address_ % 4 + data.size() + 3) / 4;
    const auto program = [this, address = address_,
                          copy = std::vector(data.begin(), data.end())](double share) {
        const auto done = static_cast<size_t>(static_cast<double>(copy.size()) * share);
        flash_.Program(address, std::span(copy).first(done));
        if (done == copy.size()) ++blocks_written_;
    };
    Begin({{timings_.word_program * static_cast<int64_t>(words), program}});
}

void Bootloader::Erase() {
    AckAndExpect(&Bootloader::OnErasePages, 1, &ErasePages);
}

void Bootloader::OnErasePages() {
    if (block_[0] == kGlobalErase) {
        if (block_[1] != static_cast<uint8_t>(~kGlobalErase)) return Nack();
        return MassErase();
    }
    if (Xor(block_) != 0) return Nack();
    EraseSectors({block_.begin() + 1, block_.end() - 1});
}

void Bootloader::ExtendedErase() {
    AckAndExpect(&Bootloader::OnExtendedErasePages, 2, &ExtendedErasePages);
}

void Bootloader::OnExtendedErasePages() {
    if (Xor(block_) != 0) return Nack();
    const uint16_t code = BigEndian16(block_);
    if (code >= kFirstSpecialErase) {
        // The part's one bank is bank 1; the other codes are reserved or name a second bank.
        if (code != kMassErase && code != kBank1Erase) return Nack();
        return MassErase();
    }
    std::vector<size_t> sectors;
    for (size_t at = 2; at + 1 < block_.size(); at += 2) {
        sectors.push_back(BigEndian16(std::span(block_).subspan(at)));
    }
    EraseSectors(sectors);
}

void Bootloader::EraseSectors(const std::vector<size_t>& sectors) {
    std::deque<Step> steps;
    for (const size_t index : sectors) {
        if (index >= kFlashSectors.size()) return Nack();
        const uint32_t size = kFlashSectors[index].size;
        const auto duration = size == 16 * 1024   ? timings_.erase_16k
                              : size == 64 * 1024 ? timings_.erase_64k
                                                  : timings_.erase_128k;
        steps.push_back({duration, [this, index, size](double share) {
                             flash_.EraseSector(index, static_cast<uint32_t>(size * share));
                         }});
    }
    Begin(std::move(steps));
}

// Sector by sector in time, so that a power cut or the end of the simulator leaves a part of the
// old contents behind.
std::deque<Bootloader::Step> Bootloader::EraseAllSteps() {
    std::deque<Step> steps;
    for (const FlashSector& sector : kFlashSectors) {
        steps.push_back(
            {timings_.mass_erase * sector.size / kFlashSizeBytes, [this, sector](double share) {
                 const auto done = static_cast<uint32_t>(sector.size * share);
                 flash_.EraseAll(sector.address - kFlashBase + done);
             }});
    }
    return steps;
}

// The flash refuses to erase all while a sector is protected (RM0383); the bootloader acknowledges
// that as well.
void Bootloader::MassErase() {
    if (flash_.WriteProtectedSectors() != 0) return Ack();
    Begin(EraseAllSteps());
}

Bootloader::Step Bootloader::OptionStep(std::function<void()> change) {
    return {timings_.option_program, [change = std::move(change)](double share) {
                if (share >= 1.0) change();
            }};
}

void Bootloader::WriteProtect() {
    AckAndExpect(&Bootloader::OnProtectSectors, 1, &CountedBytes);
}

// Replaces the earlier protection. AN3155: the codes themselves are not checked.
void Bootloader::OnProtectSectors() {
    if (Xor(block_) != 0) return Nack();
    uint8_t sectors = 0;
    for (const uint8_t code : std::span(block_).subspan(1, block_.size() - 2)) {
        if (code < kFlashSectors.size()) sectors = static_cast<uint8_t>(sectors | 1U << code);
    }
    Begin({OptionStep([this, sectors] { flash_.SetWriteProtectedSectors(sectors); })}, true);
}

void Bootloader::WriteUnprotect() {
    Ack();
    Begin({OptionStep([this] { flash_.SetWriteProtectedSectors(0); })}, true);
}

void Bootloader::ReadoutProtect() {
    Ack();
    Begin({OptionStep([this] { flash_.SetReadProtected(true); })}, true);
}

// Erases before it opens the flash, so that a power cut in between gives nothing away.
void Bootloader::ReadoutUnprotect() {
    Ack();
    std::deque<Step> steps = EraseAllSteps();
    steps.push_back(OptionStep([this] {
        flash_.SetReadProtected(false);
        std::fill(ram_.begin(), ram_.end(), uint8_t{0});
    }));
    Begin(std::move(steps), true);
}

}  // namespace mcusim
