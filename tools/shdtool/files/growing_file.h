// A file that is written piece by piece, as recordings are. Used by the commands that make them.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "tools/client/result.h"

namespace shdtool {

// Written through at each piece, since a recording is often ended by pulling a cable. One thread.
class GrowingFile {
  public:
    // force: an existing file is replaced. Fails with kInvalidArgument when there is one otherwise,
    // or when it is no regular file; as kSystem when it cannot be made.
    [[nodiscard]] shdclient::Status Create(const std::string& path, bool force);

    // Nothing is written before Create. The first failure is the one that is kept.
    void Write(std::string_view piece);

    // Why a piece could not be written: as kSystem, with the file's name.
    [[nodiscard]] shdclient::Status status() const;

    [[nodiscard]] uint64_t bytes() const { return bytes_; }

  private:
    struct Closer {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };

    [[nodiscard]] shdclient::Error Failed() const;

    std::string path_;
    std::unique_ptr<std::FILE, Closer> file_;
    uint64_t bytes_ = 0;
    bool failed_ = false;
    int error_ = 0;
};

}  // namespace shdtool
