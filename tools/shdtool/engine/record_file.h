// The file of recorded events: written by record, read by replay and audit.
//
// All numbers are little-endian. The file begins with 32 bytes:
//   @0   8  "SHDREC\x1a\n"
//   @8   4  version, 2; one of version 1 says the clocks only here
//   @12  4  0
//   @16  8  int64, ns of CLOCK_BOOTTIME when the recording began
//   @24  8  int64, ns since the epoch at that moment
// Entries follow, in the order of their arrival, each a byte that says what it is, its arrival time
// as the difference to the entry before (the first: to the beginning), and what the kind needs:
//   0x00 | handle  a sample: arrival time minus time stamp, then SensorInfo::data_bytes bytes of
//                  SensorEvent::data; all other bytes of the record follow from the sensor
//   0x40 | handle  the flush-complete event of that sensor
//   0x80           the connection to the daemon was lost
//   0x81           it was made again
//   0x82           the recorder missed events: since when, as the difference to the arrival time
//   0x83           both clocks, at least every minute of entries: ns since the epoch less those
//                  that the beginning's clocks make of the time; it is not counted as an entry
//   0xFF           the end of the recording's time, with the number of entries before it
// Times are in ns, and they and the number are written seven bits to a byte, lowest first, the
// highest bit set in all bytes but the last; signed ones alternate (0, -1, 1, -2, ...). An
// accelerometer sample takes about 20 bytes in place of 104. A file without the end entry was not
// closed: what stands before the cut is good.
#pragma once

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tools/client/result.h"
#include "tools/shdtool/engine/delivery.h"
#include "tools/wire/recording.h"

namespace shdtool {

// Gathers entries in memory; Flush writes them.
class RecordWriter {
  public:
    // Makes the file; with replace an existing one is replaced once there is an entry to be written
    // or the recording ends, otherwise kInvalidArgument.
    [[nodiscard]] static shdclient::Result<RecordWriter> Create(const std::string& path,
                                                                bool replace);

    void Add(const Delivery& delivery);

    // Nothing before the first entry. Errors as kSystem, with the file's name: disk full, for
    // instance.
    [[nodiscard]] shdclient::Status Flush();

    // Moves the recording's beginning, as long as nothing was added.
    void BeginAt(int64_t begin_ns);

    // Adds the end entry and writes the file to the disk.
    [[nodiscard]] shdclient::Status Close(int64_t end_ns);

    // Takes the file away again if Create has made it and no entry was added.
    void Discard();

    [[nodiscard]] uint64_t bytes() const { return written_ + pending_.size(); }

  private:
    RecordWriter(UniqueFd fd, std::string path, bool made)
        : fd_(std::move(fd)), path_(std::move(path)), made_(made) {}
    [[nodiscard]] shdclient::Status Write();
    void AddClocks(int64_t at_ns);
    void Begin(uint8_t code, int64_t arrival_ns);

    UniqueFd fd_;
    std::string path_;
    bool made_;  // there was no such file before
    std::vector<uint8_t> pending_;
    int64_t arrival_ns_ = 0;  // of the last entry
    int64_t ahead_ns_ = 0;    // of the wall clock at the beginning
    int64_t clocks_due_ns_ = 0;
    uint64_t entries_ = 0;
    uint64_t written_ = 0;  // bytes
};

class RecordReader {
  public:
    // kInvalidArgument when the file cannot be read, is empty or special, is no recording, or is of
    // another version.
    [[nodiscard]] static shdclient::Result<RecordReader> Open(const std::string& path);

    // The next entry; empty at the end.
    [[nodiscard]] std::optional<Delivery> Next();

    // The recording's time; the end is known behind the last entry.
    [[nodiscard]] int64_t begin_ns() const { return begin_ns_; }
    [[nodiscard]] int64_t end_ns() const { return arrival_ns_; }

    // Both clocks as they were at the beginning and later, as far as Next has come.
    [[nodiscard]] const std::vector<wire::Clocks>& clocks() const { return clocks_; }

    // After the end: empty when the file is whole, otherwise what is wrong behind the last entry.
    [[nodiscard]] const std::optional<shdclient::Error>& damage() const { return damage_; }

  private:
    RecordReader(std::ifstream file, std::string path, const wire::Clocks& begin, uint64_t position)
        : file_(std::move(file)),
          path_(std::move(path)),
          begin_ns_(begin.boot.count()),
          clocks_{begin},
          arrival_ns_(begin_ns_),
          position_(position) {}

    [[nodiscard]] Delivery ReadEntry(uint8_t code);
    void ReadClocks();
    void ReadEnd();
    // These read on; behind damage they yield 0.
    [[nodiscard]] uint8_t Byte();
    [[nodiscard]] uint64_t Number();
    [[nodiscard]] int64_t Signed();
    [[nodiscard]] int64_t ArrivalTime(const char* damage);
    // A time that lies so far before another; when it is impossible, that is damage.
    [[nodiscard]] int64_t TimeBefore(int64_t ns, int64_t distance_ns, const char* damage);
    void Damaged(const std::string& what);  // the first damage counts

    std::ifstream file_;
    std::string path_;
    int64_t begin_ns_;
    std::vector<wire::Clocks> clocks_;
    int64_t arrival_ns_;    // of the last entry, at first the beginning
    uint64_t position_;     // of the next byte
    uint64_t entries_ = 0;  // that Next returned
    const char* cut_ = "";  // the damage if the file ends here
    bool ended_ = false;
    std::optional<shdclient::Error> damage_;
};

}  // namespace shdtool
