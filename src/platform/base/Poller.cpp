// SPDX-License-Identifier: Apache-2.0
// What the monitor thread waits on. Wait: the monitor thread; the rest: any thread; no lock.
#include "platform/base/Poller.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <array>
#include <cerrno>
#include <ctime>

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint64_t WakeToken = ~std::uint64_t{0};
constexpr std::uint64_t TimerToken = WakeToken - 1;

int Control(int epoll, int operation, int fd, std::uint64_t token) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = token;
    return ::epoll_ctl(epoll, operation, fd, &event) == 0 ? 0 : errno;
}

void Drain(int fd) {
    std::uint64_t count;
    // Nothing to be read is as good as something.
    while (::read(fd, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

// The steady clock is CLOCK_MONOTONIC. A zero time would disarm the timer.
itimerspec TimerFor(TimePoint deadline) {
    const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count();
    itimerspec timer{};
    timer.it_value.tv_sec = static_cast<std::time_t>(since > 0 ? since / 1'000'000'000 : 0);
    timer.it_value.tv_nsec = static_cast<long>(since > 0 ? since % 1'000'000'000 : 1);
    return timer;
}

}  // namespace

int Poller::Open() {
    m_epoll = FileDescriptor(::epoll_create1(EPOLL_CLOEXEC));
    if (!m_epoll.IsOpen()) {
        return errno;
    }
    m_wake = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wake.IsOpen()) {
        return errno;
    }
    m_timer = FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!m_timer.IsOpen()) {
        return errno;
    }
    const int error = Add(m_wake.Get(), WakeToken);
    return error != 0 ? error : Add(m_timer.Get(), TimerToken);
}

int Poller::Add(int fd, std::uint64_t token) { return Control(m_epoll.Get(), EPOLL_CTL_ADD, fd, token); }

void Poller::Remove(int fd) { Control(m_epoll.Get(), EPOLL_CTL_DEL, fd, 0); }

void Poller::Wake() {
    const std::uint64_t one = 1;
    // A counter that is full wakes as well.
    while (::write(m_wake.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void Poller::Wait(TimePoint deadline, std::vector<std::uint64_t>* tokens) {
    tokens->clear();
    const itimerspec timer = TimerFor(deadline);
    ::timerfd_settime(m_timer.Get(), TFD_TIMER_ABSTIME, &timer, nullptr);
    std::array<epoll_event, 64> events;
    const int count = ::epoll_wait(m_epoll.Get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t token = events[static_cast<std::size_t>(i)].data.u64;
        if (token == WakeToken) {
            Drain(m_wake.Get());
        } else if (token == TimerToken) {
            Drain(m_timer.Get());
        } else {
            tokens->push_back(token);
        }
    }
}

}  // namespace Nimbrel2::Platform
