// Writes and reads recordings. Called by record, replay and audit.
#include "tools/shdtool/engine/recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "tools/shdtool/files/file_io.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;

constexpr std::string_view kMagic{"SHDREC\x1a\n", 8};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderBytes = 32;
constexpr size_t kVersionOffset = 8;
constexpr size_t kBeginOffset = 16;
constexpr size_t kEpochOffset = 24;

constexpr uint8_t kFlushComplete = 0x40;
constexpr uint8_t kLost = 0x80;
constexpr uint8_t kReconnected = 0x81;
constexpr uint8_t kMissed = 0x82;
constexpr uint8_t kEnd = 0xFF;
constexpr uint8_t kHandleMask = 0x3F;

// Far beyond any uptime, and small enough for sums of differences.
constexpr int64_t kMaxTimeNs = int64_t{1} << 57;

constexpr int kNumberBits = 7;
constexpr uint8_t kMoreFollows = 0x80;

void AppendNumber(std::vector<uint8_t>& out, uint64_t number) {
    while (number >= kMoreFollows) {
        out.push_back(static_cast<uint8_t>(number | kMoreFollows));
        number >>= kNumberBits;
    }
    out.push_back(static_cast<uint8_t>(number));
}

// a - b as a signed number; wraps around, as the reader's addition does.
void AppendDifference(std::vector<uint8_t>& out, int64_t a, int64_t b) {
    const uint64_t difference = static_cast<uint64_t>(a) - static_cast<uint64_t>(b);
    const uint64_t sign = static_cast<int64_t>(difference) < 0 ? ~uint64_t{0} : 0;
    AppendNumber(out, difference << 1 ^ sign);
}

