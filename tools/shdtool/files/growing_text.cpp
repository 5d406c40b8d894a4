// Reading of text that may grow, be cut short or be replaced. Called by the log command and by the
// timeline.
#include "tools/shdtool/files/growing_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace shdtool {

bool GrowingText::Read(const Line& line) {
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    do {
        count = read(fd_.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    partial_.append(buffer.data(), static_cast<size_t>(count));
    size_t begin = 0;
    for (size_t end = 0; (end = partial_.find('\n', begin)) != std::string::npos;) {
        std::string_view text = std::string_view(partial_).substr(begin, end - begin);
        if (text.ends_with('\r')) text.remove_suffix(1);
        line(text);
        begin = end + 1;
    }
    partial_.erase(0, begin);
    return true;
}

bool GrowingText::FollowChange() {
    struct stat own {};
    struct stat named {};
    if (stat(path_.c_str(), &named) != 0 || !S_ISREG(named.st_mode)) return false;
    const bool open_now = fd_.valid() && fstat(fd_.get(), &own) == 0;
    if (!open_now || own.st_ino != named.st_ino || own.st_dev != named.st_dev) {
        UniqueFd next(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!next.valid()) return false;
        fd_ = std::move(next);
    } else if (own.st_size < lseek(fd_.get(), 0, SEEK_CUR)) {
        (void)lseek(fd_.get(), 0, SEEK_SET);
    } else {
        return false;
    }
    partial_.clear();
    return true;
}

void GrowingText::Finish(const Line& line) {
    if (!partial_.empty()) line(std::exchange(partial_, {}));
}

}  // namespace shdtool
