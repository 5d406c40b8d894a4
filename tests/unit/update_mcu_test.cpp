// The firmware update against a scripted bootloader, and the version check against a scripted MCU.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/fake_uart.h"
#include "tests/support/test_hub.h"
#include "update_mcu/bootloader_commands.h"
#include "update_mcu/bootloader_link.h"
#include "update_mcu/firmware_image.h"
#include "update_mcu/gpio.h"
#include "update_mcu/mcu_update.h"

namespace {

using namespace shd;
using namespace shdtest;

const std::string kImage = "/system/bin/mcu.bin";

struct UpdateTest : testing::Test, CleanProcess {
    UpdateTest() {
        for (const auto* pin : {"boot0", "boot1", "reset"}) {
            WriteFile(std::string("/proc/mcu/gpio_mcu_") + pin, "?");
        }
    }
    FakeUart uart;
};

ptrdiff_t OpenFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The journal without the updater's tag and line ends.
Lines Journal() {
    Lines lines = TakeJournal();
    for (std::string& line : lines) {
        if (const size_t tag = line.find("/update_mcu"); tag == 1) line.erase(1, 11);
        if (line.ends_with("\\n")) line.resize(line.size() - 2);
    }
    return lines;
}

const std::string kStart = R"(
    line taken | I mcu_update enter! | I mcu_init enter!
    I set_update_gpio, set mcu to update mode! | delay 20000 | delay 80000
    D send 7F cmd to handshake with mcu. | delay 50000 | readable 200 ms | uart 7F |)";
const std::string kErase = R"(D read 7F cmd response buf = 79. | D mcu_init_cmd ok!
    D extended_erase_cmd enter! | readable 1000 ms | uart 44 BB |)";
const std::string kErased = kErase + R"(
    readable 40000 ms | uart FF FF 00 | D write extended erase cmd ok! |)";

TEST_F(UpdateTest, WritesTheImageBlockByBlock) {
    std::string payload(513, '\0');
    for (size_t i = 0; i < 256; ++i) payload[i] = static_cast<char>(i);
    payload[512] = '\x5A';
    WriteFirmwareImage("1.900.7", payload, 230);
    const auto open_before = OpenFiles();
    uart.script = {"00 FF 79 79"};  // noise before the acknowledgement of the handshake
    EXPECT_EQ(mcu_update(), 0);
    EXPECT_EQ(Journal(),
              List(kStart + "D read 7F cmd response buf = 0. | D read 7F cmd response buf = ff. |" +
                   kErased + R"(
        D file_size = 743, mcu image_size = 513, begin write mcu memory!
        readable 1000 ms | uart 31 CE | readable 1000 ms | uart 08 00 00 00 08
        readable 1000 ms | uart FF )" +
                   Hex(payload.substr(0, 256)) + R"( FF
        readable 1000 ms | uart 31 CE | readable 1000 ms | uart 08 00 01 00 09
        readable 1000 ms | uart FF )" +
                   Hex(payload.substr(256, 256)) + R"( FF
        D write last mcu memory!
        readable 1000 ms | uart 31 CE | readable 1000 ms | uart 08 00 02 00 0A
        readable 1000 ms | uart 00 5A 5A
        property persist.mcu.version=1.900.7 | delay 12000 | delay 2000000
        I mcu_end(set gpio to normal mode) ok! | I mcu_update ok! | line released)"));
    EXPECT_EQ(OpenFiles(), open_before);
    EXPECT_EQ(ReadFile("/proc/mcu/gpio_mcu_boot0") + ReadFile("/proc/mcu/gpio_mcu_reset"), "01");
}

