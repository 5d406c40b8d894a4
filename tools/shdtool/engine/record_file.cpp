// Writes and reads recordings. Called by record, replay and audit.
#include "tools/shdtool/engine/record_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tools/shdtool/base/hub_clocks.h"
#include "tools/shdtool/files/file_io.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;

struct Header {
    char magic[8] = {'S', 'H', 'D', 'R', 'E', 'C', '\x1a', '\n'};
    uint32_t version = 2;
    uint32_t reserved = 0;
    int64_t begin_ns = 0;
    int64_t epoch_ns = 0;
};
static_assert(sizeof(Header) == 32 && offsetof(Header, begin_ns) == 16);

// What an entry is: a handle, with or without the flag, or a DeliveryKind behind the base.
constexpr uint8_t kHandleMask = 0x3F;
constexpr uint8_t kFlushComplete = 0x40;
constexpr uint8_t kChangeBase = 0x7F;
constexpr uint8_t kClocks = 0x83;
constexpr uint8_t kEnd = 0xFF;
static_assert(kChangeBase + static_cast<int>(DeliveryKind::kLost) == 0x80);
static_assert(kChangeBase + static_cast<int>(DeliveryKind::kMissed) == 0x82);

constexpr uint32_t kOldestVersion = 1;
constexpr int64_t kClocksEveryNs = 60'000'000'000;

// Far beyond any uptime, and small enough for sums of differences.
constexpr int64_t kMaxTimeNs = int64_t{1} << 57;
constexpr int64_t kMaxWallNs = (int64_t{1} << 62) - 1;  // some time in the year 2116

constexpr int kNumberBits = 7;
constexpr uint8_t kMoreFollows = 0x80;

uint8_t CodeOf(const Delivery& delivery) {
    if (delivery.kind != DeliveryKind::kEvent) {
        return static_cast<uint8_t>(kChangeBase + static_cast<uint8_t>(delivery.kind));
    }
    const shdclient::DecodedEvent& event = delivery.event.decoded;
    return static_cast<uint8_t>(event.sensor->handle | (event.flush_complete ? kFlushComplete : 0));
}

void AppendNumber(std::vector<uint8_t>& out, uint64_t number) {
    for (; number >= kMoreFollows; number >>= kNumberBits) {
        out.push_back(static_cast<uint8_t>(number | kMoreFollows));
    }
    out.push_back(static_cast<uint8_t>(number));
}

void AppendSigned(std::vector<uint8_t>& out, int64_t number) {
    AppendNumber(out, static_cast<uint64_t>(number) << 1 ^ (number < 0 ? ~uint64_t{0} : 0));
}

// How far the wall clock, counted since the epoch, is ahead of the boot clock.
int64_t WallAheadNs() {
    const wire::Clocks now = HubClocks();
    return (now.wall - now.boot).count();
}

Error Unusable(const std::string& message) {
    return {ErrorCode::kInvalidArgument, message};
}

Error WriteFailure(const std::string& what) {
    return {ErrorCode::kSystem, fmt::format("cannot {}: {}", what, std::strerror(errno))};
}

bool IsWithin(int64_t ns, int64_t limit_ns) {
    return ns >= -limit_ns && ns <= limit_ns;
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
        return Unusable(path + " exists; name another file, or replace it with --force");
    }
    if (!fd.valid()) return Unusable("cannot make " + path + ": " + std::strerror(errno));
    RecordWriter writer(std::move(fd), path, made);
    writer.pending_.resize(sizeof(Header));
    writer.BeginAt(shdclient::BootTimeNs());
    return writer;
}

void RecordWriter::BeginAt(int64_t begin_ns) {
    if (entries_ > 0) return;
    arrival_ns_ = begin_ns;
    ahead_ns_ = WallAheadNs();
    clocks_due_ns_ = begin_ns + kClocksEveryNs;
    Header header;
    header.begin_ns = begin_ns;
    header.epoch_ns = begin_ns + ahead_ns_;
    std::memcpy(pending_.data(), &header, sizeof(header));
}

void RecordWriter::Begin(uint8_t code, int64_t arrival_ns) {
    pending_.push_back(code);
    AppendSigned(pending_, arrival_ns - arrival_ns_);
    arrival_ns_ = arrival_ns;
}

