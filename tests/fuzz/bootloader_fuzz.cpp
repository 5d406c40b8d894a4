// An update against whatever the bootloader may answer. The input: a byte of blocks in the image,
// then the answers, each up to eight bytes behind its length; a length above that is silence. Where
// the input ends everything is acknowledged.
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_uart.h"
#include "tests/support/test_hub.h"
#include "update_mcu/mcu_update.h"

namespace {

using namespace shdtest;

constexpr int kAttempts = 20;  // of the handshake
constexpr size_t kReplySize = 8;

struct Target : CleanProcess {
    FakeUart uart;
};

// Whether the update succeeds when these answers come: one with an acknowledgement anywhere in it
// for the handshake, then one that begins with it for each of the transmissions.
bool Succeeds(const std::vector<std::vector<uint8_t>>& answers, size_t transmissions) {
    size_t next = 0;
    const auto answer = [&] {
        return next < answers.size() ? answers[next++] : std::vector{uint8_t{0x79}};
    };
    bool ready = false;
    for (int attempt = 0; attempt < kAttempts && !ready; ++attempt) {
        const auto bytes = answer();
        ready = std::find(bytes.begin(), bytes.end(), 0x79) != bytes.end();
    }
    for (size_t i = 0; i < transmissions && ready; ++i) {
        const auto bytes = answer();
        ready = !bytes.empty() && bytes[0] == 0x79;
    }
    return ready;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Target target;
    Input input(bytes, size);
    const size_t blocks = input.Number() % 16;
    WriteFirmwareImage("1.900.fuzz", std::string(blocks * 256, 'x'));
    SetProperty("persist.mcu.version", "");
    WriteFile("/dev/ttyHSL1", "");
    std::vector<std::vector<uint8_t>> answers;
    target.uart.script.clear();
    while (!input.empty()) {
        const size_t length = input.Number();
        const auto answer = input.Take(length > kReplySize ? 0 : length);
        answers.emplace_back(answer.begin(), answer.end());
        target.uart.script.push_back(length > kReplySize ? FakeUart::kSilence : Hex(answer));
    }
    const bool expected = Succeeds(answers, 2 + 3 * blocks);
    Require((mcu_update() == 0) == expected, "whether the update succeeds");
    Require(Property("persist.mcu.version") == (expected ? "1.900.fuzz" : ""), "the property");
    (void)TakeJournal();
    return 0;
}
