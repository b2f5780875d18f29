// SPDX-License-Identifier: Apache-2.0
// Trials of the GigE driver that last: a million reads, cameras that answer no registers, cameras that come and go all
// the time, and nothing at all. Each runs once; its counters are the result.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include "bench/GigECameras.h"
#include "hal/HAL.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int NumReads = 1'000'000;
constexpr std::uint32_t NumReadCameras = 16;

double Microseconds(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }
double Milliseconds(Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

/// The value that this share of all values does not exceed.
template <class Value>
Value Quantile(std::vector<Value> values, double share) {
    if (values.empty()) {
        return {};
    }
    const auto index = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

// ---- A million reads -----------------------------------------------------------------------------------------------

void CountReads(benchmark::State& state, const std::vector<float>& times, double failures, double repeats) {
    state.counters["p999_us"] = Quantile(times, 0.999);
    state.counters["longest_us"] = Quantile(times, 1.0);
    state.counters["failures"] = failures;
    state.counters["repeats"] = repeats;
}

void MillionReads(benchmark::State& state) {
    Cameras cameras(NumReadCameras);
    Cameras::StartHal(200ms);
    const std::vector<void*> entries = Cameras::ListEntries();
    if (entries.size() != NumReadCameras) {
        return state.SkipWithError("a camera is missing");
    }
    std::vector<float> times;
    times.reserve(NumReads);
    double failures = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < NumReads; ++i) {
            std::uint32_t value = 0;
            const auto start = Clock::now();
            const std::uint32_t status =
                HAL_GigEReadRegister(entries[static_cast<std::size_t>(i) % NumReadCameras], 0x0C, &value);
            times.push_back(static_cast<float>(Microseconds(Clock::now() - start)));
            if (status != HAL_OK) {
                ++failures;
            }
        }
    }
    std::for_each(entries.begin(), entries.end(), HAL_GigEFreeCamera);
    CountReads(state, times, failures, static_cast<double>(cameras.GetStatistics().repeated));
}
BENCHMARK(MillionReads)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(1);

void MillionReadsOnBareSockets(benchmark::State& state) {
    Cameras cameras(NumReadCameras);
    std::array<int, NumReadCameras> sockets{};
    for (std::uint32_t i = 0; i < NumReadCameras; ++i) {
        sockets[i] = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in camera{};
        camera.sin_family = AF_INET;
        camera.sin_port = htons(Gvcp::Port);
        camera.sin_addr.s_addr = htonl(FirstAddress + i);
        if (connect(sockets[i], reinterpret_cast<const sockaddr*>(&camera), sizeof camera) != 0) {
            Give("connect");
        }
    }
    std::vector<float> times;
    times.reserve(NumReads);
    double failures = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < NumReads; ++i) {
            const int fd = sockets[static_cast<std::size_t>(i) % NumReadCameras];
            const std::uint32_t address = 0x0C;
            std::array<std::uint8_t, 2048> answer;
            const auto start = Clock::now();
            const auto command = Gvcp::EncodeReadRegCommand(static_cast<std::uint16_t>(i % 0xFFFF + 1), {&address, 1});
            const bool sent = send(fd, command.GetData(), command.GetSize(), 0) >= 0;
            if (!sent || recv(fd, answer.data(), answer.size(), 0) != 12) {
                ++failures;
            }
            times.push_back(static_cast<float>(Microseconds(Clock::now() - start)));
        }
    }
    for (const int fd : sockets) {
        close(fd);
    }
    CountReads(state, times, failures, static_cast<double>(cameras.GetStatistics().repeated));
}
BENCHMARK(MillionReadsOnBareSockets)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(1);

// ---- Cameras that answer no registers ------------------------------------------------------------------------------

constexpr std::uint32_t NumMute = 8;
constexpr std::int64_t NumOthers = 56;
constexpr std::uint32_t FirstMuteAddress = FirstAddress + 128;

double TimeEnumeration(benchmark::State& state) {
    const auto start = Clock::now();
    if (Cameras::Enumerate().size() != NumOthers + NumMute) {
        state.SkipWithError("a camera is missing");
    }
    return Milliseconds(Clock::now() - start);
}

void MuteAmong64(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        MutableCameras some(FirstMuteAddress, NumMute, true);
        {
            const Cameras cameras(NumOthers);
            const auto start = Clock::now();
            Cameras::StartHal(1000ms);
            TimeEnumeration(state);
            state.counters["list_ms"] = Milliseconds(Clock::now() - start);
        }
        some.SetMute(false);
        const Cameras cameras(NumOthers);
        Cameras::StartHal(200ms);
        TimeEnumeration(state);
        some.SetMute(true);
        state.counters["rescan_first_ms"] = TimeEnumeration(state);
        double longest = 0;
        for (int i = 0; i < 100; ++i) {
            longest = std::max(longest, TimeEnumeration(state));
        }
        state.counters["rescan_later_ms"] = longest;
    }
}
BENCHMARK(MuteAmong64)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(1);

// ---- Cameras that come and go --------------------------------------------------------------------------------------

constexpr std::size_t NumChurning = 128;
constexpr int ChurnPerSecond = 24;
constexpr auto ChurnTime = 20s;
constexpr auto LongestDelay = 10s;