int64_t Add(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

int64_t Subtract(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

bool IsTime(int64_t ns) {
    return ns >= -kMaxTimeNs && ns <= kMaxTimeNs;
}

int64_t EpochTimeNs() {
    constexpr int64_t kNsPerSec = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * kNsPerSec + now.tv_nsec;
}

}  // namespace

shdclient::Result<RecordWriter> RecordWriter::Create(const std::string& path, bool replace) {
    const shdclient::Status writable = CheckWritable(path);
    if (!writable) return writable.error();
    constexpr mode_t kMode = 0666;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
    UniqueFd fd(open(path.c_str(), kFlags | O_EXCL, kMode));
    const bool made = fd.valid();
    if (!made && errno == EEXIST && replace) fd.Reset(open(path.c_str(), kFlags, kMode));
    if (!fd.valid() && errno == EEXIST) {
        return Error{ErrorCode::kInvalidArgument,
                     path + " exists; name another file, or replace it with --force"};
    }
    if (!fd.valid()) {
        return Error{ErrorCode::kInvalidArgument,
                     "cannot make " + path + ": " + std::strerror(errno)};
    }
    RecordWriter writer(std::move(fd), path, made);
    writer.pending_.resize(kHeaderBytes);
    writer.BeginAt(shdclient::BootTimeNs());
    return writer;
}

void RecordWriter::BeginAt(int64_t begin_ns) {
    if (entries_ > 0) return;
    arrival_ns_ = begin_ns;
    const int64_t epoch_ns = EpochTimeNs() - (shdclient::BootTimeNs() - begin_ns);
    uint8_t* header = pending_.data();
    std::memcpy(header, kMagic.data(), kMagic.size());
    std::memcpy(header + kVersionOffset, &kVersion, sizeof(kVersion));
    std::memcpy(header + kBeginOffset, &begin_ns, sizeof(begin_ns));
    std::memcpy(header + kEpochOffset, &epoch_ns, sizeof(epoch_ns));
}

void RecordWriter::Begin(uint8_t kind, int64_t arrival_ns) {
    pending_.push_back(kind);
    AppendDifference(pending_, arrival_ns, arrival_ns_);
    arrival_ns_ = arrival_ns;
}

void RecordWriter::Add(const Delivery& delivery) {
    ++entries_;
    const shdclient::WatchedEvent& event = delivery.event;
    if (delivery.kind == DeliveryKind::kMissed) {
        Begin(kMissed, event.arrival_ns);
        AppendDifference(pending_, event.arrival_ns, delivery.from_ns);
        return;
    }
    if (delivery.kind != DeliveryKind::kEvent) {
        Begin(delivery.kind == DeliveryKind::kLost ? kLost : kReconnected, event.arrival_ns);
        return;
    }
    const shdclient::SensorInfo& sensor = *event.decoded.sensor;
    const auto handle = static_cast<uint8_t>(sensor.handle);
    if (event.decoded.flush_complete) {
        Begin(kFlushComplete | handle, event.arrival_ns);
        return;
    }
    Begin(handle, event.arrival_ns);
    AppendDifference(pending_, event.arrival_ns, event.record.timestamp);
    pending_.insert(pending_.end(), event.record.data, event.record.data + sensor.data_bytes);
}

shdclient::Status RecordWriter::Flush() {
    if (entries_ == 0) return shdclient::Success();  // keeps what is to be replaced
    return Write();
}

shdclient::Status RecordWriter::Write() {
    if (written_ == 0 && ftruncate(fd_.get(), 0) != 0 && errno != EINVAL) {  // pipes cannot
        return Error{ErrorCode::kSystem, "cannot replace " + path_ + ": " + std::strerror(errno)};
    }
    for (size_t done = 0; done < pending_.size();) {
        const ssize_t count = write(fd_.get(), pending_.data() + done, pending_.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            return Error{ErrorCode::kSystem,
                         "cannot write to " + path_ + ": " + std::strerror(errno)};
        }
        done += static_cast<size_t>(count);
        written_ += static_cast<uint64_t>(count);
    }
    pending_.clear();
    return shdclient::Success();
}

shdclient::Status RecordWriter::Close(int64_t end_ns) {
    Begin(kEnd, end_ns);
    AppendNumber(pending_, entries_);
    shdclient::Status written = Write();
    if (!written) return written;
    if (fsync(fd_.get()) != 0 && errno != EINVAL && errno != EROFS) {  // pipes cannot
        return Error{ErrorCode::kSystem,
                     "cannot write " + path_ + " to the disk: " + std::strerror(errno)};
    }
    return shdclient::Success();
}

void RecordWriter::Discard() {
    if (made_ && entries_ == 0) (void)unlink(path_.c_str());
}

shdclient::Result<RecordReader> RecordReader::Open(const std::string& path) {
    const shdclient::Result<UniqueFd> readable = OpenToRead(path);
    if (!readable) return readable.error();
    std::ifstream file(path, std::ios::binary);
    std::array<char, kHeaderBytes> header{};
    file.read(header.data(), header.size());
    if (!std::string_view(header.data(), header.size()).starts_with(kMagic)) {
        return Error{ErrorCode::kInvalidArgument,
                     path + " is no recording of 'shdtool record': it begins differently"};
    }
    if (file.gcount() != static_cast<std::streamsize>(kHeaderBytes)) {
        return Error{ErrorCode::kInvalidArgument, path + " ends within its first 32 bytes"};
    }
    uint32_t version = 0;
    std::memcpy(&version, header.data() + kVersionOffset, sizeof(version));
    if (version != kVersion) {
        return Error{ErrorCode::kInvalidArgument,
                     path + " is a recording of version " + std::to_string(version) +
                         "; this shdtool reads version " + std::to_string(kVersion)};
    }
    RecordReader reader(std::move(file), path);
    std::memcpy(&reader.begin_ns_, header.data() + kBeginOffset, sizeof(reader.begin_ns_));
    reader.arrival_ns_ = reader.begin_ns_;
    reader.position_ = kHeaderBytes;
    return reader;
}

bool RecordReader::ReadByte(uint8_t& byte) {
    const auto next = file_.rdbuf()->sbumpc();
    if (next == std::ifstream::traits_type::eof()) return false;
    byte = static_cast<uint8_t>(next);
    ++position_;
    return true;
}

bool RecordReader::ReadNumber(uint64_t& number) {
    constexpr int kBits = 64;
    number = 0;
    for (int shift = 0; shift < kBits; shift += kNumberBits) {
        uint8_t byte = 0;
        if (!ReadByte(byte)) return false;
        number |= static_cast<uint64_t>(byte & (kMoreFollows - 1)) << shift;
        if ((byte & kMoreFollows) == 0) return true;
    }
    Damaged("holds a number of more than 64 bits");
    return false;
}

bool RecordReader::ReadSigned(int64_t& number) {
    uint64_t folded = 0;
    if (!ReadNumber(folded)) return false;
    number = static_cast<int64_t>(folded >> 1 ^ (~(folded & 1) + 1));
    return true;
}

void RecordReader::Damaged(const std::string& what) {
    if (damage_) return;
    damage_ = Error{ErrorCode::kInvalidArgument,
                    path_ + " " + what + " at byte " + std::to_string(position_) + "; the " +
                        std::to_string(entries_) + " entries before that are good"};
}

std::optional<Delivery> RecordReader::Next() {
    if (ended_) return std::nullopt;
    uint8_t kind = 0;
    if (!ReadByte(kind)) {
        Damaged("was not closed, its recording broke off: it ends");
        ended_ = true;
        return std::nullopt;
    }
    std::optional<Delivery> entry;
    if (kind == kEnd) {
        ReadEnd();
    } else {
        entry = ReadEntry(kind);
        if (!entry) Damaged("is cut off within an entry,");
    }
    ended_ = !entry;
    if (entry) ++entries_;
    return entry;
}

std::optional<Delivery> RecordReader::ReadEntry(uint8_t kind) {
    const shdclient::SensorInfo* sensor = shdclient::FindSensor(kind & kHandleMask);
    const bool change = kind == kLost || kind == kReconnected || kind == kMissed;
    if (!change && (kind > (kFlushComplete | kHandleMask) || sensor == nullptr)) {
        Damaged("holds an entry of unknown kind " + std::to_string(kind));
        return std::nullopt;
    }
    int64_t difference = 0;
    if (!ReadSigned(difference)) return std::nullopt;
    const int64_t arrival_ns = Add(arrival_ns_, difference);
    if (!IsTime(arrival_ns)) {
        Damaged("holds an impossible arrival time");
        return std::nullopt;
    }
    arrival_ns_ = arrival_ns;
    Delivery entry;
    entry.event.arrival_ns = arrival_ns;
    if (change) {
        int64_t length = 0;
        if (kind == kMissed && !ReadSigned(length)) return std::nullopt;
        entry.from_ns = Subtract(arrival_ns, length);
        entry.kind = kind == kLost     ? DeliveryKind::kLost
                     : kind == kMissed ? DeliveryKind::kMissed
                                       : DeliveryKind::kReconnected;
        return entry;
    }
    if ((kind & kFlushComplete) == 0) return ReadSample(*sensor, arrival_ns);
    const int32_t words[] = {1, sensor->handle};
    entry.event.record.version = kFlushCompleteVersion;
    std::memcpy(entry.event.record.data, words, sizeof(words));
    entry.event.decoded = shdclient::DecodeEvent(entry.event.record).value();
    return entry;
}

std::optional<Delivery> RecordReader::ReadSample(const shdclient::SensorInfo& sensor,
                                                 int64_t arrival_ns) {
    int64_t age = 0;
    if (!ReadSigned(age)) return std::nullopt;
    Delivery entry;
    entry.event.arrival_ns = arrival_ns;
    SensorEvent& record = entry.event.record;
    record.version = kSampleEventVersion;
    record.sensor = sensor.handle;
    record.type = sensor.type;
    record.timestamp = Subtract(arrival_ns, age);
    if (!IsTime(record.timestamp)) {
        Damaged("holds an impossible time stamp");
        return std::nullopt;
    }
    for (size_t i = 0; i < sensor.data_bytes; ++i) {
        if (!ReadByte(record.data[i])) return std::nullopt;
    }
    entry.event.decoded = shdclient::DecodeEvent(record).value();
    return entry;
}

void RecordReader::ReadEnd() {
    int64_t difference = 0;
    uint64_t count = 0;
    if (!ReadSigned(difference) || !ReadNumber(count)) {
        Damaged("is cut off within its end,");
        return;
    }
    if (difference < 0 || !IsTime(Add(arrival_ns_, difference))) {
        Damaged("ends at an impossible time");
        return;
    }
    arrival_ns_ = Add(arrival_ns_, difference);
    uint8_t more = 0;
    if (count != entries_) {
        Damaged("says that it has " + std::to_string(count) + " entries,");
    } else if (ReadByte(more)) {
        Damaged("goes on behind its end");
    }
}

}  // namespace shdtool