TEST_F(UpdateTest, StopsAtTheFirstMissingAcknowledgement) {
    const std::string nack = "| E read mcu_send_cmd return 1f,error! |";
    const std::string nothing = "| E read mcu_send_cmd return 0,error! |";
    const std::string begin = kErased + R"(
        D file_size = 225, mcu image_size = 1, begin write mcu memory! | D write last mcu memory!
        readable 1000 ms | uart 31 CE )";
    const std::string address = begin + "| readable 1000 ms | uart 08 00 00 00 08";
    const std::string last = "| E write_memory_cmd last error! | E mcu_image_update error!";
    const std::pair<std::deque<std::string>, std::string> cases[] = {
        {{"79", "1F 79"},
         kErase + nack + "E write extended erase fail! | E extended_erase_cmd error!"},
        {{"79", "79", FakeUart::kSilence},
         kErase + "readable 40000 ms | uart FF FF 00" + nothing +
             "E write erase all fail! | E extended_erase_cmd error!"},
        {{"79", "79", "79", ""}, begin + nothing + last},
        {{"79", "79", "79", "79", "1F"}, address + nack + "E write memory address fail!" + last},
        {{"79", "79", "79", "79", "79", "1F"},
         address + "| readable 1000 ms | uart 00 78 78" + nack + "E write memory data fail!" +
             last},
    };
    WriteFirmwareImage("1.900", "x");
    const auto open_before = OpenFiles();
    for (const auto& [script, journal] : cases) {
        uart.script = script;
        EXPECT_EQ(mcu_update(), -1);
        EXPECT_EQ(Journal(), List(kStart + journal + "| line released")) << script.size();
        EXPECT_EQ(ReadFile("/proc/mcu/gpio_mcu_boot0"), "1");  // stays in the bootloader
        EXPECT_EQ(OpenFiles(), open_before) << script.size();
    }
    WriteFirmwareImage("1.900", std::string(256, 'x'));
    uart.script = {"79", "79", "79", "1F"};
    EXPECT_EQ(mcu_update(), -1);
    const Lines log = Journal();
    EXPECT_EQ(log[log.size() - 3], "E write_memory_cmd current error!");
    EXPECT_EQ(Property("persist.mcu.version"), "");
}

