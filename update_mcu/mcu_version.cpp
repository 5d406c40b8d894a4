// The version check of start-up: the firmware that runs against the image file.
#include <array>
#include <cstring>
#include <string_view>

#include "mcu_link/frame_codec.h"
#include "mcu_link/mcu_packet.h"
#include "platform/log.h"
#include "update_mcu/bootloader_link.h"
#include "update_mcu/firmware_image.h"
#include "update_mcu/gpio.h"
#include "update_mcu/mcu_update.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "update_mcu";
constexpr int kPasses = 5;
constexpr int kResetPass = 4;
constexpr size_t kReplySize = 1500;
constexpr size_t kMaxVersion = 63;  // characters
constexpr std::array<uint8_t, 4> kReplyHeader = {MCU_CHANNEL_SENSOR, MCU_TYPE_RESPONSE,
                                                 MCU_SERVICE_VERSION, MCU_CMD_VERSION};

// Reads one reply and takes the version from the first frame in it.
std::optional<std::string> ReadVersionReply(int fd) {
    std::array<uint8_t, kReplySize> received{};
    std::array<uint8_t, kReplySize> decoded{};
    const ssize_t count = mcu_serial_read(fd, received);
    FrameDecoder decoder(decoded);
    int consumed = 0;
    const auto bytes = std::span(received).first(count > 0 ? static_cast<size_t>(count) : 0);
    const DecoderStatus status = decoder.PutBytes(bytes, &consumed);
    if (status != DECODER_FINISH) {
        LOGE("mcu response not DECODER_FINISH(%d), error!\n", status);
        return std::nullopt;
    }
    if (std::memcmp(decoded.data(), kReplyHeader.data(), kReplyHeader.size()) != 0) {
        LOGE("channel =%x, type =%x, serivce = %x, cmd = %x!\n", decoded[0], decoded[1], decoded[2],
             decoded[3]);
        LOGE("mcu response not DECODER_FINISH(%d), error!\n", status);
        return std::nullopt;
    }
    // The decoder never fills the buffer's last byte, so that the text ends within it.
    const std::string version(reinterpret_cast<const char*>(decoded.data() + kReplyHeader.size()));
    LOGD("get mcu current version:%s, length:%d.\n", version.c_str(),
         static_cast<int>(version.size()));
    if (version.size() > kMaxVersion) {
        LOGE("mcu version length too long %u!\n", static_cast<unsigned>(version.size()));
        return std::nullopt;
    }
    return version;
}

// False, with the reason logged, for an image that is not one for this board.
bool IsImageForBoard(const mcu_head& head) {
    if (head.magic != kFirmwareMagic) {
        LOGE("mcu magic num illegal:%x.\n", head.magic);
        return false;
    }
    const std::string_view version = head.version;
    const size_t dot = version.find('.');
    if (dot == std::string_view::npos) {
        LOGE("version format error.\n");
        return false;
    }
    const std::string cur_b_ver(version.substr(dot + 1, kBoardCode.size()));
    if (cur_b_ver != kBoardCode) {
        LOGE("error:cur_b_ver = %s.\n", cur_b_ver.c_str());
        return false;
    }
    return true;
}

// Any difference counts: versions have no order.
bool IsSameVersion(const std::string& current, const std::string& target) {
    if (current.empty() || target.empty()) {
        LOGE("current or target version null.\n");
        return false;
    }
    if (current.size() != target.size()) {
        LOGE("current version len:%d, target version len:%d, not euqal.\n",
             static_cast<int>(current.size()), static_cast<int>(target.size()));
        return false;
    }
    if (current == target) {
        LOGE("mcu version same(%s), do not need update!\n", current.c_str());
        return true;
    }
    LOGD("board current mcu version: %s,target mcu version: %s, not equal.\n", current.c_str(),
         target.c_str());
    return false;
}

// Whether the image must replace the running version.
bool NeedsUpdate(const std::string& current) {
    mcu_head head{};
    if (get_mcu_head(&head) != 0) {
        LOGE("target mcu header get error, do not update!\n");
        return false;
    }
    if (!IsImageForBoard(head)) {
        LOGE("target mcu header check error, do not update!\n");
        return false;
    }
    if (IsSameVersion(current, head.version)) return false;
    LOGI("next go to update mcu.\n");
    return true;
}

}  // namespace

std::optional<std::string> mcu_get_current_version() {
    McuPacket packet{};
    BuildSensorPacket(&packet, MCU_SERVICE_VERSION, MCU_CMD_VERSION);
    const UniqueFd port = open_mcu_normal_tty();
    if (!port.valid()) {
        LOGE("open_mcu_normal_tty error!\n");
        return std::nullopt;
    }
    for (int pass = 1; pass <= kPasses; ++pass) {
        if (pass == kResetPass) {
            LOGE("mcu_get_current_version over 3 times,reset mcu!\n");
            set_normal_gpio();
            drop_pending_input(port.get());  // the rest of an earlier reply is no reply to the next
            continue;
        }
        if (write(port.get(), packet.frame, static_cast<size_t>(packet.frame_len)) < 0) {
            LOGE("write mcu get ver command failed!\n");
            continue;
        }
        if (auto version = ReadVersionReply(port.get())) return version;
        LOGE("mcu_parse_version_data fail, continue get mcu version(%d/3)!\n", pass);
    }
    return std::nullopt;
}

int mcu_version_check() {
    const auto current = mcu_get_current_version();
    if (!current) {
        LOGI("get mcu current version error, go to update!\n");
        return 0;
    }
    if (NeedsUpdate(*current)) return 0;
    // The application starts afresh before the daemon opens its port.
    set_normal_gpio();
    return -1;
}
