// SPDX-License-Identifier: Apache-2.0
// The progress line. Drawn by a thread of its own, which holds m_mutex except while it waits.
#include "tools/nimbrel/Progress.h"

#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <utility>

#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TraceLog.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Shorter waits show nothing, so that no line flashes up.
constexpr milliseconds FirstDraw{200};
constexpr milliseconds Redraw{100};

bool IsTerminal() {
    const char* kind = secure_getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
}

// A line that wraps could not be wiped.
std::size_t RoomInLine() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return 79;
    }
    return size.ws_col - 1u;
}

void Put(const std::string& text) {
    if (write(STDERR_FILENO, text.data(), text.size()) < 0) {
        // The next redraw tries again.
    }
}

std::string Line(const std::string& text, unsigned int frame, Clock::duration gone) {
    const double seconds = std::chrono::duration<double>(gone).count();
    char number[32];
    std::snprintf(number, sizeof number, " ... %.1f s", seconds);
    return std::string(1, "|/-\\"[frame % 4]) + " " + text + number;
}

}  // namespace

Progress::Progress(const std::string& text, Remarks remarks) : m_text(text), m_remarks(std::move(remarks)) {
    if (!IsTerminal() || TraceLog::IsOnStandardError()) {
        return;
    }
    try {
        m_thread = std::thread([this] { Draw(); });
    } catch (const std::system_error&) {
        // The command works without it.
    }
}

Progress::~Progress() {
    if (!m_thread.joinable()) {
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void Progress::Draw() {
    UseLocaleOfUser();  // the locale belongs to a thread
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(m_mutex);
    bool shown = false;
    milliseconds pause = FirstDraw;
    for (unsigned int frame = 0; !m_changed.wait_for(lock, pause, [this] { return m_stop; }); ++frame) {
        Interrupts::SetProgressShown(true);
        const std::string remarks = m_remarks ? ForTerminal(m_remarks()) : std::string();
        const std::string line = Line(m_text, frame, Clock::now() - start) + (remarks.empty() ? "" : ": " + remarks);
        Put("\r" + CutToWidth(line, RoomInLine()) + "\033[K");
        shown = true;
        pause = Redraw;
    }
    if (shown) {
        Put("\r\033[K");
    }
    Interrupts::SetProgressShown(false);
}

}  // namespace Nimbrel2::Tool
