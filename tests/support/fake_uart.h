// The UART's device as the firmware updater meets it, without a terminal behind it: a plain file.
// What the daemon writes goes to the file's end, and a reply is put behind it, where the daemon's
// next read finds it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>

namespace shdtest {

class FakeUart {
  public:
    // Makes the device and answers every wait for it (Hooks::on_readable).
    FakeUart();

    // Each wait notes what was written before it as "uart BYTES" and takes the next reply: bytes
    // like "79", kSilence, or none, which is readable but has nothing to read.
    static constexpr char kSilence[] = "silence";
    std::deque<std::string> script;
    std::string unscripted = "79";

  private:
    int Answer(int fd);

    off_t answered_ = 0;  // file position behind the last reply
};

// Writes the image file of a payload that begins at header_len.
void WriteFirmwareImage(const std::string& version, const std::string& payload,
                        uint32_t header_len = 224);

}  // namespace shdtest
