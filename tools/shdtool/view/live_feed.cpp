// The loop over a running hub, and what is looked at now and then. Called by the view command.
#include "tools/shdtool/view/live_feed.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <variant>

#include "tools/client/local_socket.h"
#include "tools/shdtool/base/json.h"
#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/files/dump_analysis.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/sockets/socket_table.h"
#include "tools/shdtool/view/item_json.h"
#include "tools/wire/recording.h"

namespace shdtool {
namespace {

using shdclient::Status;
using std::chrono::milliseconds;

// What happens within one tick goes to the browsers together.
constexpr milliseconds kTick{50};

// What a file holds that was there before is handed over in pieces of this size.
constexpr size_t kBatchBytes = size_t{64} << 10;

// A frame of the last moments may still be on its way into the file.
constexpr int64_t kLineLatencyNs = 500'000'000;

constexpr int kTicksPerState = 2;
constexpr int kTicksPerLoad = 10;
constexpr int kTicksPerLook = 20;  // at the clients, the dumps, and for a daemon

// One line of what a dump tells.
std::string DumpWords(const DumpSlot& slot) {
    const auto content = ReadWholeFile(slot.raw_path);
    if (!content) return content.error().message;
    const DumpAnalysis dump = AnalyseDump(BytesOf(*content));
    if (!dump.head) return fmt::format("{} bytes in a layout of its own", content->size());
    std::string text = fmt::format("{} at pc 0x{:08x}, lr 0x{:08x}, sp 0x{:08x}",
                                   ExceptionName(dump.head->exception), dump.head->pc,
                                   dump.head->lr, dump.head->sp);
    for (const FaultRegister& fault : FaultRegisters(*dump.head)) {
        for (const auto& bit : fault.bits) text += fmt::format("; {}: {}", bit.name, bit.meaning);
    }
    if (dump.missing_bytes > 0) text += fmt::format("; {} bytes are missing", dump.missing_bytes);
    return text;
}

}  // namespace

LiveFeed::LiveFeed(const std::string& root, const Files& files, LiveHistory& history)
    : root_(root),
      history_(history),
      source_(root, {}),
      events_([this](const timeline::Item& item) { Take(item); }),
      meter_([this](timeline::Time at, const std::string& json) {
          if (at >= oldest_ns_) batch_.Add(json);
      }),
      dumps_(ReadDumpSlots(root)) {
    const timeline::Sink take = [this](const timeline::Item& item) { Take(item); };
    if (!files.line.empty()) line_.emplace(files.line, take);
    if (!files.log.empty()) log_.emplace(files.log, take);
}

void LiveFeed::TakeAsked(const AskedSampling& asked) {
    const MutexLock lock(mutex_);
    asked_.push_back(asked);
}

Status LiveFeed::Run() {
    int64_t now_ns = shdclient::BootTimeNs();
    batch_.from_us = now_ns / kNsPerUs;
    for (int tick = 0; !StopRequested(); ++tick) {
        const auto due = std::chrono::steady_clock::now() + kTick;
        oldest_ns_ = now_ns - history_.limits().span_us * kNsPerUs;
        if (!started_ && tick % kTicksPerLook == 0) Connect(now_ns);
        if (started_) {
            Status taken = TakeEvents();
            if (!taken) return taken;
        }
        if (line_) line_->Poll();
        if (log_) log_->Poll();
        now_ns = shdclient::BootTimeNs();
        TellAsked(now_ns);
        if (tick % kTicksPerState == 0) TellPresumedState(now_ns);
        if (tick % kTicksPerLoad == 0) TellLoad(now_ns);
        if (tick % kTicksPerLook == 0) {
            TellClients(now_ns);
            TellDumps(now_ns / kNsPerUs);
        }
        HandOver(now_ns);
        const auto left = std::chrono::ceil<milliseconds>(due - std::chrono::steady_clock::now());
        if (left.count() > 0) (void)poll(nullptr, 0, static_cast<int>(left.count()));
    }
    return shdclient::Success();
}

void LiveFeed::HandOver(int64_t now_ns) {
    batch_.to_us = now_ns / kNsPerUs;
    history_.Push(std::exchange(batch_, {.from_us = now_ns / kNsPerUs}));
}

void LiveFeed::Connect(int64_t now_ns) {
    started_ = source_.Start().ok();
    if (!started_ && !told_presumed_.empty()) return;  // that was told
    Delivery change{started_ ? DeliveryKind::kReconnected : DeliveryKind::kLost};
    change.event.arrival_ns = now_ns;
    presumed_.Take(change);
    events_.Push(change);
}

Status LiveFeed::TakeEvents() {
    const auto taken = source_.Take(milliseconds(0), deliveries_);
    if (!taken) return taken.error();
    for (const Delivery& delivery : deliveries_) {
        presumed_.Take(delivery);
        events_.Push(delivery);
    }
    return shdclient::Success();
}

void LiveFeed::Take(const timeline::Item& item) {
    if (const auto* state = std::get_if<timeline::McuState>(&item)) return TakeState(*state);
    if (const auto* frame = std::get_if<timeline::Frame>(&item)) meter_.Add(*frame);
    if (PassedAt(item).value_or(oldest_ns_) < oldest_ns_) return;
    const std::string json = ItemJson(item);
    const std::string key = StandingKey(item);
    if (batch_.items.size() > kBatchBytes) HandOver(shdclient::BootTimeNs());
    if (key.empty()) {
        batch_.Add(json);
        return;
    }
    const auto* episode = std::get_if<timeline::EpisodeSpan>(&item);
    batch_.Add(json, key, episode != nullptr && episode->end);
}

void LiveFeed::TakeState(const timeline::McuState& told) {
    const bool first = !state_known_ && told.source != timeline::Source::kEvents;
    state_known_ = state_known_ || first;
    auto state = state_.Push(told);
    if (first && !state) state = told;
    if (state_known_ && state) batch_.Add(ItemJson(*state), "state");
}

void LiveFeed::TellAsked(int64_t now_ns) {
    std::vector<AskedSampling> asked;
    {
        const MutexLock lock(mutex_);
        asked.swap(asked_);
    }
    for (const AskedSampling& one : asked) {
        if (one.period_us == 0) presumed_.Forget(one.handle);
        Take(timeline::Asked{now_ns, one.handle, one.period_us, one.batch});
    }
}

void LiveFeed::TellPresumedState(int64_t now_ns) {
    const PresumedState state = presumed_.At(now_ns);
    if (state_known_ || state.name == told_presumed_) return;
    told_presumed_ = state.name;
    batch_.Add(StateJson(state.since_ns / kNsPerUs, state.name, state.reason), "state");
}

void LiveFeed::TellLoad(int64_t now_ns) {
    if (line_ && line_->there()) {
        meter_.Tick(now_ns - kLineLatencyNs);
        return;
    }
    batch_.Add(fmt::format(R"({{"k":"load","t":{},"to":null,"from":{:.1f},"measured":false}})",
                           now_ns / kNsPerUs, presumed_.LineBytesPerSec(now_ns)));
}

void LiveFeed::TellClients(int64_t now_ns) {
    const auto uses = ReadSocketUse({shdclient::SocketPath(root_, shdclient::kControlSocket),
                                     shdclient::SocketPath(root_, shdclient::kDataSocket)});
    if (!uses) return;  // a kernel without socket diagnostics tells of no client
    timeline::Clients clients{now_ns, {}};
    for (const SocketUse& use : *uses) {
        const bool control = &use == uses->data();
        for (const SocketClient& client : use.clients) {
            clients.list.push_back({client.pid, client.name, control, client.unread,
                                    static_cast<int32_t>(client.fill_percent()), client.losing()});
        }
    }
    Take(clients);
}

void LiveFeed::TellDumps(int64_t now_us) {
    const auto dumps = ReadDumpSlots(root_);
    const int64_t wall_us = wire::ReadClocks().wall.count() / kNsPerUs;
    for (size_t i = 0; i < dumps.size(); ++i) {
        const auto& raw = dumps[i].raw;
        const auto& before = dumps_[i].raw;
        if (!raw || (before && raw->modified == before->modified && raw->size == before->size)) {
            continue;
        }
        // Files tell whole seconds: of one that was there before, that has to do.
        const int64_t written_us = now_us - wall_us + raw->modified * 1'000'000;
        batch_.Add(
            Json{{"k", "dump"},
                 {"t", looked_for_dumps_ ? now_us : std::clamp<int64_t>(written_us, 0, now_us)},
                 {"n", i},
                 {"m", DumpWords(dumps[i])}}
                .Text());
    }
    dumps_ = dumps;
    looked_for_dumps_ = true;
}

}  // namespace shdtool
