// SPDX-License-Identifier: Apache-2.0
// The GigE driver on simulated cameras, beside an independent tool and a bare socket. Runs in a network namespace of
// its own, so it needs root: unshare -n.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include "bench/GigECameras.h"
#include "hal/HAL.h"
#include "platform/gvcp/GvcpCodec.h"
#include "tests/support/ChildProcess.h"

namespace Nimbrel2::Platform {
namespace {

void Reenumerate(benchmark::State& state) {
    const Cameras cameras(state.range(0));
    Cameras::StartHal(std::chrono::milliseconds(200));
    Cameras::List();
    for ([[maybe_unused]] auto _ : state) {
        if (Cameras::List() != static_cast<std::uint64_t>(state.range(0))) {
            state.SkipWithError("a camera is missing");
        }
    }
}
BENCHMARK(Reenumerate)->Name("Reenumerate1")->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Reenumerate)->Name("Reenumerate4")->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Reenumerate)->Name("Reenumerate16")->Arg(16)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Reenumerate)->Name("Reenumerate128")->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();

void DiscoverFirst(benchmark::State& state) {
    const Cameras cameras(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        Cameras::StartHal(std::chrono::milliseconds(1000));
        if (Cameras::List() != static_cast<std::uint64_t>(state.range(0))) {
            state.SkipWithError("a camera is missing");
        }
        state.PauseTiming();
        HAL_CleanupLibrary();
        state.ResumeTiming();
    }
}
BENCHMARK(DiscoverFirst)->Name("DiscoverFirst1")->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(DiscoverFirst)->Name("DiscoverFirst16")->Arg(16)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// A camera that answers each broadcast a thousand times a second until the next one comes.
class TalkativeCamera {
public:
    explicit TalkativeCamera(std::uint32_t address) : m_socket(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_port = htons(Gvcp::Port);  // of any address: broadcasts come to such a socket
        const timeval tick{0, 1000};
        if (setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick) != 0 ||
            bind(m_socket, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
            Give("a talkative camera");
        }
        m_record.ipAddress = address;
        m_record.macLow = 0x77;
        std::strcpy(m_record.serialNumber, "77");
        m_thread = std::thread([this] { Talk(); });
    }
    ~TalkativeCamera() {
        m_stop = true;
        m_thread.join();
        close(m_socket);
    }

private:
    void Talk() {
        sockaddr_in asker{};
        std::optional<std::uint16_t> id;
        while (!m_stop) {
            std::uint8_t command[2048];
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const ssize_t got =
                recvfrom(m_socket, command, sizeof command, 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (got >= 8) {
                asker = from;
                id = static_cast<std::uint16_t>(command[6] << 8 | command[7]);
            }
            if (!id) {
                continue;
            }
            const Gvcp::Packet answer = Gvcp::EncodeDiscoveryAck(*id, m_record);
            sendto(m_socket, answer.GetData(), answer.GetSize(), 0, reinterpret_cast<const sockaddr*>(&asker),
                   sizeof asker);
        }
    }

    const int m_socket;
    GvcpDiscoveryRecord m_record{};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

void DiscoverFirstUnderSteadyAnswers(benchmark::State& state) {
    const TalkativeCamera camera(INADDR_LOOPBACK);
    for ([[maybe_unused]] auto _ : state) {
        Cameras::StartHal(std::chrono::milliseconds(1000));
        if (Cameras::List() != 1) {
            state.SkipWithError("the camera is missing");
        }
        state.PauseTiming();
        HAL_CleanupLibrary();
        state.ResumeTiming();
    }
}
BENCHMARK(DiscoverFirstUnderSteadyAnswers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void DiscoverWithIndependentTool(benchmark::State& state) {
    const Cameras cameras(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        if (Testing::RunProgram({"arv-tool-0.8"}).exitStatus != 0) {
            state.SkipWithError("arv-tool-0.8 failed");
        }
    }
}
BENCHMARK(DiscoverWithIndependentTool)
    ->Name("DiscoverWithIndependentTool1")
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(DiscoverWithIndependentTool)
    ->Name("DiscoverWithIndependentTool4")
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(DiscoverWithIndependentTool)
    ->Name("DiscoverWithIndependentTool16")
    ->Arg(16)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(DiscoverWithIndependentTool)
    ->Name("DiscoverWithIndependentTool128")
    ->Arg(128)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

void ReadRegister(benchmark::State& state) {
    const Cameras cameras(1);
    Cameras::StartHal(std::chrono::milliseconds(200));
    void* entry = nullptr;
    Cameras::List(&entry);
    for ([[maybe_unused]] auto _ : state) {
        std::uint32_t value = 0;
        if (HAL_GigEReadRegister(entry, CurrentIpAddress, &value) != HAL_OK) {
            state.SkipWithError("no answer");
        }
    }
}
BENCHMARK(ReadRegister)->Unit(benchmark::kMicrosecond)->UseRealTime();

void ReadRegisterOnBareSocket(benchmark::State& state) {
    const Cameras cameras(1);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in camera{};
    camera.sin_family = AF_INET;
    camera.sin_port = htons(Gvcp::Port);
    camera.sin_addr.s_addr = htonl(FirstAddress);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&camera), sizeof camera) != 0) {
        Give("connect");
    }
    std::uint8_t command[] = {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x24};
    std::uint8_t answer[2048];
    std::uint16_t id = 0;
    for ([[maybe_unused]] auto _ : state) {
        id = static_cast<std::uint16_t>(id % 0xFFFF + 1);
        command[6] = static_cast<std::uint8_t>(id >> 8);
        command[7] = static_cast<std::uint8_t>(id & 0xFF);
        if (send(fd, command, sizeof command, 0) < 0 || recv(fd, answer, sizeof answer, 0) != 12) {
            state.SkipWithError("no answer");
        }
    }
    close(fd);
}
BENCHMARK(ReadRegisterOnBareSocket)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace Nimbrel2::Platform

int main(int argc, char** argv) {
    Nimbrel2::Platform::EnterNetworkOfItsOwn();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
