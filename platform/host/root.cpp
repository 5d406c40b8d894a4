// Places the device's paths below SHD_ROOT on a development machine.
#include <cstdlib>

#include "platform/device_path.h"

DevicePath::DevicePath(std::string_view path) {
    const char* root = std::getenv("SHD_ROOT");
    if (root != nullptr) path_ = root;
    path_ += path;
}
