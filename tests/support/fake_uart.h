// The UART's device as the firmware updater meets it, without a terminal behind it: a plain file.
// What the daemon writes goes to the file's end, and a reply is put behind it, where the daemon's
// next read finds it.
#pragma once

#include <deque>
#include <string>
#include <vector>

namespace shdtest {

class FakeUart {
  public:
    // Makes the device and answers every wait for it (Hooks::on_readable).
    FakeUart();

    // A reply is a byte string like "79", kSilence, or kNoBytes: readable, but with nothing to
    // read. Each wait takes the next one; what was written before it is noted as "uart BYTES".
    static constexpr char kSilence[] = "silence";
    static constexpr char kNoBytes[] = "";
    std::deque<std::string> script;
    std::string unscripted = "79";

  private:
    int Answer(int fd);

    off_t answered_ = 0;  // file position behind the last reply
};

// The image file of a payload, its header 224 bytes long.
[[nodiscard]] std::string FirmwareImage(const std::string& version, const std::string& payload);

}  // namespace shdtest
