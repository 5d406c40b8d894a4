// The load generator: runs programs side by side, each on a line and with clients of its own, and
// measures them in turn, round by round. Prints one line of JSON for each program and round, for
// scripts/bench.
#include <fmt/format.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "bench/subject.h"

namespace {

struct Options {
    Binaries binaries;
    std::string directory;
    std::vector<std::string> programs{"shd", "relay"};
    std::vector<int> clients{1};
    std::vector<int> samples{1};
    int frames = 0;
    int deliveries = 0;
    int requests = 0;
    int rounds = 1;
    int64_t line_rate = 0;  // bytes a second; 0: each frame as soon as the last one has arrived
    double hold_s = 0;
    int baud = 115200;
};

constexpr int kMaxFrames = 1000;       // of a round whose length its deliveries give
constexpr int kMaxClientsOfGpsd = 64;  // a constant of gpsd

int FramesOf(const Subject& subject, const Options& options) {
    if (options.deliveries == 0) return options.frames;
    const int per_frame = subject.clients() * subject.samples();
    return std::clamp(options.deliveries / per_frame, 1, kMaxFrames);
}

// The figure below which that share of them lies.
int64_t Quantile(std::vector<int64_t>& times, double share) {
    if (times.empty()) return 0;
    const auto at = static_cast<size_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + static_cast<ptrdiff_t>(at), times.end());
    return times[at];
}

void MeasureRound(Subject& subject, const Options& options, int round) {
    std::vector<int64_t> times;
    const Usage before = subject.Measure();
    const int64_t start = NowNs();
    const auto frame_bytes = static_cast<int64_t>(subject.frame_size());
    const int frames = FramesOf(subject, options);
    for (int i = 0; i < frames; ++i) {
        if (options.line_rate > 0) {
            const int64_t due = start + i * frame_bytes * 1'000'000'000 / options.line_rate;
            std::this_thread::sleep_for(std::chrono::nanoseconds(due - NowNs()));
        }
        times.push_back(subject.Pass());
    }
    for (int i = 0; i < options.requests; ++i) times.push_back(subject.Request());
    std::this_thread::sleep_for(std::chrono::duration<double>(options.hold_s));
    const int64_t wall_ns = NowNs() - start;
    const Usage after = subject.Measure();
    const nlohmann::json result = {
        {"program", subject.name()},
        {"round", round},
        {"clients", subject.clients()},
        {"samples", subject.samples()},
        {"delivered", int64_t{frames} * subject.samples() * subject.clients()},
        {"line_bytes", frames * frame_bytes},
        {"cpu_ns", after.cpu_ns - before.cpu_ns},
        {"switches", after.switches - before.switches},
        {"private_kib", after.private_kib},
        {"wall_ns", wall_ns},
        {"median_ns", Quantile(times, 0.5)},
        {"p99_ns", Quantile(times, 0.99)},
        {"startup_ns", subject.startup_ns()},
    };
    fmt::print("{}\n", result.dump());
    std::fflush(stdout);
}

std::unique_ptr<Subject> Start(const Options& options, const std::string& program, int clients,
                               int samples) {
    const std::string directory =
        fmt::format("{}/{}-{}-{}", options.directory, program, clients, samples);
    auto subject = std::make_unique<Subject>(program, directory, options.binaries, samples);
    if (options.requests > 0) {
        subject->StartOnSimulator(options.baud);
    } else {
        subject->Start();
        subject->ConnectClients(clients);
    }
    return subject;
}

void Run(const Options& options) {
    std::vector<std::unique_ptr<Subject>> subjects;
    for (const int clients : options.clients) {
        for (const int samples : options.samples) {
            for (const std::string& program : options.programs) {
                if (program == "gpsd" && clients > kMaxClientsOfGpsd) continue;
                subjects.push_back(Start(options, program, clients, samples));
            }
        }
    }
    for (int round = 0; round < options.rounds; ++round) {
        for (const auto& subject : subjects) MeasureRound(*subject, options, round);
        std::ranges::reverse(subjects);  // none is always measured right after the same other
    }
}

int Main(int argc, char** argv) {
    Options options;
    CLI::App app("Measures the daemon and others under load");
    app.add_option("--shd", options.binaries.shd)->required();
    app.add_option("--relay", options.binaries.relay)->required();
    app.add_option("--mcusim", options.binaries.mcusim)->required();
    app.add_option("--directory", options.directory, "an empty one; short")->required();
    app.add_option("--programs", options.programs, "shd, relay, relay256, ser2net, gpsd");
    app.add_option("--clients", options.clients,
                   "of each program; of several, it is run with each");
    app.add_option("--samples", options.samples, "to a frame; of several, it is run with each");
    app.add_option("--frames", options.frames, "to a round, each awaited before the next");
    app.add_option("--deliveries", options.deliveries,
                   "to a round: instead of --frames, as many as give so many samples to clients");
    app.add_option("--requests", options.requests, "to a round, against mcusim")
        ->excludes("--deliveries");
    app.add_option("--baud", options.baud, "of mcusim's line; 0: bytes take no time");
    app.add_option("--rounds", options.rounds);
    app.add_option("--line-rate", options.line_rate, "bytes a second; 0: no pauses");
    app.add_option("--hold", options.hold_s, "seconds without load at the end of a round");
    CLI11_PARSE(app, argc, argv);

    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    Run(options);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "shd_load: %s\n", failure.what());
        return 1;
    }
}
