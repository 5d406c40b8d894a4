// Draws a view and obeys its keys. Called by the loop.
#include "tools/shdtool/views/live_view.h"

#include <fmt/core.h>

namespace shdtool {
namespace {

constexpr std::chrono::milliseconds kRedrawInterval{150};
constexpr size_t kPrintedColumns = 160;  // of the last state, where there is no window
constexpr size_t kPrintedRows = 1000;

const std::vector<Line>& HelpLines() {
    static const std::vector<Line> lines{
        {"Keys", Style::kHeading},
        {""},
        {"  q          quit; the last page stays on the terminal"},
        {"  p, blank   pause and go on; a recording stands still meanwhile"},
        {"  r          reset the statistics"},
        {"  up, down   move through the sensors that do not fit"},
        {"  ?          this help, and back"},
    };
    return lines;
}

}  // namespace

// True when it wants to be seen at once.
bool LiveView::Obey(Key key, int64_t now_ns) {
    switch (key) {
        case Key::kNone:
        case Key::kQuit:
            return false;
        case Key::kPause:
            paused_ = !paused_;
            source_->Pause(paused_);
            break;
        case Key::kReset:
            Reset(now_ns);
            first_ = 0;
            break;
        case Key::kHelp:
            help_ = !help_;
            break;
        case Key::kUp:
            if (first_ > 0) --first_;
            break;
        case Key::kDown:
            if (first_ + 1 < Count()) ++first_;
            break;
    }
    return true;
}

void LiveView::OnStart(EventSource& source) {
    source_ = &source;
    if (!source.live()) title_.clear();
    Reset(source.now_ns());
}

void LiveView::OnSilence() {
    if (!Terminal().drawable) EventSink::OnSilence();  // else the page says it
}

shdclient::Result<bool> LiveView::OnTick(const WatchState& state) {
    if (!Terminal().drawable) return true;
    const WindowSize window = WindowOf();
    bool asked = screen_.StopWhenAsked() || window != window_;
    window_ = window;
    for (Key key = screen_.PressedKey(); key != Key::kNone; key = screen_.PressedKey()) {
        if (key == Key::kQuit) return false;
        asked = Obey(key, state.now_ns) || asked;
    }
    const auto now = std::chrono::steady_clock::now();
    const bool due = !paused_ && now - drawn_ >= kRedrawInterval;
    if (!asked && !due) return true;
    drawn_ = now;
    screen_.Draw(help_ ? HelpLines() : TitledPage(state));
    return true;
}

std::vector<Line> LiveView::TitledPage(const WatchState& state) {
    constexpr size_t kLeastRows = 12;  // below that the title would take the sensors' place
    WindowSize size = WindowOf();
    std::vector<Line> page;
    if (!title_.empty() && size.rows >= kLeastRows) page = WrappedLines({{title_}}, size.columns);
    size.rows -= std::min(page.size(), size.rows);
    for (Line& line : Page(state, size)) page.push_back(std::move(line));
    return page;
}

shdclient::Status LiveView::OnEnd(const WatchState& state) {
    screen_.Leave();
    const bool window = Terminal().terminal;
    const WindowSize size{window ? WindowOf().columns : kPrintedColumns, kPrintedRows};
    for (const Line& line : Page(state, size)) {
        fmt::print("{}\n", Styled(line.text, line.style));
    }
    return shdclient::Success();
}

}  // namespace shdtool
