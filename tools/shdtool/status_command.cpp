// shdtool status: asks the daemon and the MCU, looks at the files, and gives a verdict on each.
// A row of the table of commands.
#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"
#include "tools/client/local_socket.h"
#include "tools/shdtool/command_table.h"
#include "tools/shdtool/status_checks.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Result;
using std::chrono::milliseconds;

// A virtual sensor, for which the daemon answers by itself, with a command that it ignores there.
constexpr int32_t kVirtualHandle = 18;

struct Findings {
    std::vector<Check> checks;
    int exit_status = kExitSuccess;
    std::string mcu_version;

    void Add(const char* name, Verdict verdict, const std::string& text) {
        checks.push_back({name, verdict, text});
    }
    void AddFailure(const char* name, const shdclient::Error& error) {
        Add(name, Verdict::kFailed, error.message);
        // The first failure decides: without a socket everything behind it fails, too.
        if (exit_status == kExitSuccess) exit_status = ExitStatusOf(error.code);
    }
};

void CheckDataSocket(const Context& context, Findings& findings) {
    constexpr const char* kName = "data socket";
    constexpr milliseconds kServedLimit{1'000};
    auto stream = shdclient::EventStream::Connect(context.root);
    if (!stream) return findings.AddFailure(kName, stream.error());
    const shdclient::Status served = stream->WaitUntilServed(kServedLimit);
    if (!served) return findings.AddFailure(kName, served.error());
    findings.Add(kName, Verdict::kGood,
                 shdclient::SocketPath(context.root, shdclient::kDataSocket) + " is served");
}

// False when there is no point in asking further.
bool CheckDaemon(HubClient& hub, Findings& findings) {
    constexpr const char* kName = "daemon";
    const auto start = std::chrono::steady_clock::now();
    const shdclient::Status answer = hub.SelfTest(kVirtualHandle);
    if (!answer && answer.error().code == shdclient::ErrorCode::kTimeout) {
        findings.AddFailure(
            kName, {shdclient::ErrorCode::kTimeout,
                    answer.error().message + "; at its start it answers only once the MCU does"});
        return false;
    }
    if (!answer) {
        findings.AddFailure(kName, answer.error());
        return false;
    }
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    findings.Add(kName, Verdict::kGood, fmt::format("answered in {:.1f} ms", time.count()));
    return true;
}

void CheckMcu(HubClient& hub, Findings& findings) {
    constexpr const char* kName = "MCU";
    constexpr uint16_t kFirmwareVersion = 0;
    const Result<std::string> version = hub.Version(kFirmwareVersion);
    if (!version) return findings.AddFailure(kName, version.error());
    findings.mcu_version = *version;
    findings.Add(kName, Verdict::kGood, "answers, firmware " + *version);
}

void CheckLive(const Context& context, Findings& findings) {
    constexpr const char* kName = "control socket";
    Result<HubClient> hub = ConnectHub(context);
    if (hub) {
        findings.Add(
            kName, Verdict::kGood,
            shdclient::SocketPath(context.root, shdclient::kControlSocket) + " takes connections");
    } else {
        findings.AddFailure(kName, hub.error());
    }
    CheckDataSocket(context, findings);
    const bool answers = hub && CheckDaemon(*hub, findings);
    if (!hub) findings.Add("daemon", Verdict::kFailed, "not asked: no control socket");
    if (answers) {
        CheckMcu(*hub, findings);
    } else {
        findings.Add("MCU", Verdict::kFailed, "not asked: the daemon does not answer");
    }
}

Outcome ShowStatus(Context& context) {
    Findings findings;
    CheckLive(context, findings);
    for (Check& check : CheckFiles(context.root, findings.mcu_version)) {
        findings.checks.push_back(std::move(check));
    }
    Report report{.text = "", .exit_status = findings.exit_status};
    Json checks = Json::List();
    for (const Check& check : findings.checks) {
        report.text += fmt::format("{}{:<4}  {:<30}  {}", report.text.empty() ? "" : "\n",
                                   VerdictText(check.verdict), check.name, check.text);
        checks.Add(
            {{"name", check.name}, {"verdict", VerdictText(check.verdict)}, {"text", check.text}});
    }
    report.fields.Set("checks", checks);
    return report;
}

}  // namespace

CommandRows StatusCommands() {
    return {{{"Overview",
              "status",
              "Say at one glance what works and what does not",
              {},
              "Looks at the sockets, the daemon, the MCU, the properties, the stored calibration, "
              "the core dumps and the raw-data logs. With a silent MCU it takes up to twice "
              "--timeout.\n"
              "Exit status: 0 daemon and MCU answer, 1 one of them does not, 3 no daemon there.",
              "shdtool status"},
             ShowStatus}};
}

}  // namespace shdtool
