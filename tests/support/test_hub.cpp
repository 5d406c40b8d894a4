// Fakes around a SensorHub, shared by the unit tests and the fuzz targets.
#include "tests/support/test_hub.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "core/hub/debug_flag.h"
#include "events/step_counter.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/line.h"

using namespace shd;

namespace shdtest {

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// A socket that bind or connect has tied to a path.
UniqueFd TiedSocket(int (*tie)(int, const sockaddr*, socklen_t), const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    HostPath(path).copy(address.sun_path, sizeof(address.sun_path) - 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Check(tie(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    return fd;
}

}  // namespace

std::vector<uint8_t> Bytes(std::string_view hex) {
    std::vector<uint8_t> bytes((hex.size() + 1) / 3);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char* digits = hex.data() + 3 * i;
        Check(std::from_chars(digits, digits + 2, bytes[i], 16).ptr == digits + 2);
    }
    return bytes;
}

std::string Hex(std::span<const uint8_t> bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    text.reserve(3 * bytes.size());
    for (const uint8_t byte : bytes) {
        if (!text.empty()) text += ' ';
        text += kDigits[byte / 16];
        text += kDigits[byte % 16];
    }
    return text;
}

std::string Hex(const std::string& bytes) {
    return Hex({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::string WithoutTrailingZeros(std::string hex) {
    while (hex.ends_with("00")) hex.resize(hex.size() - std::min<size_t>(hex.size(), 3));
    return hex;
}

std::vector<uint8_t> Frame(std::vector<uint8_t> bytes) {
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

std::vector<uint8_t> Frame(std::string_view packet) {
    return Frame(Bytes(packet));
}

std::string PacketOf(std::span<const uint8_t> frame) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < frame.size() && frame[i] != 0x7E; ++i) {
        const bool escaped = frame[i] == 0x7D && i + 1 < frame.size();
        bytes.push_back(escaped ? static_cast<uint8_t>(frame[++i] ^ 0x20) : frame[i]);
    }
    bytes.resize(bytes.size() < 2 ? 0 : bytes.size() - 2);
    return Hex(bytes);
}

McuMessagePtr Message(std::string_view packet) {
    McuMessagePtr message;
    Check(ParseMcuMessage(Bytes(packet), &message) == 0);
    return message;
}

SensorState& State(int32_t handle) {
    const MutexLock lock(g_sensor_state_mutex);
    return StateOf(handle);
}

UniqueFd Listen(const std::string& path) {
    UniqueFd fd = TiedSocket(bind, path);
    Check(listen(fd.get(), 8) == 0);
    return fd;
}

UniqueFd Connect(const std::string& path) {
    return TiedSocket(connect, path);
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
    const std::string request = PacketOf({buffer, static_cast<size_t>(length)});
    Note("mcu", request);
    std::string data = unscripted;
    if (!script.empty()) {
        data = script.front();
        script.pop_front();
    }
    if (data == kWriteFails) return -1;
    if (data == kSilence) return length;
    const size_t header_size = request.starts_with("00") ? 3 : 4;
    std::string reply = request.substr(0, 3 * header_size - 1);
    reply.replace(3, 2, "01");
    reply_ = Message(data.empty() ? reply : reply + " " + data);
    return length;
}

bool FakeMcu::Deliver() {
    if (reply_ == nullptr) return false;
    (void)hub_->OnEvent(reply_.release());
    return true;
}

CleanProcess::CleanProcess() {
    ResetPlatform();
    g_hooks.named_locks = {{&g_line.mutex(), "line"}};
    g_shd_log_debug = 0;
    g_mcu_rebooting = 0;
    g_mcu_rebooted = 0;
    g_mcu_reboot_disable = 1;
    g_step_history = {};
    const MutexLock lock(g_sensor_state_mutex);
    g_sensor_state.fill(SensorState{});
}

TestHub::TestHub()
    : control_server(Listen("/ctl.sock").Release()), data_server(Listen("/data.sock").Release()) {
    control_server.set_owner(&hub);
    data_client = Connect("/data.sock");
    data_server.ServeOnce();
    hub.serial_port = &mcu;
    hub.data_server = &data_server;
    hub.control_server = &control_server;
}

std::vector<SensorEvent> TestHub::TakeEvents() const {
    const std::string received = ReadAvailable(data_client.get());
    std::vector<SensorEvent> events(received.size() / sizeof(SensorEvent));
    if (!events.empty())
        std::memcpy(events.data(), received.data(), events.size() * sizeof(SensorEvent));
    return events;
}

void TestHub::Report(int mcu_sensor_id, const std::string& data) {
    const auto service = static_cast<uint8_t>(mcu_sensor_id);
    Receive("01 02 " + Hex({&service, 1}) + " 00" + (data.empty() ? "" : " " + data));
}

}  // namespace shdtest
