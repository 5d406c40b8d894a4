// The loop over a running hub, and what is looked at now and then. Called by the view command.
#include "tools/shdtool/view/live_feed.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "tools/client/local_socket.h"
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

LiveFeed::LiveFeed(const std::string& root, LiveHistory& history)
    : root_(root), history_(history), source_(root, {}), dumps_(ReadDumpSlots(root)) {}

void LiveFeed::TakeAsked(const AskedSampling& asked) {
    const MutexLock lock(mutex_);
    asked_.push_back(asked);
}

Status LiveFeed::Run() {
    int64_t told_us = shdclient::BootTimeNs() / kNsPerUs;
    for (int tick = 0; !StopRequested(); ++tick) {
        const auto due = std::chrono::steady_clock::now() + kTick;
        FeedBatch batch{.from_us = told_us};
        if (!started_ && tick % kTicksPerLook == 0) Connect(shdclient::BootTimeNs());
        if (started_) {
            const Status taken = TakeEvents(batch);
            if (!taken) return taken;
        }
        const int64_t now_ns = shdclient::BootTimeNs();
        const int64_t now_us = told_us = now_ns / kNsPerUs;
        TellAsked(batch, now_us);
        if (tick % kTicksPerState == 0) TellState(batch, now_ns);
        if (tick % kTicksPerLoad == 0) TellLoad(batch, now_ns);
        if (tick % kTicksPerLook == 0) {
            TellClients(batch, now_us);
            TellDumps(batch, now_us);
        }
        batch.to_us = now_us;
        history_.Push(std::move(batch));
        const auto left = std::chrono::ceil<milliseconds>(due - std::chrono::steady_clock::now());
        if (left.count() > 0) (void)poll(nullptr, 0, static_cast<int>(left.count()));
    }
    return shdclient::Success();
}

void LiveFeed::Connect(int64_t now_ns) {
    started_ = source_.Start().ok();
    if (!started_ && !told_state_.empty()) return;
    state_.SetConnected(started_, now_ns);
    Delivery change{started_ ? DeliveryKind::kReconnected : DeliveryKind::kLost};
    change.event.arrival_ns = now_ns;
    FeedBatch batch{.from_us = now_ns / kNsPerUs, .to_us = now_ns / kNsPerUs};
    batch.Add(DeliveryJson(change), "connection");
    history_.Push(std::move(batch));
}

Status LiveFeed::TakeEvents(FeedBatch& batch) {
    const auto taken = source_.Take(milliseconds(0), deliveries_);
    if (!taken) return taken.error();
    for (const Delivery& delivery : deliveries_) {
        state_.Take(delivery);
        const bool change =
            delivery.kind == DeliveryKind::kLost || delivery.kind == DeliveryKind::kReconnected;
        if (change) {
            batch.Add(DeliveryJson(delivery), "connection");
        } else {
            batch.Add(DeliveryJson(delivery));
        }
    }
    return shdclient::Success();
}

void LiveFeed::TellAsked(FeedBatch& batch, int64_t now_us) {
    std::vector<AskedSampling> asked;
    {
        const MutexLock lock(mutex_);
        asked.swap(asked_);
    }
    for (const AskedSampling& one : asked) {
        if (one.period_us == 0) state_.Forget(one.handle);
        batch.Add(fmt::format(R"({{"k":"asked","t":{},"h":{},"period_us":{},"batch":{}}})", now_us,
                              one.handle, one.period_us, one.batch),
                  fmt::format("asked {}", one.handle));
    }
}

void LiveFeed::TellState(FeedBatch& batch, int64_t now_ns) {
    const PresumedState state = state_.At(now_ns);
    if (state.name == told_state_) return;
    told_state_ = state.name;
    batch.Add(StateJson(state.since_ns / kNsPerUs, state.name, state.reason), "state");
}

void LiveFeed::TellLoad(FeedBatch& batch, int64_t now_ns) {
    batch.Add(fmt::format(R"({{"k":"load","t":{},"to":null,"from":{:.1f},"measured":false}})",
                          now_ns / kNsPerUs, state_.LineBytesPerSec(now_ns)));
}

void LiveFeed::TellClients(FeedBatch& batch, int64_t now_us) {
    const auto uses = ReadSocketUse({shdclient::SocketPath(root_, shdclient::kControlSocket),
                                     shdclient::SocketPath(root_, shdclient::kDataSocket)});
    // A kernel without socket diagnostics tells of no client.
    if (uses) batch.Add(ClientsJson(now_us, (*uses)[0], (*uses)[1]), "clients");
}

void LiveFeed::TellDumps(FeedBatch& batch, int64_t now_us) {
    const auto dumps = ReadDumpSlots(root_);
    const int64_t wall_us = wire::ReadClocks().wall.count() / kNsPerUs;
    for (size_t i = 0; i < dumps.size(); ++i) {
        const auto& raw = dumps[i].raw;
        const auto& before = dumps_[i].raw;
        if (!raw || (before && raw->modified == before->modified && raw->size == before->size)) {
            continue;
        }
        const int64_t written_us = now_us - wall_us + raw->modified * 1'000'000;
        batch.Add(Json{{"k", "dump"},
                       {"t", std::clamp<int64_t>(written_us, 0, now_us)},
                       {"n", i},
                       {"m", DumpWords(dumps[i])}}
                      .Text());
    }
    dumps_ = dumps;
}

}  // namespace shdtool
