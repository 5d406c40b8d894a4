// What the page asks of the hub and of a simulated MCU: switching sensors, flushes, faults. Called
// by the web server for what a browser has posted.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "tools/shdtool/base/json.h"
#include "tools/shdtool/engine/hub_worker.h"

namespace shdtool {

// What a sensor has been asked to do, as far as this program did.
struct AskedSampling {
    int32_t handle;
    int64_t period_us;  // 0: switched off
    int32_t batch;      // samples
};

class Actions {
  public:
    // timeout: the limit of the wait for each reply of the hub. asked: told of each change that the
    // hub has carried out, on the thread that asked for it.
    Actions(std::string root, std::chrono::milliseconds timeout,
            std::function<void(const AskedSampling&)> asked)
        : root_(std::move(root)), worker_(root_, timeout), asked_(std::move(asked)) {}

    // {"do": "enable", "sensor": 1, "period_us": 20000, "batch": 5}, "disable" and "flush" with a
    // sensor, {"do": "mcusim", "command": "hang"}. Waits for the answer, which it returns as
    // {"ok": true, "text"} or {"ok": false, "error"}. Any thread, several at a time.
    [[nodiscard]] std::string Do(const std::string& body);

    // Ends all waits, those to come, too. Any thread.
    void Close() { closed_ = true; }

  private:
    [[nodiscard]] shdclient::Result<std::string> Carry(const Json& order);
    [[nodiscard]] shdclient::Result<std::string> AskHub(const std::string& what, const Json& order);
    [[nodiscard]] shdclient::Status Ask(const std::vector<shd::ClientRequest>& requests);
    [[nodiscard]] shdclient::Result<std::string> AskSimulator(const Json& order) const;

    const std::string root_;

    Mutex mutex_;
    HubWorker worker_ GUARDED_BY(mutex_);
    uint64_t posted_ GUARDED_BY(mutex_) = 0;                             // requests so far
    uint64_t taken_ GUARDED_BY(mutex_) = 0;                              // outcomes so far
    std::map<uint64_t, shdclient::Status> outcomes_ GUARDED_BY(mutex_);  // by number, not fetched

    const std::function<void(const AskedSampling&)> asked_;
    std::atomic<bool> closed_ = false;
};

// Whether a simulated MCU takes commands there. Does not wait.
[[nodiscard]] bool HasSimulator(const std::string& root);

}  // namespace shdtool
