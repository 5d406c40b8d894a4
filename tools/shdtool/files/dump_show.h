// The command dump show. Its row stands among the dump commands.
#pragma once

#include <string>

#include "tools/shdtool/base/command.h"

namespace shdtool {

// Shows the dump in a file of raw bytes or of base64 text. Status 1 when it is cut off.
[[nodiscard]] Outcome ShowDump(Context& context, const std::string& path);

}  // namespace shdtool
