// shdtool status: looks at files and sockets, asks the daemon and the MCU, and gives a verdict on
// each. A row of the table of commands.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "tools/client/event_stream.h"
#include "tools/client/hub_client.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/status_checks.h"

namespace shdtool {
namespace {

using shdclient::HubClient;
using shdclient::Result;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A virtual sensor, for which the daemon answers by itself, with a command that it ignores there.
constexpr int32_t kVirtualHandle = 18;

// Shows each check as soon as it is known.
class Findings {
  public:
    explicit Findings(const Context& context) : json_(context.json) {}

    void Add(const Check& check) {
        if (!json_) {
            const std::string head =
                fmt::format("{:<4}  {:<30}  ", VerdictText(check.verdict), check.name);
            fmt::print("{}{}\n", Styled(head, StyleOf(check.verdict)),
                       Fit(check.text, head.size()));
            (void)std::fflush(stdout);
        }
        Json fields{{"verdict", VerdictText(check.verdict)}};
        fields.Merge(check.fields);
        if (check.verdict >= Verdict::kWarning) fields.Set("problem", check.text);
        std::string key = check.name;
        std::transform(key.begin(), key.end(), key.begin(), [](char c) {
            return c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        });
        report_.fields.Set(key, fields);
    }
    // That somebody has answered, with what an answer says beyond its coming.
    void AddAnswer(const char* name, std::string_view did, steady_clock::time_point asked,
                   const std::string& more = "", const Json& fields = {}) {
        const std::chrono::duration<double, std::milli> latency = steady_clock::now() - asked;
        Json all{{"answers", true}, {"latency_ms", latency.count()}};
        Add({name, Verdict::kGood, fmt::format("{} in {:.1f} ms{}", did, latency.count(), more),
             all.Merge(fields)});
    }
    void AddFailure(const char* name, const shdclient::Error& error) {
        Add({name, Verdict::kFailed, error.message, {{"answers", false}}});
        Fail(ExitStatusOf(error.code));
    }
    // The first failure decides: without a socket everything behind it fails, too.
    void Fail(int exit_status) {
        if (report_.exit_status == kExitSuccess) report_.exit_status = exit_status;
    }
    [[nodiscard]] const Report& report() const { return report_; }

  private:
    static Style StyleOf(Verdict verdict) {
        constexpr std::array kStyles{Style::kGood, Style::kPlain, Style::kWarning, Style::kFault};
        return kStyles[static_cast<size_t>(verdict)];
    }

    const bool json_;
    Report report_{""};
};

// The data server's thread takes what a client sends.
void AskDataServer(const Context& context, Findings& findings) {
    constexpr const char* kName = "data server";
    constexpr milliseconds kServedLimit{1'000};
    const auto start = steady_clock::now();
    auto stream = shdclient::EventStream::Connect(context.root);
    if (!stream) return findings.AddFailure(kName, stream.error());
    const shdclient::Status served = stream->WaitUntilServed(kServedLimit);
    if (!served) return findings.AddFailure(kName, served.error());
    findings.AddAnswer(kName, "takes a client", start);
}

// A connection to a daemon that answers by itself; null when there is no point in asking further.
std::optional<HubClient> AskDaemon(const Context& context, Findings& findings) {
    constexpr const char* kName = "daemon";
    Result<HubClient> hub = ConnectHub(context);
    const auto start = steady_clock::now();
    const shdclient::Status answer =
        hub ? hub->SelfTest(kVirtualHandle) : shdclient::Status(hub.error());
    if (!answer) {
        shdclient::Error error = answer.error();
        if (error.code == shdclient::ErrorCode::kTimeout) {
            error.message += "; at its start it answers only once the MCU does";
        }
        findings.AddFailure(kName, error);
        return std::nullopt;
    }
    findings.AddAnswer(kName, "answered", start);
    return std::move(*hub);
}

// The version of the running firmware, when it says one.
std::optional<std::string> AskMcu(HubClient& hub, Findings& findings) {
    constexpr const char* kName = "MCU";
    constexpr uint16_t kFirmwareVersion = 0;
    const auto start = steady_clock::now();
    const Result<std::string> version = hub.Version(kFirmwareVersion);
    if (!version) {
        findings.AddFailure(kName, version.error());
        return std::nullopt;
    }
    const std::string shown = Printable(*version);
    findings.AddAnswer(kName, "answered", start, ", firmware " + shown, {{"version", shown}});
    return *version;
}

void AddNextStart(const ImageReport& image, const std::optional<std::string>& mcu_version,
                  Findings& findings) {
    const std::string decision = DaemonDecision(image, mcu_version);
    const bool writes = mcu_version && image.refusals.empty() && image.version != *mcu_version;
    findings.Add({"next start",
                  writes ? Verdict::kWarning : Verdict::kNote,
                  fmt::format("the daemon {}", decision),
                  {{"decision", decision}}});
}

Outcome ShowStatus(Context& context) {
    Findings findings(context);
    const CheckSink add = [&findings](const Check& check) { findings.Add(check); };
    const std::optional<ImageReport> image = CheckFiles(context.root, add);
    const bool served = CheckSockets(context.root, add);
    std::optional<HubClient> hub = AskDaemon(context, findings);
    if (served) AskDataServer(context, findings);
    std::optional<std::string> version;
    if (context.arguments.Has("--no-probe")) {
        findings.Add({"MCU", Verdict::kNote, "not asked", {{"answers", nullptr}}});
    } else if (hub) {
        version = AskMcu(*hub, findings);
    } else {
        findings.Add({"MCU",
                      Verdict::kFailed,
                      "not asked: the daemon does not answer",
                      {{"answers", nullptr}}});
    }
    if (image) AddNextStart(*image, version, findings);
    return findings.report();
}

}  // namespace

CommandRows StatusCommands() {
    return {{{"Overview",
              "status",
              "Say at one glance what works and what does not",
              {cli::Flag("--no-probe", "Leave out the request to the MCU")},
              "Looks at the UART, the image, the properties, the stored calibration, the core "
              "dumps, the raw-data logs, the sockets and their clients; then asks the daemon, and "
              "last the MCU for its version. A request that the MCU does not answer counts for "
              "the daemon: a second one in a row starts a recovery, which resets the MCU. With a "
              "silent MCU it takes up to twice --timeout.\n"
              "Exit status: 0 daemon and MCU answer, 1 one of them does not, 3 no daemon there.",
              "shdtool status\n"
              "shdtool status --no-probe"},
             ShowStatus}};
}

}  // namespace shdtool