TEST_F(UpdateTest, HandshakeIsTriedTwentyTimes) {
    uart.unscripted = "78";
    EXPECT_EQ(mcu_update(), -1);
    std::string expected = "line taken | I mcu_update enter! | I mcu_init enter!";
    for (int cycle = 1; cycle <= 4; ++cycle) {
        expected += "| I set_update_gpio, set mcu to update mode! | delay 20000 | delay 80000";
        for (int attempt = 0; attempt < 5; ++attempt) {
            expected +=
                "| D send 7F cmd to handshake with mcu. | delay 50000 | readable 200 ms | uart 7F "
                "| D read 7F cmd response buf = 78.";
            for (int byte = 1; byte < 8; ++byte) expected += "| D read 7F cmd response buf = 0.";
        }
        expected += "| E handshake over 5 times(retry:" + std::to_string(cycle) + "), error!";
    }
    EXPECT_EQ(Journal(), List(expected + R"(|
        E mcu init over 3 times, mcu int fail ! | E mcu_init error! | line released)"));
    std::filesystem::remove(HostPath("/dev/ttyHSL1"));
    EXPECT_EQ(mcu_update(), -1);
    EXPECT_EQ(Journal(), List(R"(line taken | I mcu_update enter! | I mcu_init enter!
        E open update tty device error! | E open_mcu_tty error! | E mcu_init error!
        line released)"));
    LinkFile("/dev/ttyHSL1", "/dev/full");
    EXPECT_EQ(mcu_update(), -1);
    const Lines log = Journal();
    EXPECT_EQ(Lines(log.end() - 3, log.end()),
              List("E write 7F cmd error! | E mcu_init error! | line released"));
    ASSERT_GE(open_mcu_tty(), 0);
    EXPECT_EQ(mcu_send_cmd(std::array<uint8_t, 1>{0x31}), -1);
    EXPECT_EQ(Journal(), List("E write mcu_send_cmd error!"));
    close_mcu_tty();
}

// What the application has to say until its reset, acknowledgements among it, is nothing that the
// bootloader answers.
TEST_F(UpdateTest, BytesFromBeforeTheBootloaderAreNoAnswers) {
    const TerminalUart terminal;
    WriteFirmwareImage("1.900.7", "x");
    g_hooks.on_delay = [&](std::chrono::microseconds duration) {
        if (duration == std::chrono::milliseconds(80)) terminal.Send("04 79 6F 7E 79 79");
    };
    int waits = 0;
    g_hooks.on_readable = [&](int fd, auto /*limit*/) {
        Note("uart", terminal.Received());
        if (++waits > 5) terminal.Send(waits == 6 ? "6E 79" : "79");  // noise that comes later
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 0);
    };
    EXPECT_EQ(mcu_update(), 0);
    const Lines log = Journal();
    Lines answers = log;
    std::erase_if(answers, [](const std::string& line) {
        return !line.starts_with("D read 7F cmd response") || line.ends_with("= 0.");
    });
    EXPECT_EQ(answers, List("D read 7F cmd response buf = 6e. | D read 7F cmd response buf = 79."));
    EXPECT_EQ(std::count(log.begin(), log.end(), "I set_update_gpio, set mcu to update mode!"), 2);
    EXPECT_EQ(waits, 6 + 5);  // five answers to one erase and one block
}

TEST_F(UpdateTest, CommandReturnsWhatFollowsItsLastAcknowledgement) {
    const TerminalUart terminal;
    ASSERT_GE(open_mcu_tty(), 0);
    std::deque<std::string> answers = {"79", "79 0A 0B", "", "0C 0D"};  // what comes at each wait
    g_hooks.on_readable = [&](int fd, auto /*limit*/) {
        if (const auto bytes = terminal.Received(); !bytes.empty()) Note("uart", bytes);
        if (!answers.empty()) {
            if (!answers.front().empty()) terminal.Send(answers.front());
            answers.pop_front();
        }
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 0);
    };
    const uint8_t block[] = {0x5A};
    const Transmission get{BootloaderRow(BootloaderCommandId::kGet).bytes};
    uint8_t data[4] = {};
    EXPECT_EQ(bootloader_transaction({get, {block}}, data), 0);
    EXPECT_EQ(Hex(data), "0A 0B 0C 0D");
    EXPECT_EQ(Journal(), List(R"(readable 1000 ms | uart 00 FF | readable 1000 ms | uart 5A
        readable 1000 ms | readable 1000 ms)"));
    answers = {"79", "79 0A"};  // and no more
    EXPECT_EQ(bootloader_transaction({get, {block, "no data!\n"}}, data), -1);
    EXPECT_EQ(Journal().back(), "E no data!");
    close_mcu_tty();
}

TEST_F(UpdateTest, ImageFileIsCheckedBeforeAnythingIsWritten) {
    const auto sizes = [](int32_t result, const std::string& line) {
        EXPECT_EQ(mcu_image_update(), result);
        EXPECT_EQ(Journal(), List(line));
    };
    WriteFirmwareImage("1.900", "");
    sizes(0, "D file_size = 224, mcu image_size = 0, begin write mcu memory!");
    const std::string image = ReadFile(kImage);
    WriteFile(kImage, image + "y");
    sizes(-1, "E file size error, file_size = 225, header_len = 224,image_size = 0!");
    // header_len and image_size add up to 2^32 + 224.
    WriteFile(kImage, image.substr(0, 4) + "\xE1" + image.substr(5, 3) + "\xFF\xFF\xFF\xFF" +
                          image.substr(12));
    sizes(-1, "E file size error, file_size = 224, header_len = 225,image_size = 4294967295!");
    std::filesystem::remove(HostPath(kImage));
    sizes(-1, "E stat file settings error! | E file size error!");
    EXPECT_EQ(get_mcu_head(nullptr), -1);
    EXPECT_EQ(mcu_send_cmd({}), -1);
    EXPECT_EQ(write_memory_cmd({}, 0), -1);
    EXPECT_EQ(Journal(), List("E mcu_head null. | E mcu_send_cmd :cmd null! | E data null!"));
    ASSERT_GE(open_mcu_tty(), 0);
    EXPECT_EQ(write_memory_cmd(std::vector<uint8_t>(257), 0), -1);
    EXPECT_EQ(Journal(), List(R"(readable 1000 ms | uart 31 CE | readable 1000 ms
        uart 00 00 00 00 00 | E write data_temp too len!)"));
    close_mcu_tty();
    const UniqueFd socket = Listen(kImage);  // there, but not to be opened
    sizes(-1, "E fopen mcu file error. | E target mcu header get error!");
    std::filesystem::remove(HostPath(kImage));
    WriteFirmwareImage(std::string(64, 'v'), "x");
    mcu_head head{};
    EXPECT_EQ(get_mcu_head(&head), 0);
    EXPECT_EQ(std::string(head.version), std::string(63, 'v'));
}

TEST_F(UpdateTest, VersionsDecideOnTheUpdate) {
    const std::string refused = "| E target mcu header check error, do not update!";
    const std::string next = "| I next go to update mcu.";
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        // running, image
        {"1.900.2", "1.900.2", -1, "E mcu version same(1.900.2), do not need update!"},
        {"1.900.3", "1.900.2", 0,
         "D board current mcu version: 1.900.3,target mcu version: 1.900.2, not equal." + next},
        {"1.900.10", "1.900.2", 0,
         "E current version len:8, target version len:7, not euqal." + next},
        {"", "1.900.2", 0, "E current or target version null." + next},
        {"1.900.2", "1900", -1, "E version format error." + refused},
        {"1.900.2", "1.901.900", -1, "E error:cur_b_ver = 901." + refused},
        {"1.900.2", "1.90", -1, "E error:cur_b_ver = 90." + refused},
        {"1", "no magic", -1, "E mcu magic num illegal:6d206f6e." + refused},
        {"1", "no file", -1,
         "E fopen mcu file error. | E target mcu header get error, do not update!"},
    };
    for (const auto& [running, image, result, log] : cases) {
        WriteFirmwareImage(image, "x");
        if (image == "no magic") WriteFile(kImage, "no magic");
        if (image == "no file") std::filesystem::remove(HostPath(kImage));
        uart.script = {Hex(Frame("01 01 0F 00 " + Hex(running + std::string(1, '\0'))))};
        EXPECT_EQ(mcu_version_check(), result);
        EXPECT_EQ(Journal(),
                  List("readable 200 ms | uart 01 00 0F 00 AD 63 7E | D get mcu current version:" +
                       running + ", length:" + std::to_string(running.size()) + ". |" + log +
                       (result == 0 ? "" : "| delay 12000 | delay 2000000")))
            << image;
    }
}

TEST_F(UpdateTest, VersionIsAskedForFourTimesWithAResetBeforeTheLast) {
    uart.script = {FakeUart::kSilence, Hex(Frame("01 01 0F 01 31 00")),
                   Hex(Frame("01 01 0F 00 " + Hex(std::string(64, '9')) + " 00")), "04 41"};
    EXPECT_EQ(mcu_version_check(), 0);
    EXPECT_EQ(Journal(), List(R"(
        readable 200 ms | uart 01 00 0F 00 AD 63 7E | E mcu serial select error or timeout ret = 0.
        E mcu response not DECODER_FINISH(0), error!
        E mcu_parse_version_data fail, continue get mcu version(1/3)!
        readable 200 ms | uart 01 00 0F 00 AD 63 7E | E channel =1, type =1, serivce = f, cmd = 1!
        E mcu response not DECODER_FINISH(2), error!
        E mcu_parse_version_data fail, continue get mcu version(2/3)!
        readable 200 ms | uart 01 00 0F 00 AD 63 7E | D get mcu current version:)" +
                              std::string(64, '9') + R"(, length:64.
        E mcu version length too long 64!
        E mcu_parse_version_data fail, continue get mcu version(3/3)!
        E mcu_get_current_version over 3 times,reset mcu! | delay 12000 | delay 2000000
        readable 200 ms | uart 01 00 0F 00 AD 63 7E | E mcu response not DECODER_FINISH(0), error!
        E mcu_parse_version_data fail, continue get mcu version(5/3)!
        I get mcu current version error, go to update!)"));
    std::filesystem::remove(HostPath("/dev/ttyHSL1"));
    EXPECT_EQ(mcu_version_check(), 0);
    EXPECT_EQ(Journal(), List(R"(E open normal tty device error! | E open_mcu_normal_tty error!
        I get mcu current version error, go to update!)"));
    LinkFile("/dev/ttyHSL1", "/dev/full");
    EXPECT_EQ(mcu_version_check(), 0);
    const std::string failed = "E write mcu get ver command failed! |";
    EXPECT_EQ(Journal(), List(failed + failed + failed + R"(
        E mcu_get_current_version over 3 times,reset mcu! | delay 12000 | delay 2000000 |)" +
                              failed + "I get mcu current version error, go to update!"));
}

TEST_F(UpdateTest, ImageThatVanishesAfterItsWritingStillCountsAsWritten) {
    WriteFirmwareImage("1.900", "Z");
    g_hooks.on_entry = [](const std::string& entry) {
        if (entry == "uart 00 5A 5A") std::filesystem::remove(HostPath(kImage));
    };
    EXPECT_EQ(mcu_update(), 0);
    const Lines log = Journal();
    EXPECT_EQ(Lines(log.end() - 5, log.end()), List(R"(uart 00 5A 5A | E fopen mcu file error.
        E target mcu header get error! | I mcu_update ok! | line released)"));
    EXPECT_EQ(Property("persist.mcu.version"), "");
    EXPECT_EQ(ReadFile("/proc/mcu/gpio_mcu_boot0"), "1");  // no reset
}

TEST_F(UpdateTest, RestOfAReplyFromBeforeTheResetIsNoVersion) {
    const TerminalUart terminal;
    WriteFirmwareImage("1.900.2", "x");
    const std::string reply = Hex(Frame("01 01 0F 00 31 2E 39 30 30 2E 32 00"));
    g_hooks.on_delay = [&](std::chrono::microseconds duration) {
        if (duration == std::chrono::seconds(2)) terminal.Send(reply.substr(18));
    };
    int waits = 0;
    g_hooks.on_readable = [&](auto...) {  // a reply that comes in two pieces, then a whole one
        ++waits;
        if (waits == 3) terminal.Send(reply.substr(0, 17));
        if (waits == 4) terminal.Send(reply);
        return waits < 3 ? 0 : 1;
    };
    EXPECT_EQ(mcu_version_check(), -1);
    const Lines log = Journal();
    const Lines last = List(R"(D get mcu current version:1.900.2, length:7.
        E mcu version same(1.900.2), do not need update! | delay 12000 | delay 2000000)");
    EXPECT_EQ(Lines(log.end() - 4, log.end()), last);
    EXPECT_EQ(waits, 4);
}

TEST_F(UpdateTest, SecondUpdateWaitsForTheFirstAndTakesItsResult) {
    WriteFirmwareImage("1.900", "x");
    std::thread second;
    std::atomic<pid_t> second_id{0};
    int result = 1;
    g_hooks.on_readable = [&, answer = g_hooks.on_readable](int fd, auto limit) {
        if (!second.joinable()) {
            second_id = 0;
            second = std::thread([&] {
                second_id = ThreadId();
                result = mcu_update();
            });
            while (!IsAsleep(second_id)) sched_yield();
        }
        return answer(fd, limit);
    };
    for (const int expected : {0, -1}) {
        EXPECT_EQ(mcu_update(), expected);
        second.join();
        EXPECT_EQ(result, expected);
        const Lines log = Journal();
        EXPECT_EQ(std::count(log.begin(), log.end(), "I mcu_update enter!"), 1);
        WriteFile("/system/bin/mcu.bin", "no image");
    }
}

TEST_F(UpdateTest, BootPinsAreSetBeforeTheReset) {
    const std::string pins = HostPath("/pins");  // one FIFO behind all three
    ASSERT_EQ(mkfifo(pins.c_str(), 0600), 0);
    const UniqueFd reader(open(pins.c_str(), O_RDWR | O_CLOEXEC));
    for (const auto* pin : {"boot0", "boot1", "reset"}) {
        LinkFile(std::string("/proc/mcu/gpio_mcu_") + pin, pins);
    }
    set_update_gpio();
    char written[8] = {};
    EXPECT_EQ(read(reader.get(), written, sizeof(written)), 4);
    EXPECT_STREQ(written, "0101");  // boot 1, boot 0, reset low, reset high
}

TEST_F(UpdateTest, ResetSequenceRunsToItsEndWhateverFails) {
    std::filesystem::remove(HostPath("/proc/mcu/gpio_mcu_boot1"));
    LinkFile("/proc/mcu/gpio_mcu_boot0", "/dev/full");
    std::filesystem::remove(HostPath("/proc/mcu/gpio_mcu_reset"));
    mkfifo(HostPath("/proc/mcu/gpio_mcu_reset").c_str(), 0600);  // which nobody reads
    set_update_gpio();
    EXPECT_EQ(Journal(), List(R"(
        E write_gpio_data_str open /proc/mcu/gpio_mcu_boot1:No such file or directory!
        E write_gpio_data_str err:No space left on device!
        E write_gpio_data_str open /proc/mcu/gpio_mcu_reset:No such device or address!
        delay 20000
        E write_gpio_data_str open /proc/mcu/gpio_mcu_reset:No such device or address!
        delay 80000)"));
}

}  // namespace
