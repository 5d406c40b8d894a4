// Fakes around a SensorHub, shared by the unit tests and the fuzz targets.
#include "tests/support/test_hub.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/debug_flag.h"
#include "mcu_link/reboot_trigger.h"

namespace shdtest {

namespace {

sockaddr_un SocketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    HostPath(path).copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// The packet in a frame, taken apart independently of the daemon's codec.
std::vector<uint8_t> PacketOf(std::span<const uint8_t> frame) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < frame.size() && frame[i] != 0x7E; ++i) {
        const bool escaped = frame[i] == 0x7D && i + 1 < frame.size();
        bytes.push_back(escaped ? static_cast<uint8_t>(frame[++i] ^ 0x20) : frame[i]);
    }
    bytes.resize(bytes.size() < 2 ? 0 : bytes.size() - 2);
    return bytes;
}

}  // namespace

std::vector<uint8_t> Bytes(std::string_view hex) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 3) {
        uint8_t byte = 0;
        if (std::from_chars(hex.data() + i, hex.data() + i + 2, byte, 16).ec != std::errc()) {
            std::abort();
        }
        bytes.push_back(byte);
    }
    return bytes;
}

std::string Hex(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02X ", byte);
        text += digits;
    }
    if (!text.empty()) text.pop_back();
    return text;
}

std::string Hex(const std::string& bytes) {
    return Hex({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::vector<uint8_t> Frame(std::string_view packet) {
    std::vector<uint8_t> bytes = Bytes(packet);
    unsigned fcs = 0xFFFF;  // bit by bit: CRC-16/X-25
    for (const unsigned byte : bytes) {
        fcs ^= byte;
        for (int bit = 0; bit < 8; ++bit) fcs = (fcs & 1) != 0 ? (fcs >> 1) ^ 0x8408 : fcs >> 1;
    }
    bytes.push_back(static_cast<uint8_t>(~fcs & 0xFF));
    bytes.push_back(static_cast<uint8_t>((~fcs >> 8) & 0xFF));
    std::vector<uint8_t> frame;
    for (const uint8_t byte : bytes) {
        const bool escaped = byte == 0x7D || byte == 0x7E;
        if (escaped) frame.push_back(0x7D);
        frame.push_back(escaped ? static_cast<uint8_t>(byte ^ 0x20) : byte);
    }
    frame.push_back(0x7E);
    return frame;
}

McuMessagePtr Message(std::string_view hex) {
    McuMessagePtr message;
    if (ParseMcuMessage(Bytes(hex), &message) != 0) std::abort();
    return message;
}

SensorState& State(int32_t handle) {
    const MutexLock lock(g_sensor_state_mutex);
    return StateOf(handle);
}

UniqueFd Listen(const std::string& path) {
    const sockaddr_un address = SocketAddress(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(fd.get(), Generic(address), sizeof(address)) != 0) std::abort();
    if (listen(fd.get(), 8) != 0) std::abort();
    return fd;
}

UniqueFd Connect(const std::string& path) {
    const sockaddr_un address = SocketAddress(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), Generic(address), sizeof(address)) != 0) std::abort();
    return fd;
}

std::string ReadAvailable(int fd) {
    std::string received;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0) {
        received.append(chunk, static_cast<size_t>(count));
    }
    return received;
}

FakeMcu::FakeMcu(SensorHub* hub) : hub_(hub) {
    g_hooks.on_wait = [this] { return Deliver(); };
}

ssize_t FakeMcu::Read(uint8_t* /*buffer*/, size_t /*length*/) {
    return -1;
}

ssize_t FakeMcu::Write(const uint8_t* buffer, ssize_t length) {
    if (length < 0) return -1;
    const auto packet = PacketOf({buffer, static_cast<size_t>(length)});
    Note("mcu", Hex(packet));
    std::string data = unscripted;
    if (!script.empty()) {
        data = script.front();
        script.pop_front();
    }
    if (data == kWriteFails) return -1;
    reply_.reset();
    if (data == kSilence || packet.empty()) return length;
    const size_t header_size = packet[0] == MCU_CHANNEL_CTRL ? 3 : 4;
    reply_.emplace(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(header_size));
    (*reply_)[1] = MCU_TYPE_RESPONSE;
    const auto bytes = Bytes(data);
    reply_->insert(reply_->end(), bytes.begin(), bytes.end());
    return length;
}

bool FakeMcu::Deliver() {
    if (!reply_) return false;
    McuMessagePtr message;
    if (ParseMcuMessage(*reply_, &message) != 0) std::abort();
    reply_.reset();
    (void)hub_->OnEvent(message.release());
    return true;
}

CleanProcess::CleanProcess() {
    ResetPlatform();
    g_shd_log_debug = 0;
    g_mcu_rebooting = 0;
    g_mcu_rebooted = 0;
    g_mcu_reboot_disable = 1;
    const MutexLock lock(g_sensor_state_mutex);
    g_sensor_state.fill(SensorState{});
}

TestHub::TestHub() : data_server(Listen("/data.sock").Release()) {
    data_client = Connect("/data.sock");
    data_server.ServeOnce();
    hub.serial_port = &mcu;
    hub.data_server = &data_server;
}

std::vector<SensorEvent> TestHub::TakeEvents() {
    const std::string received = ReadAvailable(data_client.get());
    std::vector<SensorEvent> events(received.size() / sizeof(SensorEvent));
    if (!events.empty()) {
        std::memcpy(events.data(), received.data(), events.size() * sizeof(SensorEvent));
    }
    return events;
}

void TestHub::Report(int mcu_sensor_id, std::string_view data) {
    const auto service = static_cast<uint8_t>(mcu_sensor_id);
    std::string packet = "01 02 " + Hex({&service, 1}) + " 00";
    if (!data.empty()) packet += " " + std::string(data);
    (void)hub.OnEvent(Message(packet).release());
}

}  // namespace shdtest