/// Does what the bus master does: a cycle for each reset, and another for those that came meanwhile.
class Watcher {
public:
    Watcher() {
        if (HAL_GigERegisterBusEvents(&m_registration, &Watcher::OnEvent, this) != HAL_OK) {
            Give("a registration");
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~Watcher() {
        HAL_GigEDeregisterBusEvents(m_registration);
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
            m_changed.notify_all();
        }
        m_thread.join();
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Waits until a camera is listed, or is not. @return true if in time.
    bool WaitFor(std::uint32_t mac, bool listed, Clock::time_point deadline) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_until(lock, deadline, [&] { return (m_listed.count(mac) != 0) == listed; });
    }
    double GetLongestCycle() const {
        const std::lock_guard lock(m_mutex);
        return Milliseconds(m_longest);
    }
    int GetNumCycles() const {
        const std::lock_guard lock(m_mutex);
        return m_cycles;
    }

private:
    static void OnEvent(HALBusEvent event, void* context, HALInterfaceType, std::uint32_t, std::uint32_t,
                        std::uint32_t) {
        auto& watcher = *static_cast<Watcher*>(context);
        if (event != HAL_BUS_RESET) {
            return;
        }
        const std::lock_guard lock(watcher.m_mutex);
        watcher.m_reset = true;
        watcher.m_changed.notify_all();
    }

    void Run() {
        std::unique_lock lock(m_mutex);
        while (!m_stop) {
            m_reset = false;
            lock.unlock();
            const auto start = Clock::now();
            const std::vector<std::uint32_t> macs = Cameras::Enumerate();
            const auto time = Clock::now() - start;
            lock.lock();
            m_listed = std::set<std::uint32_t>(macs.begin(), macs.end());
            if (++m_cycles > 1) {
                m_longest = std::max(m_longest, time);
            }
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return m_stop || m_reset; });
        }
    }

    void* m_registration = nullptr;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    bool m_reset = false;
    std::set<std::uint32_t> m_listed;
    Clock::duration m_longest{};
    int m_cycles = 0;
    std::thread m_thread;
};

void Churn(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        Cameras cameras(NumChurning);
        Cameras::StartHal(1000ms);
        std::vector<float> removals;
        std::vector<float> arrivals;
        double untold = 0;
        {
            Watcher watcher;
            // Pairs of cameras take turns: one of each dies, is seen to leave, returns and is seen to arrive.
            std::mutex mutex;
            std::vector<std::thread> groups;
            const auto end = Clock::now() + ChurnTime;
            constexpr int NumGroups = NumChurning / 2;
            for (int group = 0; group < NumGroups; ++group) {
                groups.emplace_back([&, group] {
                    const auto period = std::chrono::duration_cast<Clock::duration>(1s) * NumGroups / ChurnPerSecond;
                    auto next = Clock::now() + period * group / NumGroups;
                    for (std::size_t turn = 0; next < end; ++turn, next += period) {
                        std::this_thread::sleep_until(next);
                        const std::size_t index = static_cast<std::size_t>(group) + turn % 2 * NumGroups;
                        const auto mac = static_cast<std::uint32_t>(0x100 + index);
                        for (const bool listed : {false, true}) {
                            cameras.SetSilent(index, !listed);
                            const auto start = Clock::now();
                            const bool told = watcher.WaitFor(mac, listed, start + LongestDelay);
                            const std::lock_guard lock(mutex);
                            if (!told) {
                                ++untold;
                            }
                            (listed ? arrivals : removals)
                                .push_back(static_cast<float>(Milliseconds(Clock::now() - start)));
                        }
                    }
                });
            }
            for (std::thread& group : groups) {
                group.join();
            }
            state.counters["longest_cycle_ms"] = watcher.GetLongestCycle();
            state.counters["cycles"] = watcher.GetNumCycles();
        }
        state.counters["removal_p95_ms"] = Quantile(removals, 0.95);
        state.counters["arrival_p95_ms"] = Quantile(arrivals, 0.95);
        state.counters["deaths"] = static_cast<double>(removals.size());
        state.counters["untold"] = untold;
    }
}
BENCHMARK(Churn)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(1);

// ---- Nothing at all ------------------------------------------------------------------------------------------------

constexpr auto IdleTime = 10s;

/// CPU time of this process's thread of that name, in nanoseconds.
std::optional<double> CpuTimeOf(const std::string& thread) {
    std::optional<double> time;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return time;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this folder
    while (const dirent* entry = readdir(tasks)) {
        const std::string path = std::string("/proc/self/task/") + entry->d_name;
        std::string name;
        std::getline(std::ifstream(path + "/comm"), name);
        double ran = 0;
        if (name == thread && std::ifstream(path + "/schedstat") >> ran) {
            time = ran;
        }
    }
    closedir(tasks);
    return time;
}

void Idle(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        Cameras cameras(NumChurning);
        Cameras::StartHal(1000ms);
        if (Cameras::List() != NumChurning) {
            state.SkipWithError("a camera is missing");
        }
        std::this_thread::sleep_for(3s);  // until the window's requests are over
        const auto before = cameras.GetStatistics();
        const auto cpuBefore = CpuTimeOf("gige-monitor");
        const auto start = Clock::now();
        std::this_thread::sleep_for(IdleTime);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        const auto after = cameras.GetStatistics();
        const auto cpuAfter = CpuTimeOf("gige-monitor");
        const auto packets = after.received - before.received + after.answered - before.answered;
        state.counters["packets_per_camera_s"] = static_cast<double>(packets) / seconds / NumChurning;
        if (!cpuBefore || !cpuAfter) {
            state.SkipWithError("the kernel does not tell what a thread costs");
        } else {
            state.counters["core_percent"] = (*cpuAfter - *cpuBefore) / seconds / 1e7;
        }
    }
}
BENCHMARK(Idle)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace Nimbrel2::Platform
