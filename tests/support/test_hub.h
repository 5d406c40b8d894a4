// A SensorHub wired up for tests: a scripted MCU behind its serial port, its two servers and one
// client connected to the data server. Used by the unit tests and by the fuzz targets.
#pragma once

#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/hub/sensor_hub.h"
#include "core/hub/sensor_table.h"
#include "mcu_link/serial_port.h"
#include "platform/unique_fd.h"
#include "protocol/event.h"
#include "sockets/control_server.h"
#include "sockets/data_server.h"
#include "tests/support/platform.h"

namespace shdtest {

// "01 00 7E" to bytes and back.
[[nodiscard]] std::vector<uint8_t> Bytes(std::string_view hex);
[[nodiscard]] std::string Hex(std::span<const uint8_t> bytes);
[[nodiscard]] std::string Hex(const std::string& bytes);
[[nodiscard]] std::string WithoutTrailingZeros(std::string hex);

// The whole frame around a packet, and the packet in one, independent of the daemon's codec.
[[nodiscard]] std::vector<uint8_t> Frame(std::string_view packet);
[[nodiscard]] std::vector<uint8_t> Frame(std::vector<uint8_t> packet);
[[nodiscard]] std::string PacketOf(std::span<const uint8_t> frame);

// The message that a packet makes.
[[nodiscard]] McuMessagePtr Message(std::string_view packet);

// The state of a handle; the caller is the only thread that uses it.
[[nodiscard]] SensorState& State(int32_t handle);

// A listening local socket for a server under test, and clients for it.
[[nodiscard]] UniqueFd Listen(const std::string& path);
[[nodiscard]] UniqueFd Connect(const std::string& path);

// Everything that can be read from a socket without waiting.
[[nodiscard]] std::string ReadAvailable(int fd);

// The MCU's end of the exchange. Notes every request as "mcu PACKET" and replies while the
// requester waits. A script entry holds the data of one reply, whose header is made from the
// request, or kSilence, or kWriteFails; without a script each reply is unscripted.
class FakeMcu final : public SerialPort {
  public:
    static constexpr char kSilence[] = "silence";
    static constexpr char kWriteFails[] = "write fails";

    explicit FakeMcu(SensorHub* hub);

    std::deque<std::string> script;
    std::string unscripted = "00";

    [[nodiscard]] ssize_t Read(uint8_t* buffer, size_t length) override;
    [[nodiscard]] ssize_t Write(const uint8_t* buffer, ssize_t length) override;

  private:
    bool Deliver();

    SensorHub* hub_;
    McuMessagePtr reply_;
};

// Everything back to how it is when the process starts, except that reboots are disabled, so that
// asking for one shows as its log line alone.
struct CleanProcess {
    CleanProcess();
};

struct TestHub : CleanProcess {
    TestHub();

    SensorHub hub;
    FakeMcu mcu{&hub};
    ControlServer control_server;  // listens on /ctl.sock
    DataServer data_server;
    UniqueFd data_client;

    // The records that the data client has received since the last call.
    [[nodiscard]] std::vector<shd::SensorEvent> TakeEvents() const;

    // Hands over a message as the reader thread does.
    void Receive(const std::string& packet) { (void)hub.OnEvent(Message(packet).release()); }

    // Delivers an unsolicited sensor report.
    void Report(int mcu_sensor_id, const std::string& data);
};

}  // namespace shdtest
