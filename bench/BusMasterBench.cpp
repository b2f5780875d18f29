// SPDX-License-Identifier: Apache-2.0
// What the bus master costs, each time beside the bare cost of what it cannot do without. ratios.py pairs them.
// Benchmarks run one after the other; each has a bus master of its own on the lean HAL.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/LeanHal.h"
#include "busmaster/BusMaster.h"
#include "busmaster/BusMasterMembers.h"
#include "common/IEEE1394Interface.h"

namespace Nimbrel2 {

struct BusMasterTestAccess {
    static Error GetCameras(BusMaster& busMaster, std::vector<BusMasterHandle*>& list) {
        return busMaster.m_members->GetCameras(list);
    }
    static Error Get1394Cameras(std::vector<BusMasterHandle*>* list) { return BusMaster::Get1394Cameras(list); }
    static void FreeCameraList(std::vector<BusMasterHandle*>* list) { BusMaster::FreeCameraList(list); }
    static void SignalBusReset(BusMaster& busMaster) {
        const boost::unique_lock<boost::mutex> lock(busMaster.m_members->m_busMasterMutex);
        busMaster.m_members->SignalCallbacks(busMaster.m_members->m_busResetCallbacks, 0);
    }
};

namespace Bench {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned int FireWireCameras = 256;
constexpr unsigned int UsbCameras = 128;
constexpr unsigned int GigECameras = 128;
constexpr unsigned int AllCameras = FireWireCameras + UsbCameras + GigECameras;
constexpr unsigned int LastSerialNumber = 2000 + GigECameras;
constexpr unsigned int CamerasOf[] = {FireWireCameras, UsbCameras, GigECameras};

// Runs three functions at once, on threads of their own.
template <class Function>
void OnThreeThreads(Function function) {
    std::thread threads[3];
    for (unsigned int i = 0; i < 3; ++i) {
        threads[i] = std::thread(function, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

bool Start(BusMaster& busMaster, benchmark::State& state) {
    if (busMaster.Initialize() != ERROR_OK || !busMaster.GetInitialized()) {
        state.SkipWithError("the bus master did not start");
        return false;
    }
    return true;
}

// ---- Listing three slow buses ------------------------------------------------------------------------------------

constexpr milliseconds SlowListing{100};

void ListThreeSlowBuses(benchmark::State& state) {
    AttachCameras(4, 4, 4);
    SetListingTime(SlowListing, SlowListing, SlowListing);
    BusMaster busMaster;
    for ([[maybe_unused]] auto _ : state) {
        std::vector<BusMasterHandle*> cameras;
        BusMasterTestAccess::GetCameras(busMaster, cameras);
        BusMasterTestAccess::FreeCameraList(&cameras);
    }
    SetListingTime({}, {}, {});
}
BENCHMARK(ListThreeSlowBuses)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(3);

void ListOneSlowBus(benchmark::State& state) {
    AttachCameras(4, 0, 0);
    SetListingTime(SlowListing, {}, {});
    for ([[maybe_unused]] auto _ : state) {
        std::vector<BusMasterHandle*> cameras;
        BusMasterTestAccess::Get1394Cameras(&cameras);
        BusMasterTestAccess::FreeCameraList(&cameras);
    }
    SetListingTime({}, {}, {});
}
BENCHMARK(ListOneSlowBus)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(3);

// ---- One re-enumeration cycle -------------------------------------------------------------------------------------

// From the request to an idle worker: wake-up, cycle, notice of idleness.
void Cycle512Cameras(benchmark::State& state) {
    AttachCameras(FireWireCameras, UsbCameras, GigECameras);
    BusMaster busMaster;
    if (!Start(busMaster, state)) {
        return;
    }
    busMaster.RescanBus();
    const std::uint64_t before = CountListings();
    for ([[maybe_unused]] auto _ : state) {
        busMaster.RescanBus();
    }
    if (CountListings() - before != static_cast<std::uint64_t>(state.iterations())) {
        state.SkipWithError("not one cycle a request");
    }
}
BENCHMARK(Cycle512Cameras)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What a listed camera needs: a handle, an interface object and its shared ownership.
struct BareCamera {
    struct Interface {
        char bytes[sizeof(IEEE1394Interface)];
    };
    std::uint32_t serialNumber = 0;
    ZevoGuid guid;
    boost::shared_ptr<Interface> hwInterface{new Interface};
};
using BareList = std::vector<std::unique_ptr<BareCamera>>;

BareList ListBareCameras(unsigned int bus) {
    BareList list;
    list.reserve(CamerasOf[bus]);
    for (unsigned int i = 0; i < CamerasOf[bus]; ++i) {
        list.push_back(std::make_unique<BareCamera>());
        list.back()->guid.value[0] = bus;
        list.back()->guid.value[3] = i;
    }
    return list;
}

BareList ListBareBuses() {
    BareList lists[3];
    OnThreeThreads([&lists](unsigned int bus) { lists[bus] = ListBareCameras(bus); });
    BareList cameras;
    cameras.reserve(AllCameras);
    for (BareList& list : lists) {
        cameras.insert(cameras.end(), std::make_move_iterator(list.begin()), std::make_move_iterator(list.end()));
    }
    return cameras;
}

void BareCycle512Cameras(benchmark::State& state) {
    const BareList kept = ListBareBuses();
    for ([[maybe_unused]] auto _ : state) {
        BareList fresh = ListBareBuses();
        for (const auto& camera : kept) {
            const auto same = std::find_if(fresh.begin(), fresh.end(),
                                           [&camera](const auto& other) { return other->guid == camera->guid; });
            if (same != fresh.end()) {
                fresh.erase(same);
            }
        }
        if (!fresh.empty()) {
            state.SkipWithError("the merge left a camera over");
        }
    }
}
BENCHMARK(BareCycle512Cameras)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ---- From a reset to the callback ---------------------------------------------------------------------------------

struct Arrival {
    std::atomic<bool> heard{false};

    void Tell() {
        heard = true;
        heard.notify_one();
    }
    void Wait() const { heard.wait(false); }

    static void OnArrival(void* arrival, unsigned int) { static_cast<Arrival*>(arrival)->Tell(); }
};

void RescanUntilListed(BusMaster& busMaster, unsigned int cameras) {
    unsigned int listed = cameras + 1;
    while (listed != cameras) {
        busMaster.RescanBus();
        busMaster.GetNumOfCameras(&listed);
    }
}

void ResetToArrivalCallback(benchmark::State& state) {
    AttachCameras(0, 0, 0);
    BusMaster busMaster;
    Arrival arrival;
    void* registration = nullptr;
    if (!Start(busMaster, state) ||
        busMaster.RegisterCallback(&Arrival::OnArrival, ARRIVAL, &arrival, &registration) != ERROR_OK) {
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        RescanUntilListed(busMaster, 0);
        arrival.heard = false;
        AttachCameras(1, 0, 0);
        const Clock::time_point start = Clock::now();
        RaiseBusReset();
        arrival.Wait();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        RescanUntilListed(busMaster, 1);  // the second cycle of a reset is not the next reset's
        AttachCameras(0, 0, 0);
    }
}
BENCHMARK(ResetToArrivalCallback)->Unit(benchmark::kMicrosecond)->UseManualTime();

// A worker that is woken, starts and joins three threads and has a fourth tell.
class BareWorker {
public:
    explicit BareWorker(Arrival& arrival) : m_arrival(arrival), m_thread(&BareWorker::Run, this) {}
    ~BareWorker() {
        Wake(true);
        m_thread.join();
    }
    void Wake(bool exit) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_awake = true;
        m_exit = exit;
        m_wakeUp.notify_one();
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (true) {
            m_wakeUp.wait(lock, [this] { return m_awake; });
            m_awake = false;
            if (m_exit) {
                return;
            }
            OnThreeThreads([](unsigned int) {});
            std::thread([this] { m_arrival.Tell(); }).detach();
        }
    }

    Arrival& m_arrival;
    std::mutex m_mutex;
    std::condition_variable m_wakeUp;
    bool m_awake = false;
    bool m_exit = false;
    std::thread m_thread;
};

void BareWakeToCallback(benchmark::State& state) {
    Arrival arrival;
    BareWorker worker(arrival);
    for ([[maybe_unused]] auto _ : state) {
        arrival.heard = false;
        const Clock::time_point start = Clock::now();
        worker.Wake(false);
        arrival.Wait();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}
BENCHMARK(BareWakeToCallback)->Unit(benchmark::kMicrosecond)->UseManualTime();

// ---- Unregistering beside slow callbacks ---------------------------------------------------------------------------

constexpr milliseconds SlowCallback{20};
constexpr unsigned int QueuedCallbacks = 50;

// The first call takes its time; those that are queued behind it would too, but for the end of the measurement.
struct SlowCalls {
    std::atomic<bool> hasBegun{false};
    std::atomic<bool> hurry{false};

    static void Run(void* data, unsigned int) {
        auto* const calls = static_cast<SlowCalls*>(data);
        calls->hasBegun = true;
        calls->hasBegun.notify_one();
        if (!calls->hurry) {
            std::this_thread::sleep_for(SlowCallback);
        }
    }
    static void DoNothing(void*, unsigned int) {}
};

void UnregisterBesideQueuedCallbacks(benchmark::State& state) {
    AttachCameras(0, 0, 0);
    SlowCalls calls;
    BusMaster busMaster;
    void* slow = nullptr;
    if (!Start(busMaster, state) || busMaster.RegisterCallback(&SlowCalls::Run, BUS_RESET, &calls, &slow) != ERROR_OK) {
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        void* handle = nullptr;
        busMaster.RegisterCallback(&SlowCalls::DoNothing, ARRIVAL, nullptr, &handle);
        calls.hurry = false;
        calls.hasBegun = false;
        for (unsigned int i = 0; i < 1 + QueuedCallbacks; ++i) {
            BusMasterTestAccess::SignalBusReset(busMaster);
        }
        calls.hasBegun.wait(false);
        const Clock::time_point start = Clock::now();
        if (busMaster.UnregisterCallback(handle) != ERROR_OK) {
            state.SkipWithError("the callback was not unregistered");
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        calls.hurry = true;
        busMaster.WaitUntilQuiet(60000);
    }
}
BENCHMARK(UnregisterBesideQueuedCallbacks)->Unit(benchmark::kMicrosecond)->UseManualTime()->Iterations(5);

void OneSlowCallback(benchmark::State& state) {
    SlowCalls calls;
    for ([[maybe_unused]] auto _ : state) {
        SlowCalls::Run(&calls, 0);
    }
}
BENCHMARK(OneSlowCallback)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(5);

// ---- Look-ups -----------------------------------------------------------------------------------------------------

void LookUpLastOf512BySerialNumber(benchmark::State& state) {
    AttachCameras(FireWireCameras, UsbCameras, GigECameras);
    BusMaster busMaster;
    if (!Start(busMaster, state)) {
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        ZevoGuid guid;
        if (busMaster.GetCameraFromSerialNumber(LastSerialNumber, &guid) != ERROR_OK) {
            state.SkipWithError("the camera was not found");
        }
        benchmark::DoNotOptimize(guid);
    }
}
BENCHMARK(LookUpLastOf512BySerialNumber);

void LookUpLastOf512ByGuid(benchmark::State& state) {
    AttachCameras(FireWireCameras, UsbCameras, GigECameras);
    BusMaster busMaster;
    ZevoGuid guid;
    if (!Start(busMaster, state) || busMaster.GetCameraFromSerialNumber(LastSerialNumber, &guid) != ERROR_OK) {
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        HardwareInterface* hwInterface = nullptr;
        if (busMaster.GetHwInterfaceFromGuid(guid, &hwInterface) != ERROR_OK) {
            state.SkipWithError("the camera was not found");
        }
        benchmark::DoNotOptimize(hwInterface);
    }
}
BENCHMARK(LookUpLastOf512ByGuid);

template <class Matches>
void LookUpLastBare(benchmark::State& state, Matches matches) {
    BareList cameras = ListBareBuses();
    for (unsigned int i = 0; i < AllCameras; ++i) {
        cameras[i]->serialNumber = i;
    }
    std::mutex mutex;
    for ([[maybe_unused]] auto _ : state) {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = std::find_if(cameras.begin(), cameras.end(),
                                        [&](const auto& camera) { return matches(*camera, *cameras.back()); });
        benchmark::DoNotOptimize((*found)->guid);
    }
}

void BareLastOf512BySerialNumber(benchmark::State& state) {
    LookUpLastBare(state, [](const BareCamera& camera, const BareCamera& last) {
        return camera.serialNumber == last.serialNumber;
    });
}
BENCHMARK(BareLastOf512BySerialNumber);

void BareLastOf512ByGuid(benchmark::State& state) {
    LookUpLastBare(state, [](const BareCamera& camera, const BareCamera& last) { return camera.guid == last.guid; });
}
BENCHMARK(BareLastOf512ByGuid);

// Resets as fast as one thread can raise them, and look-ups as fast as another can make them.
void LookUpInResetStorm(benchmark::State& state) {
    AttachCameras(FireWireCameras, UsbCameras, GigECameras);
    BusMaster busMaster;
    if (!Start(busMaster, state)) {
        return;
    }
    const std::uint64_t listings = CountListings();
    std::atomic<bool> stop{false};
    std::thread storm([&stop] {
        while (!stop) {
            RaiseBusReset();
            std::this_thread::yield();
        }
    });
    Clock::duration worst{};
    const Clock::time_point begin = Clock::now();
    for ([[maybe_unused]] auto _ : state) {
        const Clock::time_point start = Clock::now();
        ZevoGuid guid;
        if (busMaster.GetCameraFromSerialNumber(LastSerialNumber, &guid) != ERROR_OK) {
            state.SkipWithError("the camera was not found");
        }
        worst = std::max(worst, Clock::now() - start);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    stop = true;
    storm.join();
    state.counters["worst_us"] = std::chrono::duration<double, std::micro>(worst).count();
    state.counters["cycles_per_s"] = static_cast<double>(CountListings() - listings) / seconds;
}
BENCHMARK(LookUpInResetStorm)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace Bench
}  // namespace Nimbrel2

BENCHMARK_MAIN();
