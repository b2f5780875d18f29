// SPDX-License-Identifier: Apache-2.0
// Writing to standard output and standard error. Main thread only; no lock.
#include "tools/nimbrel/Output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {

void KeepStandardDescriptors() {
    // Opened in the wrong direction, so that using it fails as it does on a closed one.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

Output::Result Output::WaitForReader() {
    std::array<pollfd, 2> waits{{{STDOUT_FILENO, POLLOUT, 0}, {m_interrupt, POLLIN, 0}}};
    while (poll(waits.data(), waits.size(), -1) < 0) {
        if (errno != EINTR) {
            return Result::Written;  // the write reports what is wrong
        }
    }
    // Room first: an interrupted command may still print its last words.
    return waits[0].revents != 0 ? Result::Written : Result::Interrupted;
}

Output::Result Output::Write(const std::string& text) {
    std::string_view left = text;
    while (!left.empty()) {
        if (WaitForReader() == Result::Interrupted) {
            return Result::Interrupted;
        }
        // A pipe that is writable takes this much without blocking.
        const ssize_t written = write(STDOUT_FILENO, left.data(), std::min<std::size_t>(left.size(), PIPE_BUF));
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EPIPE) {
            return Result::ReaderGone;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw CommandError("standard output cannot be written: " + std::generic_category().message(errno));
        }
    }
    return Result::Written;
}

void Output::WaitForEnd(int interrupt, std::optional<std::chrono::milliseconds> time) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + time.value_or(std::chrono::milliseconds(0));
    // No events requested of standard output: errors and hang-ups are always reported.
    std::array<pollfd, 2> waits{{{interrupt, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    for (;;) {
        int patience = -1;
        if (time) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
            if (left.count() <= 0) {
                return;
            }
            patience = static_cast<int>(std::min<std::chrono::milliseconds::rep>(left.count(), 1'000'000'000));
        }
        if (poll(waits.data(), waits.size(), patience) > 0) {
            return;
        }
    }
}

void WriteError(const std::string& text) {
    const std::string shown = ForTerminal(text, Lines::Kept);
    std::string_view left = shown;
    while (!left.empty()) {
        const ssize_t written = write(STDERR_FILENO, left.data(), left.size());
        if (written < 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        }
    }
}

}  // namespace Nimbrel2::Tool
