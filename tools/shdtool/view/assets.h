// The files of the page, which are part of the program. Served by the web server.
#pragma once

#include <span>
#include <string_view>

namespace shdtool {

struct Asset {
    std::string_view name;  // "index.html"
    std::string_view content;
};

// All there are; the table and the content are constant.
[[nodiscard]] std::span<const Asset> Assets();

}  // namespace shdtool
