// SPDX-License-Identifier: Apache-2.0
// A program that ends, forks or takes a signal beside the bus master's threads: ending_program SCENARIO.
// process_test.cpp looks at it from outside. The buses are scripted; whatever would hang is ended by SIGALRM.
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "common/Posix.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/ProcessThreads.h"
#include "tests/support/ScriptedHal.h"

namespace Nimbrel2::Testing {
namespace {

// For the whole program: no scenario may find it destroyed by the time that the bus master is.
ScriptedHal& g_hal = *new ScriptedHal;

BusMaster& TheBusMaster() { return Singleton<BusMaster>::GetInstance(); }

void Say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void Require(bool condition, const char* what) {
    if (!condition) {
        Say(std::string("failed: ") + what);
        std::_Exit(99);
    }
}

void Require(const Error& error, const char* what) { Require(error == ERROR_OK, what); }

template <class Condition>
void WaitFor(Condition condition) {
    while (!condition()) {
        std::this_thread::yield();
    }
}

void Start() {
    g_hal.AddFireWireCamera(11);
    g_hal.AddUsbCamera(21);
    g_hal.AddGigECamera(31, 0x0A000001);
    g_hal.AddFireWireDevice(1, 2);
    Require(TheBusMaster().Initialize(), "Initialize");
    Require(TheBusMaster().WaitUntilQuiet(20000), "WaitUntilQuiet");
}

void Register(void (*function)(void*, unsigned int)) {
    void* handle = nullptr;
    Require(TheBusMaster().RegisterCallback(function, BUS_RESET, nullptr, &handle), "RegisterCallback");
}

void RaiseReset() { g_hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB); }

int StatusOf(pid_t process) {
    int status = 0;
    Require(waitpid(process, &status, 0) == process, "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void SayHowItEnded(pid_t process) { Say("child " + std::to_string(StatusOf(process))); }

// ---- The end of the program ----------------------------------------------------------------------------------------

std::atomic<bool> g_begun{false};
std::atomic<bool> g_gone{false};
std::atomic<bool> g_asks{false};

// Asks for the object while its destructor waits for this very callback.
int CallbackAsksWhileTheProgramEnds() {
    GetDeadlines().lockAtDestruction = boost::posix_time::seconds(20);
    Start();
    Register([](void*, unsigned int) {
        if (g_begun.exchange(true)) {
            return;
        }
        WaitFor([] { return !TheBusMaster().GetInitialized(); });  // the destructor has stopped the worker
        unsigned int count = 0;
        Say("answer " + std::to_string(TheBusMaster().GetNumOfCameras(&count).GetType()));
    });
    RaiseReset();
    WaitFor([] { return g_begun.load(); });
    return 0;
}

bool CallbackIsAsleep() {
    for (const ProcessThread& thread : ListThreads()) {
        if (thread.name == "nimbrel-call" && thread.state == 'S') {
            return true;
        }
    }
    return false;
}

// Asks for the object after the destructor has given up on the callback and returned.
int CallbackThatWasLeftBehindAsks() {
    GetDeadlines().lockAtDestruction = boost::posix_time::milliseconds(20);
    // Runs after the bus master's end, for it was registered before its beginning.
    std::atexit([] {
        g_gone = true;
        WaitFor([] { return g_asks && CallbackIsAsleep(); });
        Say("asleep");
    });
    Start();
    Register([](void*, unsigned int) {
        g_begun = true;
        WaitFor([] { return g_gone.load(); });
        g_asks = true;
        TheBusMaster();
        Say("answered");
        std::_Exit(1);
    });
    RaiseReset();
    WaitFor([] { return g_begun.load(); });
    return 0;
}

// Were it to wait for the callback that it runs in, SIGALRM would end it.
int ExitInsideACallback() {
    GetDeadlines().lockAtDestruction = boost::posix_time::hours(1);
    Start();
    Register([](void*, unsigned int) { std::exit(7); });
    RaiseReset();
    WaitFor([] { return false; });
    return 1;
}

// ---- Forked processes ----------------------------------------------------------------------------------------------

std::string Describe(const Error& error) {
    return std::to_string(error.GetType()) + (*error.GetMessage() != '\0' ? std::string(" ") + error.GetMessage() : "");
}

// Every operation there is, in a process that has none of the bus master's threads.
void SayAllAnswers() {
    BusMaster& busMaster = TheBusMaster();
    unsigned int number = 77;
    ZevoGuid guid{{1, 2, 3, 4}};
    ZevoGuid ask = guid;
    HardwareInterface* hw = nullptr;
    boost::shared_ptr<HardwareInterface> kept;
    BusMasterHandle* record = nullptr;
    InterfaceType type = INTERFACE_NONE;
    CameraInfo info;
    CameraInfo found[1];
    unsigned int room = 1;
    TopologyNode tree;
    void* handle = &handle;
    bool available = false;
    const auto say = [](const char* operation, const Error& error) {
        Say(std::string(operation) + ": " + Describe(error));
    };
    Say("GetInitialized: " + std::to_string(busMaster.GetInitialized()));
    say("Initialize", busMaster.Initialize());
    say("EnableVirtualDeviceEnumeration", busMaster.EnableVirtualDeviceEnumeration());
    say("RescanBus", busMaster.RescanBus());
    Say("WaitUntilQuiet: " + std::to_string(busMaster.WaitUntilQuiet(3600000)));
    say("RegisterCallback", busMaster.RegisterCallback(nullptr, BUS_RESET, nullptr, &handle));
    say("UnregisterCallback", busMaster.UnregisterCallback(handle));
    busMaster.SetGeneration(1, 5);
    busMaster.IncrementGeneration(1);
    Say("GetGeneration: " + std::to_string(busMaster.GetGeneration(1)));
    say("GetNumOfCameras", busMaster.GetNumOfCameras(&number));
    say("GetNumOfDevices", busMaster.GetNumOfDevices(&number));
    say("GetCameraFromIndex", busMaster.GetCameraFromIndex(0, &guid));
    say("GetDeviceFromIndex", busMaster.GetDeviceFromIndex(0, &guid));
    say("GetCameraSerialNumberFromIndex", busMaster.GetCameraSerialNumberFromIndex(0, &number));
    say("GetHwInterfaceFromIndex", busMaster.GetHwInterfaceFromIndex(0, &hw));
    say("GetCameraFromSerialNumber", busMaster.GetCameraFromSerialNumber(11, &guid));
    say("GetHwInterfaceFromSerialNumber", busMaster.GetHwInterfaceFromSerialNumber(11, &hw));
    say("GetHandleFromGuid", busMaster.GetHandleFromGuid(ask, &record));
    say("GetHwInterfaceFromGuid", busMaster.GetHwInterfaceFromGuid(ask, &hw));
    say("KeepHwInterface", busMaster.KeepHwInterface(ask, &kept));
    say("GetInterfaceTypeFromGuid", busMaster.GetInterfaceTypeFromGuid(ask, &type));
    say("GetCameraFromIPAddress", busMaster.GetCameraFromIPAddress(IPAddress{{10, 0, 0, 1}}, &guid));
    say("GetCameraInfo", busMaster.GetCameraInfo(ask, &info));
    say("FireBusReset", busMaster.FireBusReset(&ask));
    say("ReadPhyRegister", busMaster.ReadPhyRegister(ask, 0, 0, 0, &number));
    say("WritePhyRegister", busMaster.WritePhyRegister(ask, 0, 0, 0, 0));
    say("GetUsbLinkInfo", busMaster.GetUsbLinkInfo(ask, &number));
    say("GetUsbPortStatus", busMaster.GetUsbPortStatus(ask, &number));
    say("GetLinkSpeed", busMaster.GetLinkSpeed(ask, &number));
    say("ForceIPAddressToCamera",
        busMaster.ForceIPAddressToCamera(MACAddress{}, IPAddress{}, IPAddress{}, IPAddress{}));
    say("ForceAllIPAddressesAutomatically", busMaster.ForceAllIPAddressesAutomatically());
    say("ForceAllIPAddressesAutomatically of one", busMaster.ForceAllIPAddressesAutomatically(31));
    say("DiscoverGigECameras", busMaster.DiscoverGigECameras(found, &room));
    say("QueryGigECameraCCPStatus", busMaster.QueryGigECameraCCPStatus(&ask, &available));
    say("GetTopology", busMaster.GetTopology(&tree));
    say("a null handle", busMaster.RegisterCallback(nullptr, BUS_RESET, nullptr, nullptr));
    say("a null guid", busMaster.GetCameraFromIndex(0, nullptr));
    say("a null count", busMaster.GetNumOfCameras(nullptr));
}

// Forks while the worker lists: it holds the main lock and the initialised mutex then, for ever in the child.
template <class Child>
int ForkWhileTheWorkerLists(Child child) {
    Start();
    const auto listing = g_hal.Block("HAL_GigEGetCameras");
    RaiseReset();
    Require(listing->WaitUntilReached(), "a listing");
    const pid_t process = fork();
    if (process == 0) {
        alarm(20);
        child();
    }
    SayHowItEnded(process);
    listing->Open();
    // The parent's bus master has not noticed.
    Require(TheBusMaster().WaitUntilQuiet(20000), "WaitUntilQuiet");
    unsigned int count = 0;
    Require(TheBusMaster().GetNumOfCameras(&count), "GetNumOfCameras");
    Say("parent " + std::to_string(count));
    return 0;
}

int ForkAndExit() {
    return ForkWhileTheWorkerLists([] { std::exit(3); });
}

int ForkAndExec() {
    return ForkWhileTheWorkerLists([] {
        execlp("sh", "sh", "-c", "exit 4", nullptr);
        std::_Exit(98);
    });
}

int ForkAndAsk() {
    return ForkWhileTheWorkerLists([] {
        SayAllAnswers();
        std::exit(5);
    });
}

int ForkAndDestroy() {
    return ForkWhileTheWorkerLists([] {
        Singleton<BusMaster>::DestroyInstance();
        Singleton<BusMaster>::DestroyInstance();
        SayAllAnswers();
        std::exit(6);
    });
}

int ForkInsideACallback() {
    Start();
    static std::atomic<pid_t> child{0};
    Register([](void*, unsigned int) {
        if (g_begun.exchange(true)) {
            return;
        }
        const pid_t process = fork();
        if (process == 0) {
            alarm(20);
            void* handle = nullptr;
            Say("RegisterCallback: " + Describe(TheBusMaster().RegisterCallback(nullptr, BUS_RESET, nullptr, &handle)));
            std::exit(8);
        }
        child = process;
    });
    RaiseReset();
    WaitFor([] { return child != 0; });
    SayHowItEnded(child);
    return 0;
}

// ---- Signals -------------------------------------------------------------------------------------------------------

// Every kind of thread that the bus master has is there when the signals come, for the application alone.
int ReadsSignals() {
    Start();
    Register([](void*, unsigned int) {
        g_begun = true;
        WaitFor([] { return g_gone.load(); });
    });
    const auto listing = g_hal.Block("HAL_UsbGetCameras", 2);
    RaiseReset();
    WaitFor([] { return g_begun.load(); });
    Require(listing->WaitUntilReached(), "a second listing");
    // Blocked now, after the threads were started.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int fd = signalfd(-1, &signals, SFD_CLOEXEC);
    Require(fd >= 0, "signalfd");
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
        kill(getpid(), number);
        signalfd_siginfo info{};
        Require(read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info), "read");
        Say("signal " + std::to_string(info.ssi_signo));
    }
    g_gone = true;
    listing->Open();
    return 0;
}

int FaultInsideACallback() {
    struct sigaction action {};
    action.sa_handler = [](int) { _exit(9); };
    sigaction(SIGSEGV, &action, nullptr);
    Start();
    Register([](void*, unsigned int) {
        auto* const page =
            static_cast<volatile char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        *page = 1;
    });
    RaiseReset();
    WaitFor([] { return false; });
    return 1;
}

const std::map<std::string, int (*)()> Scenarios = {
    {"CallbackAsksWhileTheProgramEnds", &CallbackAsksWhileTheProgramEnds},
    {"CallbackThatWasLeftBehindAsks", &CallbackThatWasLeftBehindAsks},
    {"ExitInsideACallback", &ExitInsideACallback},
    {"ForkAndExit", &ForkAndExit},
    {"ForkAndExec", &ForkAndExec},
    {"ForkAndAsk", &ForkAndAsk},
    {"ForkAndDestroy", &ForkAndDestroy},
    {"ForkInsideACallback", &ForkInsideACallback},
    {"ReadsSignals", &ReadsSignals},
    {"FaultInsideACallback", &FaultInsideACallback},
};

}  // namespace
}  // namespace Nimbrel2::Testing

// What threads of the first process held is nobody's in a forked one, and no leak. LeakSanitizer asks by this name.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __lsan_is_turned_off() { return Nimbrel2::CountForks() != 0 ? 1 : 0; }

int main(int argc, char** argv) {
    using Nimbrel2::Testing::Scenarios;
    const auto scenario = argc == 2 ? Scenarios.find(argv[1]) : Scenarios.end();
    if (scenario == Scenarios.end()) {
        return 98;
    }
    alarm(40);
    return scenario->second();
}