void RecordWriter::AddClocks(int64_t at_ns) {
    Begin(kClocks, at_ns);
    AppendSigned(pending_, WallAheadNs() - ahead_ns_);
    clocks_due_ns_ = at_ns + kClocksEveryNs;
}

void RecordWriter::Add(const Delivery& delivery) {
    const shdclient::WatchedEvent& event = delivery.event;
    if (event.arrival_ns >= clocks_due_ns_) AddClocks(event.arrival_ns);
    ++entries_;
    Begin(CodeOf(delivery), event.arrival_ns);
    if (delivery.kind == DeliveryKind::kMissed) {
        AppendSigned(pending_, event.arrival_ns - delivery.from_ns);
    } else if (delivery.kind == DeliveryKind::kEvent && !event.decoded.flush_complete) {
        const uint8_t* data = event.record.data;
        AppendSigned(pending_, event.arrival_ns - event.record.timestamp);
        pending_.insert(pending_.end(), data, data + event.decoded.sensor->data_bytes);
    }
}

shdclient::Status RecordWriter::Flush() {
    if (entries_ == 0) return shdclient::Success();  // keeps what is to be replaced
    return Write();
}

shdclient::Status RecordWriter::Write() {
    if (written_ == 0 && ftruncate(fd_.get(), 0) != 0) return WriteFailure("replace " + path_);
    for (size_t done = 0; done < pending_.size();) {
        const ssize_t count = write(fd_.get(), pending_.data() + done, pending_.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return WriteFailure("write to " + path_);
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
    const bool stored = fsync(fd_.get()) == 0 || errno == EINVAL;  // not every file system can
    return stored ? shdclient::Success() : WriteFailure("write " + path_ + " to the disk");
}

void RecordWriter::Discard() {
    if (made_ && entries_ == 0) (void)unlink(path_.c_str());
}

shdclient::Result<RecordReader> RecordReader::Open(const std::string& path) {
    const shdclient::Result<UniqueFd> readable = OpenToRead(path);
    if (!readable) return readable.error();
    std::ifstream file(path, std::ios::binary);
    const Header expected;
    Header header{.magic = {}};
    file.read(reinterpret_cast<char*>(&header), sizeof(header));
    if (std::memcmp(header.magic, expected.magic, sizeof(header.magic)) != 0) {
        return Unusable(path + " is no recording of 'shdtool record': it begins differently");
    }
    if (!file) return Unusable(path + " ends within its first 32 bytes");
    if (header.version < kOldestVersion || header.version > expected.version) {
        return Unusable(
            fmt::format("{} is a recording of version {}; this shdtool reads versions {} to {}",
                        path, header.version, kOldestVersion, expected.version));
    }
    if (!IsWithin(header.begin_ns, kMaxTimeNs) || !IsWithin(header.epoch_ns, kMaxWallNs)) {
        return Unusable(path + " begins at an impossible time");
    }
    const wire::Clocks begin{std::chrono::nanoseconds(header.epoch_ns),
                             std::chrono::nanoseconds(header.begin_ns)};
    return RecordReader(std::move(file), path, begin, sizeof(header));
}

void RecordReader::Damaged(const std::string& what) {
    if (damage_) return;
    damage_ = Unusable(fmt::format("{} {} at byte {}; the {} entries before that are good", path_,
                                   what, position_, entries_));
}

uint8_t RecordReader::Byte() {
    constexpr auto kNothing = std::ifstream::traits_type::eof();
    const auto next = damage_ ? kNothing : file_.rdbuf()->sbumpc();
    if (next == kNothing) {
        Damaged(cut_);
        return 0;
    }
    ++position_;
    return static_cast<uint8_t>(next);
}

uint64_t RecordReader::Number() {
    constexpr int kBits = 64;
    uint64_t number = 0;
    for (int shift = 0; shift < kBits; shift += kNumberBits) {
        const uint8_t byte = Byte();
        number |= static_cast<uint64_t>(byte & (kMoreFollows - 1)) << shift;
        if ((byte & kMoreFollows) == 0) return number;
    }
    Damaged("holds a number of more than 64 bits");
    return 0;
}

int64_t RecordReader::Signed() {
    const uint64_t folded = Number();
    const auto number = static_cast<int64_t>(folded >> 1 ^ (~(folded & 1) + 1));
    return std::max(number, -INT64_MAX);  // so that it has a negative
}

int64_t RecordReader::TimeBefore(int64_t ns, int64_t distance_ns, const char* damage) {
    int64_t time_ns = 0;
    const bool overflow = __builtin_sub_overflow(ns, distance_ns, &time_ns);
    if (overflow || !IsWithin(time_ns, kMaxTimeNs)) Damaged(damage);
    return time_ns;
}

int64_t RecordReader::ArrivalTime(const char* damage) {
    return TimeBefore(arrival_ns_, -Signed(), damage);
}

std::optional<Delivery> RecordReader::Next() {
    if (ended_) return std::nullopt;
    cut_ = "was not closed, its recording broke off: it ends";
    uint8_t code = Byte();
    while (code == kClocks && !damage_) {
        ReadClocks();
        code = Byte();
    }
    std::optional<Delivery> entry;
    if (code == kEnd) {
        ReadEnd();
    } else if (!damage_) {
        entry = ReadEntry(code);
    }
    if (damage_) entry.reset();
    if (entry) arrival_ns_ = entry->event.arrival_ns;
    if (entry) ++entries_;
    ended_ = !entry;
    return entry;
}

// When that fails, there is damage.
Delivery RecordReader::ReadEntry(uint8_t code) {
    cut_ = "is cut off within an entry,";
    Delivery entry;
    shdclient::WatchedEvent& event = entry.event;
    const shdclient::SensorInfo* sensor = shdclient::FindSensor(code & kHandleMask);
    const bool change = code > kChangeBase && code <= CodeOf({DeliveryKind::kMissed});
    if (!change && (code > (kFlushComplete | kHandleMask) || sensor == nullptr)) {
        Damaged(fmt::format("holds an entry of unknown kind {}", code));
        return entry;
    }
    event.arrival_ns = ArrivalTime("holds an impossible arrival time");
    if (change) {
        entry.kind = static_cast<DeliveryKind>(code - kChangeBase);
        const int64_t length_ns = entry.kind == DeliveryKind::kMissed ? Signed() : 0;
        entry.from_ns = TimeBefore(event.arrival_ns, length_ns, "holds an impossible time");
        return entry;
    }
    SensorEvent& record = event.record;
    if ((code & kFlushComplete) != 0) {
        const int32_t words[] = {1, sensor->handle};
        record.version = kFlushCompleteVersion;
        std::memcpy(record.data, words, sizeof(words));
    } else {
        record.version = kSampleEventVersion;
        record.sensor = sensor->handle;
        record.type = sensor->type;
        record.timestamp = TimeBefore(event.arrival_ns, Signed(), "holds an impossible time stamp");
        for (size_t i = 0; i < sensor->data_bytes; ++i) record.data[i] = Byte();
    }
    event.decoded = shdclient::DecodeEvent(record).value();
    return entry;
}

void RecordReader::ReadClocks() {
    cut_ = "is cut off within its clocks,";
    arrival_ns_ = ArrivalTime("holds an impossible time");
    if (damage_) return;
    const wire::Clocks& begin = clocks_.front();
    const std::chrono::nanoseconds boot(arrival_ns_);
    const int64_t expected_ns = (begin.wall + boot - begin.boot).count();
    int64_t wall_ns = 0;
    const bool overflow = __builtin_add_overflow(expected_ns, Signed(), &wall_ns);
    if (overflow || !IsWithin(wall_ns, kMaxWallNs)) Damaged("holds an impossible wall clock");
    if (!damage_) clocks_.push_back({std::chrono::nanoseconds(wall_ns), boot});
    cut_ = "was not closed, its recording broke off: it ends";
}

void RecordReader::ReadEnd() {
    cut_ = "is cut off within its end,";
    const int64_t end_ns = ArrivalTime("ends at an impossible time");
    if (end_ns < arrival_ns_) Damaged("ends at an impossible time");
    const uint64_t count = Number();
    if (count != entries_) Damaged(fmt::format("says that it has {} entries,", count));
    if (!damage_) arrival_ns_ = end_ns;
    if (file_.peek() != std::ifstream::traits_type::eof()) Damaged("goes on behind its end");
}

}  // namespace shdtool
