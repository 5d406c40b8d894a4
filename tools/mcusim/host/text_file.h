// Reading of the text files that mcusim is given. Scripts, signals and recordings come through it.
#pragma once

#include <string>
#include <vector>

namespace mcusim {

// The lines without their ends. Throws std::runtime_error naming the file when it cannot be read,
// is empty, larger than 64 MiB or no regular file.
[[nodiscard]] std::vector<std::string> ReadLines(const std::string& path);

}  // namespace mcusim
