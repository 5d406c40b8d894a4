// Runs shdtool through a shell. Called by the tests of its commands.
#include "tests/integration/tool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

ToolRun RunTool(const std::string& root, const std::string& command) {
    const std::string errors = testing::TempDir() + "shdtool-" + std::to_string(getpid()) + ".err";
    const std::string line =
        "SHD_ROOT='" + root + "' TERM=dumb exec " SHDTOOL_BINARY " " + command + " 2>" + errors;
    FILE* const pipe = popen(line.c_str(), "re");
    if (pipe == nullptr) throw std::runtime_error("cannot run " + line);
    ToolRun run;
    std::array<char, 4096> buffer{};
    for (size_t count = 0; (count = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        run.out.append(buffer.data(), count);
    }
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream file(errors);
    run.err.assign(std::istreambuf_iterator<char>(file), {});
    (void)unlink(errors.c_str());
    return run;
}
