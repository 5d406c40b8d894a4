// Reading of the firmware image and the walk over its payload; used by the version check and the
// update.
#include "update_mcu/firmware_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "protocol/system.h"
#include "update_mcu/bootloader_commands.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "update_mcu";
constexpr size_t kBlockSize = kWriteMemoryMaxSize;

UniqueFd OpenImage() {
    UniqueFd file(open(DevicePath(kFirmwareImagePath).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) LOGE("fopen mcu file error.\n");
    return file;
}

// Fills as much of buffer as the file holds.
void ReadWhole(int fd, std::span<uint8_t> buffer) {
    while (!buffer.empty()) {
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count <= 0) return;
        buffer = buffer.subspan(static_cast<size_t>(count));
    }
}

// The file's size in bytes, negative when it is not known or does not fit.
int32_t ImageFileSize() {
    struct stat status {};
    if (stat(DevicePath(kFirmwareImagePath).c_str(), &status) != 0) {
        LOGE("stat file settings error!\n");
        return -1;
    }
    return std::in_range<int32_t>(status.st_size) ? static_cast<int32_t>(status.st_size) : -1;
}

int WritePayload(std::span<const uint8_t> payload) {
    uint32_t address = kFlashBase;
    while (payload.size() >= kBlockSize) {
        if (write_memory_cmd(payload.first(kBlockSize), address) != 0) {
            LOGE("write_memory_cmd current error!\n");
            return -1;
        }
        payload = payload.subspan(kBlockSize);
        address += kBlockSize;
    }
    if (payload.empty()) return 0;
    LOGD("write last mcu memory!\n");
    if (write_memory_cmd(payload, address) == 0) return 0;
    LOGE("write_memory_cmd last error!\n");
    return -1;
}

}  // namespace

int get_mcu_head(mcu_head* head) {
    if (head == nullptr) {
        LOGE("mcu_head null.\n");
        return -1;
    }
    const UniqueFd file = OpenImage();
    if (!file.valid()) return -1;
    std::array<uint8_t, sizeof(*head)> bytes{};
    ReadWhole(file.get(), bytes);
    std::memcpy(head, bytes.data(), bytes.size());
    head->version[sizeof(head->version) - 1] = '\0';
    return 0;
}

int mcu_image_update() {
    const int32_t file_size = ImageFileSize();
    if (file_size < 0) {
        LOGE("file size error!\n");
        return -1;
    }
    mcu_head head{};
    if (get_mcu_head(&head) != 0) {
        LOGE("target mcu header get error!\n");
        return -1;
    }
    // In 64 bits, so that a header whose fields add up beyond 32 bits never matches.
    if (uint64_t{head.header_len} + head.image_size != static_cast<uint64_t>(file_size)) {
        LOGE("file size error, file_size = %ld, header_len = %u,image_size = %u!\n",
             static_cast<long>(file_size), head.header_len, head.image_size);
        return -1;
    }
    const auto size = static_cast<size_t>(file_size);
    const std::unique_ptr<uint8_t[]> file_buf(new (std::nothrow) uint8_t[size]);
    if (file_buf == nullptr) {
        LOGE("file_buf malloc fail!\n");
        return -1;
    }
    std::memset(file_buf.get(), 0, size);
    {
        const UniqueFd file = OpenImage();
        if (!file.valid()) return -1;
        ReadWhole(file.get(), {file_buf.get(), size});
    }
    LOGD("file_size = %ld, mcu image_size = %u, begin write mcu memory!\n",
         static_cast<long>(file_size), head.image_size);
    return WritePayload({file_buf.get() + head.header_len, head.image_size});
}
