// The simulated bootloader and flash against the exchanges of AN3155, and against the faults that a
// board inflicts on them.
#include "tools/mcusim/board/bootloader.h"

#include <gtest/gtest.h>
#include <filesystem>
#include <memory>
#include <sstream>

#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"

namespace mcusim {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

Bytes Hex(const std::string& text) {
    std::istringstream in(text);
    Bytes bytes;
    for (unsigned value = 0; in >> std::hex >> value;) bytes.push_back(static_cast<uint8_t>(value));
    return bytes;
}

class SimulatedBootloader : public testing::Test {
  protected:
    SimulatedBootloader() { PowerOn(0); }
    ~SimulatedBootloader() override { std::filesystem::remove(path_); }

    // A new process on the same flash file, past the handshake.
    void PowerOn(double scale) {
        boot_.reset();
        flash_ = std::make_unique<Flash>(path_);
        boot_ = std::make_unique<Bootloader>(*flash_, BootloaderTimings{.scale = scale});
        EXPECT_EQ(Exchange("7F"), Hex("79"));
    }
    Bytes Exchange(const std::string& sent) {
        for (const uint8_t byte : Hex(sent)) boot_->OnByte(byte, now_);
        Bytes answer;
        for (const TimedByte& out : boot_->Poll(now_)) answer.push_back(out.byte);
        return answer;
    }
    int At(size_t offset) const { return flash_->contents()[offset]; }

    const std::string path_ = testing::TempDir() + "flash_" + std::to_string(getpid());
    TimePoint now_{0};
    std::unique_ptr<Flash> flash_;
    std::unique_ptr<Bootloader> boot_;
};

// One conversation a line, each on a flash that begins with 11 22 33 44: what the host sends, what
// it is answered, and so on in turn. (A second 7F is the first byte of a command, a third one its
// wrong complement.)
constexpr const char* kConversations =
    R"(00 FF > 79 0C 31 00 01 02 11 21 31 43 44 63 73 82 92 79 | 01 FE > 79 31 00 00 79
7F > | 7F > 1F | 00 FE > 1F | 55 AA > 1F | 02 FD > 79 01 04 31 79
11 EE > 79 | 08 00 00 00 08 > 79 | 03 FC > 79 11 22 33 44 | 11 EE > 79 | 08 00 00 00 09 > 1F | 11 EE > 79 | 08 08 00 00 00 > 1F
11 EE > 79 | 08 00 00 00 08 > 79 | 03 FD > 1F | 11 EE > 79 | 08 07 FF FF 0F > 79 | 01 FE > 1F | 11 EE > 79 | 1F FF C0 01 21 > 79 | 00 FF > 79 AA
31 CE > 79 | 08 00 01 00 09 > 79 | 03 DE AD BE EF 21 > 79 | 11 EE 08 00 01 00 09 04 FB > 79 79 79 DE AD BE EF FF | 31 CE > 79 | 08 00 01 00 09 > 79 | 00 5A 5B > 1F | 11 EE 08 00 01 00 09 00 FF > 79 79 79 DE
31 CE > 79 | 1F FF 00 00 E0 > 1F | 31 CE > 79 | 08 07 FF FE 0E > 79 | 03 01 02 03 04 07 > 1F | 31 CE > 79 | 20 00 00 00 20 > 1F | 31 CE 20 00 40 00 60 01 CA FE 35 > 79 79 79 | 11 EE 20 00 40 00 60 01 FE > 79 79 79 CA FE
43 BC > 79 | 01 00 02 02 > 1F | 43 BC > 79 | FF FF > 1F | 11 EE 08 00 00 00 08 00 FF > 79 79 79 11 | 43 BC > 79 | 01 00 02 03 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 FF
43 BC > 79 | FF 00 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 FF
44 BB > 79 | FF FF 01 > 1F | 44 BB > 79 | FF FD 02 > 1F | 44 BB > 79 | FF F0 0F > 1F | 44 BB > 79 | 00 00 00 08 08 > 1F | 44 BB > 79 | 00 01 00 01 00 07 07 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 11 | 44 BB > 79 | FF FE 01 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 FF
44 BB > 79 | FF FF 00 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 FF
44 BB > 79 | 00 01 00 00 00 03 02 > 79 | 11 EE 08 00 00 00 08 00 FF > 79 79 79 FF
21 DE > 79 | 1F FF C0 00 20 > 1F | 21 DE > 79 | 08 00 00 00 08 > 79 | 02 FD >)";

