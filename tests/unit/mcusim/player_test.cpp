// The player of recorded sessions against a host in virtual time, and the recordings' text.
#include <gtest/gtest.h>

#include <fstream>

#include "tools/mcusim/host/player.h"
#include "tools/mcusim/host/text_file.h"

namespace mcusim {
namespace {

using namespace std::chrono_literals;

// The bytes are of requests and replies in protocols.md: get version, clock, accelerometer batch.
constexpr const char* kSession =
    "0.100 < 0400000000626f6f74c0ff7e\n"  // a log line: nobody asked
    "1.000 > 01000f00ad637e\n"            // version ...
    "1.250 < 01010f0053494d51437e\n"      // ... 250 ms later
    "2.000 > 01000c01d204000000000000b1e07e\n"
    "2.001 < 01010c0100aaaa7e\n"
    "9.000 < 0102100001020304aaaa7e\n"  // two reports after a long pause
    "9.050 < 0102100005060708aaaa7e\n"
    "9.500 ! boot0 1\n9.500 ! reset 0\n9.600 ! reset 1\n"
    "9.700 > 7f\n"
    "9.701 < 79\n"
    "9.800 > 7e44bb\n"  // not a frame's end: the bootloader's
    "13.000 < 79\n";

struct Playing {
    explicit Playing(const std::string& text) {
        std::ofstream(path) << text;
        player.emplace(ParseRecording(ReadLines(path), path), 100ms,
                       [this](int line, const std::string& what) {
                           complaints += std::to_string(line) + ": " + what + "; ";
                       });
    }
    ~Playing() { std::remove(path.c_str()); }

    void Host(TimePoint at, const std::string& hex) {
        Bytes bytes;
        for (size_t i = 0; i < hex.size(); i += 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        }
        player->HostWrote(at, bytes);
    }
    // When the next part is sent, in ms; -1: not before the host does something.
    int64_t Next() {
        const std::optional<TimePoint> due = player->NextDue();
        if (!due) return -1;
        EXPECT_FALSE(player->TakeOutput(*due - 1ns)) << "sent before its time";
        EXPECT_TRUE(player->TakeOutput(*due));
        return *due / 1ms;
    }

    const std::string path = testing::TempDir() + "player." + std::to_string(getpid());
    std::string complaints;
    std::optional<Player> player;
};

TEST(Player, AnswersKeepTheirTimeAndOtherPausesAreShortened) {
    Playing playing(kSession);
    EXPECT_EQ(playing.Next(), 100);
    EXPECT_EQ(playing.Next(), -1);
    playing.Host(50s, "01000f00");  // in two pieces
    playing.Host(51s, "ad637e");
    EXPECT_EQ(playing.Next(), 51'250);
    EXPECT_EQ(playing.Next(), -1);
    playing.Host(52s, "01000c01e803000000000000f2ec7e");  // the clock is another one today
    EXPECT_EQ(playing.Next(), 52'001);
    EXPECT_EQ(playing.Next(), 52'101);  // 7 s then
    EXPECT_EQ(playing.Next(), 52'151);
    playing.player->SetPin(60s, Pin::kBoot0, true);
    playing.player->SetPin(60s, Pin::kReset, false);
    playing.Host(60s, "7f");
    EXPECT_EQ(playing.Next(), -1) << "the reset has not come";
    playing.player->SetPin(60s, Pin::kReset, true);
    EXPECT_EQ(playing.Next(), 60'001);
    playing.Host(61s, "7e44");
    EXPECT_EQ(playing.Next(), -1);
    EXPECT_FALSE(playing.player->complete());
    playing.Host(61s, "bb");
    EXPECT_EQ(playing.Next(), 64'200);
    EXPECT_TRUE(playing.player->complete());
    EXPECT_EQ(playing.complaints, "");
}

TEST(Player, AHostThatIsAheadWaitsForNoPause) {
    Playing playing(
        "0.100 > 01000f00ad637e\n0.110 < 01010f0053494d51437e\n3 < 0102100001020304aaaa7e\n"
        "6 < 0102100001020304aaaa7e\n7 > 01000f00ad637e\n7.010 < 01010f0053494d51437e\n");
    playing.Host(1s, "01000f00ad637e");
    EXPECT_EQ(playing.Next(), 1010);
    playing.Host(2s, "01000f00ad637e");
    EXPECT_EQ(playing.Next(), 2000);
    EXPECT_EQ(playing.Next(), 2000);
    EXPECT_EQ(playing.Next(), 2010);
}

TEST(Player, AGateHoldsBackWhatNobodyAskedFor) {
    Playing playing(
        "0.100 < 0400000000626f6f74c0ff7e\n0.100 ? go\n0.100 > 01000f00ad637e\n"
        "0.110 < 01010f0053494d51437e\n0.150 < 0102100001020304aaaa7e\n");
    EXPECT_EQ(playing.Next(), 100);
    playing.Host(1s, "01000f00ad637e");
    EXPECT_EQ(playing.Next(), 1010) << "an answer waits for no gate";
    EXPECT_EQ(playing.Next(), -1);
    playing.player->Go();
    EXPECT_EQ(playing.Next(), 1050);
}

TEST(Player, WhatTheHostDoesOtherwiseIsNamedWithItsLine) {
    constexpr const char* kRequests =
        "1 > 000000ccc67e\n2 > 01000f00ad637e\n3 > 01001000f4757e\n4 > 010011002c6c7e\n";
    struct Row {
        std::vector<const char*> host;
        const char* complaints;
        bool complete;
    };
    const Row rows[] = {
        {{"000000ccc67e", "01000f00ad637e", "01001000f4757e", "010011002c6c7e"}, "", true},
        {{"000000ccc67e", "01001000f4757e"}, "2: left out: request version 0; ", false},
        {{"01000f00ad637e"}, "1: left out: request handshake; ", false},
        {{"000000ccc67e", "000000ccc67e"}, "2: not recorded: request handshake; ", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.complaints);
        Playing playing(kRequests);
        for (const char* request : row.host) playing.Host(5s, request);
        EXPECT_EQ(playing.complaints, row.complaints);
        EXPECT_EQ(playing.player->complete(), row.complete);
        EXPECT_EQ(playing.player->differences(), *row.complaints == '\0' ? 0 : 1);
    }
    Playing update("1 ! boot0 1\n1 ! reset 0\n1.1 ! reset 1\n2 > 7f\n3 > 44bb00\n");
    for (const bool high : {false, true}) update.player->SetPin(1s, Pin::kReset, high);
    update.Host(2s, "7f44bc01");
    EXPECT_TRUE(update.player->complete());
    for (const bool high : {false, true, true}) update.player->SetPin(3s, Pin::kReset, high);
    EXPECT_EQ(update.complaints,
              "3: reset into the application, was into the bootloader; "
              "5: byte 2 for the bootloader is bc, was bb; 0: not recorded: a reset; ");
}

}  // namespace
}  // namespace mcusim
