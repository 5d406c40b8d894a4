// Android's system properties on a development machine: one file each below /data/property,
// replaced atomically and read afresh at every call.
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/device_path.h"
#include "platform/unique_fd.h"

namespace {

std::string PropertyPath(const char* key) {
    return DevicePath(std::string("/data/property/") + key).c_str();
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    const UniqueFd file(open(PropertyPath(key).c_str(), O_RDONLY | O_CLOEXEC));
    ssize_t length = file.valid() ? read(file.get(), value, PROPERTY_VALUE_MAX - 1) : -1;
    if (length <= 0) {
        const std::string_view fallback = default_value != nullptr ? default_value : "";
        length = static_cast<ssize_t>(
            std::min(fallback.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1)));
        std::memcpy(value, fallback.data(), static_cast<size_t>(length));
    }
    value[length] = '\0';
    return static_cast<int>(std::strlen(value));
}

int property_set(const char* key, const char* value) {
    const size_t length = std::strlen(value);
    if (length >= PROPERTY_VALUE_MAX) return -1;
    const std::string path = PropertyPath(key);
    std::string temporary = path + ".XXXXXX";
    const UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.valid()) return -1;
    const bool stored = fchmod(file.get(), 0644) == 0 &&
                        write(file.get(), value, length) == static_cast<ssize_t>(length) &&
                        std::rename(temporary.c_str(), path.c_str()) == 0;
    if (!stored) unlink(temporary.c_str());
    return stored ? 0 : -1;
}