TEST_F(SimulatedBootloader, AnswersAsPublished) {
    std::istringstream conversations(kConversations);
    for (std::string line; std::getline(conversations, line);) {
        flash_->EraseAll();
        flash_->Program(kFlashBase, Hex("11 22 33 44"));
        boot_->Reset();
        EXPECT_EQ(Exchange("00 FF 7F"), Hex("79")) << "noise ahead of the handshake";
        std::istringstream turns(line);
        for (std::string turn; std::getline(turns, turn, '|');) {
            const size_t arrow = turn.find('>');
            EXPECT_EQ(Exchange(turn.substr(0, arrow)), Hex(turn.substr(arrow + 1))) << line;
        }
    }
    EXPECT_EQ(boot_->TakeGo(), kFlashBase);
    EXPECT_EQ(boot_->TakeGo(), std::nullopt);
}

TEST_F(SimulatedBootloader, AcknowledgesWhenTheFlashIsDoneAndLosesWhatCameMeanwhile) {
    PowerOn(1);
    Exchange("31 CE 08 00 00 00 08 07 1 2 3 4 5 6 7 8 0F");
    EXPECT_EQ(boot_->NextDue(), 32us) << "two words";
    now_ = 31us;
    EXPECT_EQ(Exchange("02 AA"), Bytes());
    now_ = 1ms;
    EXPECT_EQ(boot_->Poll(now_).at(0).earliest, 32us);
    EXPECT_EQ(Exchange("FD"), Hex("79 01 04 31 79"));
    Exchange("44 BB FF FF 00");
    EXPECT_TRUE(boot_->Poll(now_ + 3999ms).empty());
    EXPECT_EQ(boot_->Poll(now_ + 4000ms).size(), 1U);
}

TEST_F(SimulatedBootloader, PowerCutLeavesWorkHalfDoneForGood) {
    flash_->Program(kFlashBase, Bytes(kFlashSizeBytes, 0));
    PowerOn(1);
    Exchange("44 BB FF FF 00");
    boot_->PowerCut(now_ += 2500ms);
    PowerOn(1);
    EXPECT_EQ(At(kFlashSizeBytes * 5 / 8 - 64), 0xFF);
    EXPECT_EQ(At(kFlashSizeBytes * 5 / 8 + 64), 0x00);
    Exchange("31 CE 08 00 00 00 08 03 1 2 4 8 0C");
    boot_->PowerCut(now_ += 8us);
    EXPECT_EQ(Exchange("7F"), Bytes());
    EXPECT_EQ(At(1), 0x02);
    EXPECT_EQ(At(2), 0xFF);
}

TEST_F(SimulatedBootloader, ReadoutProtectionOutlivesRestartsAndEndsWithTheContents) {
    flash_->Program(kFlashBase, Hex("11"));
    EXPECT_EQ(Exchange("82 7D 02 FD"), Hex("79 79")) << "the part has reset itself";
    PowerOn(0);
    for (const char* refused : {"11 EE", "21 DE", "31 CE", "43 BC", "44 BB", "63 9C", "82 7D"}) {
        EXPECT_EQ(Exchange(refused), Hex("1F")) << refused;
    }
    EXPECT_EQ(Exchange("02 FD 92 6D"), Hex("79 01 04 31 79 79 79"));
    EXPECT_EQ(At(0), 0xFF);
    EXPECT_EQ(Exchange("7F 11 EE"), Hex("79 79"));
}

