// The firmware image: what start-up decides on it, and what an update writes of it into the flash.
// The input: a block that is the version of the firmware that runs, then the image file.
#include "protocol/image_header.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_uart.h"
#include "tests/support/test_hub.h"
#include "update_mcu/mcu_update.h"

namespace {

using namespace shdtest;

struct Target : CleanProcess {
    FakeUart uart;
};

// Whether the image must replace what runs.
bool Replaces(const std::string& file, const std::string& running) {
    std::string header = file.substr(0, sizeof(shd::mcu_head));
    header.resize(sizeof(shd::mcu_head));
    const std::string version = header.substr(32, 63).c_str();
    const size_t dot = version.find('.');
    return header.starts_with("\xFF\xAA\xAA\xFF") && dot != std::string::npos &&
           version.substr(dot + 1, 3) == "900" && (running.empty() || version != running);
}

// What belongs into the flash; nothing when the file's size is not that of its header.
std::string Payload(const std::string& file) {
    std::string header = file.substr(0, sizeof(shd::mcu_head));
    header.resize(sizeof(shd::mcu_head));
    uint32_t begin = 0;
    uint32_t size = 0;
    std::memcpy(&begin, header.data() + 4, sizeof(begin));
    std::memcpy(&size, header.data() + 8, sizeof(size));
    return uint64_t{begin} + size == file.size() ? file.substr(begin) : "";
}

// What the transmissions of an update have put into the flash.
std::string Flash() {
    std::string flash;
    const Lines sent = TakeJournal({"uart"});
    for (size_t i = 0; i + 2 < sent.size(); ++i) {
        if (sent[i] != "uart 31 CE") continue;
        const std::vector<uint8_t> address = Bytes(sent[i + 1].substr(5));
        const std::vector<uint8_t> block = Bytes(sent[i + 2].substr(5));
        uint32_t at = 0;
        for (const uint8_t byte : std::span(address).first(4)) at = at << 8 | byte;
        Require(at == 0x08000000 + flash.size(), "blocks follow each other");
        Require(block.size() == size_t{block.at(0)} + 3, "the block's length");
        uint8_t sum = 0;
        for (const uint8_t byte : block) sum ^= byte;
        Require(sum == 0, "the block's check sum");
        flash.append(block.begin() + 1, block.end() - 1);
        i += 2;
    }
    return flash;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Target target;
    Input input(bytes, size);
    const auto running = input.Block();
    const std::string file = Text(input.Rest());
    WriteFile("/system/bin/mcu.bin", file);

    // A version that is no C string, or too long for one, is none; then the update runs.
    std::vector<uint8_t> reply = {1, 1, 15, 0};
    reply.insert(reply.end(), running.begin(), running.end());
    reply.push_back(0);
    const std::string version = Text(running).c_str();
    WriteFile("/dev/ttyHSL1", "");
    target.uart.script.assign(5, Hex(Frame(reply)));
    Require((mcu_version_check() == 0) == (version.size() > 63 || Replaces(file, version)),
            "the decision on the image");

    target.uart.script.clear();
    WriteFile("/dev/ttyHSL1", "");
    (void)TakeJournal();
    const std::string payload = Payload(file);
    const bool refused = mcu_update() != 0;
    Require(Flash() == payload, "the flash holds the payload");
    Require(!refused || payload.empty(), "a good image is written");
    (void)TakeJournal();
    return 0;
}
