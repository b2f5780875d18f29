// SPDX-License-Identifier: Apache-2.0
// Formats and writes trace lines, each with one system call. Runs on every thread of the library, with its locks held:
// it allocates nothing and waits for no reader.
#include "tools/nimbrel/TraceLog.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "common/Trace.h"
#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool::TraceLog {
namespace {

// What a pipe takes whole or not at all.
constexpr std::size_t LongestLine = PIPE_BUF;

struct Target {
    std::atomic<int> fd{-1};
    std::atomic<unsigned int> left{0};  // lines left out since the last that was written
};
Target g_standardError;
Target g_file;

// A line of at most that many characters.
class Line {
public:
    Line() {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        tm parts{};
        localtime_r(&now.tv_sec, &parts);
        m_length = strftime(m_text, sizeof m_text, "%Y-%m-%d %H:%M:%S", &parts);
        char thread[16] = "?";
        pthread_getname_np(pthread_self(), thread, sizeof thread);
        char rest[64];
        std::snprintf(rest, sizeof rest, ".%06ld  %-15s %6d  ", now.tv_nsec / 1000, thread, static_cast<int>(gettid()));
        Add(rest);
    }

    // Texts may come from devices one day: nothing in them may move a terminal's cursor.
    void Add(const char* text) {
        for (; *text != '\0' && m_length < sizeof m_text - 1; ++text) {
            m_text[m_length++] = *text >= ' ' && *text <= '~' ? *text : '?';
        }
    }

    // False when the reader has no room for it now.
    bool WriteTo(int fd) {
        pollfd room{fd, POLLOUT, 0};
        if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0) {
            return false;
        }
        m_text[m_length] = '\n';
        return write(fd, m_text, m_length + 1) >= 0;
    }

private:
    char m_text[LongestLine];
    std::size_t m_length = 0;
};

bool Say(int fd, const char* text) {
    Line line;
    line.Add(text);
    return line.WriteTo(fd);
}

void Emit(Target& target, const char* text) {
    const int fd = target.fd;
    if (const unsigned int left = target.left.exchange(0); left != 0) {
        char said[64];
        std::snprintf(said, sizeof said, "(%u lines left out: nobody read them in time)", left);
        if (!Say(fd, said)) {
            target.left += left;
        }
    }
    if (target.left != 0 || !Say(fd, text)) {
        ++target.left;
    }
}

void OnTrace(const std::string& text) {
    const int savedErrno = errno;
    const std::string_view whole(text);
    char line[LongestLine];
    const std::size_t length = std::min(whole.find_last_not_of('\n') + 1, sizeof line - 1);
    std::copy_n(whole.data(), length, line);
    line[length] = '\0';
    for (Target* target : {&g_standardError, &g_file}) {
        if (target->fd >= 0) {
            Emit(*target, line);
        }
    }
    errno = savedErrno;
}

void Start(Target& target, int fd) {
    target.fd = fd;
    SetTraceSink(&OnTrace);
}

}  // namespace

void ToStandardError() { Start(g_standardError, STDERR_FILENO); }

void ToFile(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (fd < 0) {
        const std::string reason = std::generic_category().message(errno);
        throw CommandError("--log: \"" + path + "\" cannot be written: " + reason);
    }
    Start(g_file, fd);
}

bool IsOnStandardError() { return g_standardError.fd >= 0; }

void Write(const std::string& text) noexcept { Trace(text); }

}  // namespace Nimbrel2::Tool::TraceLog
