// Runs shdtool as people and scripts do, and keeps what it said. Used by the tests of its commands.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

struct ToolRun {
    int status = -1;  // exit status, -1 when a signal ended it
    std::string out;
    std::string err;

    // Standard output as one object.
    [[nodiscard]] nlohmann::json json() const { return nlohmann::json::parse(out); }
};

// root: the tree for SHD_ROOT. command: what stands behind "shdtool", as a shell reads it; it may
// redirect its input. Waits for the end.
[[nodiscard]] ToolRun RunTool(const std::string& root, const std::string& command);