TEST_F(SimulatedBootloader, ProtectedSectorsIgnoreWritesAndErasesInSilence) {
    flash_->Program(kFlashBase, Hex("F0 F0"));
    EXPECT_EQ(Exchange("63 9C 01 00 63 62"), Hex("79 79"));
    PowerOn(0);
    EXPECT_EQ(Exchange("31 CE 08 00 00 00 08 00 00 00"), Hex("79 79 79"));
    EXPECT_EQ(Exchange("44 BB 00 00 00 00 00 44 BB FF FF 00"), Hex("79 79 79 79"));
    EXPECT_EQ(At(0), 0xF0);
    EXPECT_EQ(Exchange("73 8C 7F 31 CE 08 00 00 00 08 00 3C 3C"), Hex("79 79 79 79 79 79"));
    EXPECT_EQ(At(0), 0x30) << "programming clears bits and sets none";
}

TEST_F(SimulatedBootloader, WhatWasWrittenAndErasedOutlivesTheProcess) {
    flash_->Program(kFlashBase, Bytes(0x8000, 0x5A));
    EXPECT_EQ(Exchange("44 BB 00 00 00 00 00"), Hex("79 79"));  // sector 0, 16 KiB
    EXPECT_EQ(Exchange("31 CE 08 00 00 04 0C 03 1 2 4 8 0C"), Hex("79 79 79"));
    PowerOn(0);
    EXPECT_EQ(At(3), 0xFF);
    EXPECT_EQ(At(4), 0x01);
    EXPECT_EQ(At(8), 0xFF);
    EXPECT_EQ(At(0x4000), 0x5A);
}

TEST_F(SimulatedBootloader, InjectedFaultsHitTheChosenBlock) {
    boot_->NackBlock(2);
    EXPECT_EQ(Exchange("31 CE 08 00 00 00 08 00 55 55"), Hex("79 79 79"));
    EXPECT_EQ(Exchange("31 CE 08 00 00 10 18 00 55 55"), Hex("79 79 1F"));
    EXPECT_EQ(Exchange("31 CE 08 00 00 20 28 00 55 55"), Hex("79 79 79"));
    boot_->MuteAt(3, 2);
    EXPECT_EQ(Exchange("31 CE 08 00 00 10 18 00 55 55"), Hex("79 79"));
    EXPECT_EQ(At(0x10), 0xFF);
    boot_->Reset();
    EXPECT_EQ(Exchange("7F"), Bytes());
    boot_->Reset();
    EXPECT_EQ(Exchange("7F"), Hex("79"));
}

TEST_F(SimulatedBootloader, OnlyACompleteFirmwareRuns) {
    const Bytes payload = firmware::BuildPayload("1.900.7", 3000, 42);
    const auto image = firmware::WrapImage("1.900.7", payload);
    EXPECT_EQ(Bytes(image.begin(), image.begin() + 12), Hex("FF AA AA FF E0 0 0 0 B8 0B 0 0"));
    EXPECT_EQ(std::string(image.begin() + 32, image.begin() + 40), std::string("1.900.7\0", 8));
    EXPECT_EQ(Bytes(image.begin() + 224, image.end()), payload);
    flash_->Program(kFlashBase, std::span(payload).first(2999));
    EXPECT_EQ(RunningVersion(*flash_), std::nullopt);
    flash_->Program(kFlashBase, payload);
    EXPECT_EQ(RunningVersion(*flash_), "1.900.7");
    for (const uint32_t offset : {0U, 70U, 72U, 76U, 83U, 2999U}) {
        flash_->FlipBit(kFlashBase + offset, offset % 8);
        EXPECT_EQ(RunningVersion(*flash_), std::nullopt) << offset;
        flash_->FlipBit(kFlashBase + offset, offset % 8);
    }
    EXPECT_EQ(RunningVersion(Flash(path_)), "1.900.7");
}

}  // namespace
}  // namespace mcusim
