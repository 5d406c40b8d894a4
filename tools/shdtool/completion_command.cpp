// shdtool completion: prints a completion script made from the commands as they are. A row of the
// table of commands.
#include "tools/cli/parse.h"
#include "tools/shdtool/base/command_rows.h"

namespace shdtool {
namespace {

Outcome PrintScript(Context& context) {
    const std::string shell = context.arguments.Text("SHELL");
    std::string script = cli::CompletionScript(ThisProgram(), shell);
    script.pop_back();  // the line end, which comes with the report
    return Report{script, {{"shell", shell}, {"script", script}}};
}

}  // namespace

CommandRows CompletionCommands() {
    return {{{.heading = "Shell",
              .name = "completion",
              .summary = "Print a completion script for the shell",
              .options = {cli::Choice("SHELL", "", "bash or zsh", "bash zsh").Required()},
              .examples = "source <(shdtool completion bash)"},
             PrintScript}};
}

}  // namespace shdtool
