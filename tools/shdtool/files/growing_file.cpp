// Writing of recordings. Called by the commands that make them.
#include "tools/shdtool/files/growing_file.h"

#include <cerrno>
#include <cstring>

#include "tools/shdtool/files/file_io.h"

namespace shdtool {

shdclient::Status GrowingFile::Create(const std::string& path, bool force) {
    path_ = path;
    if (auto writable = CheckWritable(path); !writable) return writable;
    file_.reset(std::fopen(path.c_str(), force ? "we" : "wxe"));
    if (!file_ && errno == EEXIST) {
        return shdclient::Error{shdclient::ErrorCode::kInvalidArgument,
                                path + ": exists; --force replaces it"};
    }
    error_ = errno;
    if (!file_) return Failed();
    return shdclient::Success();
}

void GrowingFile::Write(std::string_view piece) {
    if (!file_ || failed_) return;
    failed_ = std::fwrite(piece.data(), 1, piece.size(), file_.get()) != piece.size() ||
              std::fflush(file_.get()) != 0;
    if (failed_) error_ = errno;
    bytes_ += piece.size();
}

shdclient::Status GrowingFile::status() const {
    if (failed_) return Failed();
    return shdclient::Success();
}

shdclient::Error GrowingFile::Failed() const {
    return {shdclient::ErrorCode::kSystem, path_ + ": " + std::strerror(error_)};
}

}  // namespace shdtool
