// The tap's way in and out, and its loop. Run by shdtool tap.
#include "tools/tap/line_tap.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <span>
#include <tuple>
#include <utility>

#include "protocol/system.h"

namespace tap {
namespace {

// A change of the settings is no event of a pseudo terminal: it is looked for this often, and
// before each byte that is passed on.
constexpr int kLookEveryMs = 10;

constexpr const char* kEpitaph =
    "shdtool: the tap was killed; the line and the control files are back in their places, and the "
    "daemon's open line has hung up\n";

shdclient::Error SystemError(const std::string& path) {
    return {shdclient::ErrorCode::kSystem, path + ": " + std::strerror(errno)};
}

std::chrono::nanoseconds BootTime() {
    timespec now{};
    (void)clock_gettime(CLOCK_BOOTTIME, &now);  // cannot fail
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// The number of a daemon's process that has this device open, if one has.
std::optional<std::string> DaemonOf(const std::string& device) {
    namespace fs = std::filesystem;
    std::error_code error;
    for (const auto& process : fs::directory_iterator("/proc", error)) {
        std::string name;
        if (!std::getline(std::ifstream(process.path() / "comm"), name) || name != "shd") continue;
        for (const auto& fd : fs::directory_iterator(process.path() / "fd", error)) {
            if (fs::read_symlink(fd, error) == device) return process.path().filename();
        }
    }
    return std::nullopt;
}

bool AreSame(const termios& a, const termios& b) {
    return std::tie(a.c_iflag, a.c_oflag, a.c_cflag, a.c_lflag) ==
               std::tie(b.c_iflag, b.c_oflag, b.c_cflag, b.c_lflag) &&
           cfgetispeed(&a) == cfgetispeed(&b) && cfgetospeed(&a) == cfgetospeed(&b);
}

// Bytes that could be written are gone from the buffer.
void WriteFrom(std::vector<uint8_t>& buffer, int fd) {
    if (buffer.empty()) return;
    const ssize_t count = write(fd, buffer.data(), buffer.size());
    if (count > 0) buffer.erase(buffer.begin(), buffer.begin() + count);
}

// A pseudo terminal keeps neither parity nor size in its settings. The daemon asks for parity when
// and only when it has the eighth bit stripped; the check of parity it leaves on afterwards.
wire::LineSettings Meaning(const termios& settings) {
    constexpr std::pair<speed_t, uint32_t> kSpeeds[] = {
        {B9600, 9600},     {B19200, 19200},   {B38400, 38400},   {B57600, 57600},
        {B115200, 115200}, {B230400, 230400}, {B460800, 460800}, {B921600, 921600}};
    wire::LineSettings meaning{.baud = 0, .even_parity = (settings.c_iflag & ISTRIP) != 0};
    for (const auto& [code, baud] : kSpeeds) {
        if (cfgetospeed(&settings) == code) meaning.baud = baud;
    }
    return meaning;
}

}  // namespace

shdclient::Status LineTap::OpenLine(const std::string& path) {
    real_.Reset(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!real_.valid()) return SystemError(path);
    near_.Reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 128> name{};
    if (!near_.valid() || grantpt(near_.get()) != 0 || unlockpt(near_.get()) != 0 ||
        ptsname_r(near_.get(), name.data(), name.size()) != 0) {
        return SystemError("no pseudo terminal");
    }
    far_.Reset(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    // Whoever may open the line may open what stands for it.
    struct stat rights {};
    if (fstat(real_.get(), &rights) != 0 || fchown(far_.get(), rights.st_uid, rights.st_gid) != 0 ||
        fchmod(far_.get(), rights.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) != 0) {
        return SystemError(path + ": its owner and mode cannot be given to a pseudo terminal");
    }
    termios settings{};
    const int on = 1;  // packet mode: each read begins with a byte that reports flushes
    if (!far_.valid() || tcgetattr(real_.get(), &settings) != 0 ||
        tcsetattr(far_.get(), TCSANOW, &settings) != 0 || ioctl(near_.get(), TIOCPKT, &on) != 0) {
        return SystemError(path + ": no line");
    }
    return shdclient::Success();
}

shdclient::Status LineTap::OpenPin(wire::Pin pin, const std::string& path, bool bind) {
    PinFile file{.pin = pin, .real = {}, .pipe = {}};
    // A pipe without a reader could not be opened otherwise.
    file.real.Reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.real.valid()) return SystemError(path);
    const std::string pipe = directory_ + "/" + std::string(NameOf(pin));
    constexpr mode_t kAnyWriter = 0622;
    if (mkfifo(pipe.c_str(), kAnyWriter) != 0 || chmod(pipe.c_str(), kAnyWriter) != 0) {
        return SystemError(pipe);
    }
    file.pipe.Reset(open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!file.pipe.valid()) return SystemError(pipe);
    auto displaced = DisplacedFile::Take(path, pipe, bind);
    if (!displaced) return displaced.error();
    displaced_.push_back(std::move(*displaced));
    pins_.push_back(std::move(file));
    return shdclient::Success();
}

shdclient::Result<std::unique_ptr<LineTap>> LineTap::Open(const std::string& root) {
    const bool bind = root.empty();
    const std::string path = root + shd::kUartPath;
    std::unique_ptr<LineTap> tap(new LineTap);
    if (const auto opened = tap->OpenLine(path); !opened) return opened.error();
    std::error_code error;
    if (const auto daemon = DaemonOf(std::filesystem::canonical(path, error))) {
        return shdclient::Error{shdclient::ErrorCode::kUnavailable,
                                path + ": shd (process " + *daemon +
                                    ") has it open; stop it, start the tap, and start it again"};
    }
    const char* scratch = std::getenv("TMPDIR");
    std::string directory = std::string(scratch != nullptr ? scratch
                                        : bind             ? "/data/local/tmp"
                                                           : "/tmp") +
                            "/shdtap.XXXXXX";
    constexpr mode_t kAnyVisitor = 0711;
    if (mkdtemp(directory.data()) == nullptr) return SystemError(directory);
    tap->directory_ = directory;
    if (chmod(directory.c_str(), kAnyVisitor) != 0) return SystemError(directory);

    std::array<char, 128> name{};
    (void)ptsname_r(tap->near_.get(), name.data(), name.size());
    auto displaced = DisplacedFile::Take(path, name.data(), bind);
    if (!displaced) return displaced.error();
    tap->displaced_.push_back(std::move(*displaced));
    for (const auto& [pin, file] : {std::pair(wire::Pin::kBoot0, shd::kMcuBoot0Path),
                                    std::pair(wire::Pin::kReset, shd::kMcuResetPath)}) {
        if (const auto opened = tap->OpenPin(pin, root + file, bind); !opened) {
            return opened.error();
        }
    }
    tap->guardian_ = std::make_unique<Guardian>([&tap] { tap->PutBack(); }, kEpitaph);
    return tap;
}

LineTap::~LineTap() {
    guardian_.reset();
    PutBack();
}

void LineTap::PutBack() {
    displaced_.clear();
    std::error_code error;
    if (!directory_.empty()) (void)std::filesystem::remove_all(directory_, error);
}

void LineTap::Tell(wire::RecordedStep step) {
    step.at = BootTime();
    (*listener_)(step);
}

void LineTap::TellBytes(wire::StepKind kind, const uint8_t* bytes, size_t count) {
    Tell({.kind = kind, .bytes = {bytes, bytes + count}});
}

void LineTap::PassOnSettings() {
    termios wanted{};
    if (tcgetattr(near_.get(), &wanted) != 0) return;
    if (settings_ && AreSame(*settings_, wanted)) return;
    const wire::LineSettings meaning = Meaning(wanted);
    const bool told = settings_ && Meaning(*settings_) == meaning;
    settings_ = wanted;

    termios real{};
    if (tcgetattr(real_.get(), &real) != 0) return;
    // The pseudo terminal strips the eighth bit; what is recorded is what came.
    real.c_iflag = wanted.c_iflag & ~static_cast<tcflag_t>(ISTRIP);
    real.c_oflag = wanted.c_oflag;
    real.c_lflag = wanted.c_lflag;
    real.c_cflag = (wanted.c_cflag & ~static_cast<tcflag_t>(PARENB | PARODD)) |
                   (meaning.even_parity ? static_cast<tcflag_t>(PARENB) : 0);
    (void)tcsetattr(real_.get(), TCSANOW, &real);
    if (!told) Tell({.kind = wire::StepKind::kSettings, .settings = meaning});
}

bool LineTap::FromHost() {
    std::array<uint8_t, 4096> packet;
    while (to_mcu_.size() < kRoomBytes) {
        const ssize_t count = read(near_.get(), packet.data(), packet.size());
        if (count <= 0) return count < 0 && errno == EAGAIN;
        if (packet[0] != TIOCPKT_DATA) {
            if ((packet[0] & TIOCPKT_FLUSHREAD) != 0) {
                to_host_.clear();
                (void)tcflush(real_.get(), TCIFLUSH);
            }
            PassOnSettings();
            continue;
        }
        if (count == 1) continue;
        PassOnSettings();
        const size_t size = static_cast<size_t>(count) - 1;
        to_mcu_.insert(to_mcu_.end(), &packet[1], &packet[1] + size);
        WriteFrom(to_mcu_, real_.get());
        TellBytes(wire::StepKind::kHostBytes, &packet[1], size);
    }
    return true;
}

bool LineTap::FromMcu() {
    std::array<uint8_t, 1024> bytes;
    if (to_host_.size() >= kRoomBytes) return true;
    const ssize_t count = read(real_.get(), bytes.data(), bytes.size());
    if (count <= 0) return count < 0 && errno == EAGAIN;
    to_host_.insert(to_host_.end(), bytes.data(), bytes.data() + count);
    WriteFrom(to_host_, near_.get());
    TellBytes(wire::StepKind::kMcuBytes, bytes.data(), static_cast<size_t>(count));
    return true;
}

void LineTap::FromPin(PinFile& pin) {
    std::array<char, 64> levels;
    const ssize_t count = read(pin.pipe.get(), levels.data(), levels.size());
    // The daemon writes a level at a time; two that came together are still two.
    for (const char level : std::span(levels).first(count > 0 ? static_cast<size_t>(count) : 0)) {
        (void)!write(pin.real.get(), &level, 1);
        Tell({.kind = wire::StepKind::kPin, .pin = pin.pin, .high = level != '0'});
    }
}

shdclient::Status LineTap::Run(const Listener& listener, const std::function<bool()>& stop) {
    listener_ = &listener;
    PassOnSettings();
    while (!stop()) {
        const auto want = [](bool room, const std::vector<uint8_t>& pending) {
            return static_cast<short>((room ? POLLIN : 0) | (pending.empty() ? 0 : POLLOUT));
        };
        std::vector<pollfd> watched{{near_.get(), want(to_mcu_.size() < kRoomBytes, to_host_), 0},
                                    {real_.get(), want(to_host_.size() < kRoomBytes, to_mcu_), 0}};
        for (const PinFile& pin : pins_) watched.push_back({pin.pipe.get(), POLLIN, 0});
        if (poll(watched.data(), watched.size(), kLookEveryMs) < 0 && errno != EINTR) {
            return SystemError("the tap cannot wait");
        }
        PassOnSettings();
        WriteFrom(to_mcu_, real_.get());
        WriteFrom(to_host_, near_.get());
        for (size_t i = 0; i < pins_.size(); ++i) {
            if (watched[i + 2].revents != 0) FromPin(pins_[i]);
        }
        if (!FromHost() || !FromMcu()) {
            return shdclient::Error{shdclient::ErrorCode::kDisconnected,
                                    "the line has hung up; the tap ends with it"};
        }
    }
    return shdclient::Success();
}

}  // namespace tap
