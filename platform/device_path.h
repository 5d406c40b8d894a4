// Names of the files, devices and sockets that the daemon shares with the system. On the device a
// path stands for itself; on a development machine it lies below the directory named by SHD_ROOT.
#pragma once

#if !defined(__ANDROID__)
#include <string>
#include <string_view>
#endif

#if defined(__ANDROID__)
class DevicePath {
  public:
    constexpr explicit DevicePath(const char* path) : path_(path) {}
    [[nodiscard]] constexpr const char* c_str() const { return path_; }

  private:
    const char* path_;
};
#else
// Puts SHD_ROOT in front of an absolute path; an empty or unset variable leaves the path as it is.
// Reads the environment at each construction and is safe on any thread.
class DevicePath {
  public:
    explicit DevicePath(std::string_view path);
    [[nodiscard]] const char* c_str() const { return path_.c_str(); }

  private:
    std::string path_;
};
#endif
