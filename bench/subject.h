// What the load generator measures: a program with a UART of its own and its clients. Each kind
// knows how the program is started, what one frame on its line looks like and what every client
// gets for it. The load generator makes one of each and drives them in turn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/child.h"
#include "platform/unique_fd.h"

struct Binaries {
    std::string shd;
    std::string relay;
    std::string mcusim;
};

// Methods throw std::runtime_error when what they wait for does not come.
class Subject {
  public:
    // name: shd, relay, relay256 (reads up to 256 bytes a call), ser2net or gpsd. directory: made
    // here, for its files; its path must fit a local socket's name. samples: to a frame.
    Subject(std::string name, std::string directory, Binaries binaries, int samples);

    // Starts it on a line that answers like an MCU without sensors, and waits until it serves.
    void Start();
    // Starts it on mcusim with a line of that speed: shd, or the relay as an echo.
    void StartOnSimulator(int baud);
    // Returns when each gets all that it should.
    void ConnectClients(int count);

    // Writes one frame and returns after every client has got its share: the time in ns until the
    // last one of them had it. With a single read of the clock no other work lies in between.
    int64_t Pass();
    // One request on the control socket: the time in ns until its reply was there.
    int64_t Request();

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] int clients() const { return static_cast<int>(clients_.size()); }
    [[nodiscard]] int samples() const { return samples_; }
    [[nodiscard]] size_t frame_size() const { return frame_.size(); }
    [[nodiscard]] Usage Measure() const { return child_.Measure(); }
    // Of the daemon: from its start to the reply to a request that waited for it.
    [[nodiscard]] int64_t startup_ns() const { return startup_ns_; }

  private:
    void BuildFrame(int samples);
    void MakeLine();
    [[nodiscard]] std::vector<std::string> Command(int samples);
    void ConnectControl();
    void AwaitDaemon();
    void AnswerRequests(int reply_fd);
    [[nodiscard]] UniqueFd ConnectData() const;
    void SendFrame();

    const std::string name_;
    const std::string directory_;
    const Binaries binaries_;
    const int samples_;
    std::vector<uint8_t> frame_;
    size_t share_ = 0;  // bytes that each client gets for a frame
    int port_ = 0;      // of TCP, for gpsd
    UniqueFd near_;     // the line's ends
    UniqueFd far_;
    std::string far_name_;
    Child simulator_;
    Child child_;
    UniqueFd control_;
    std::vector<UniqueFd> clients_;
    int64_t startup_ns_ = 0;
};

[[nodiscard]] int64_t NowNs();
