// SPDX-License-Identifier: Apache-2.0
// Follows the cameras of this computer as they come and go, until SIGINT or SIGTERM: follow_cameras. With --simulated
// those of a simulated computer, of which one is unplugged and plugged in again.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include "busmaster/BusMaster.h"
#include "common/HalStatus.h"
#include "platform/SimulatedComputer.h"

using namespace Nimbrel2;

namespace {

// Serial numbers, from the callbacks to the main thread. They hand them over and return, so that none waits for
// another.
int g_pipe[2];

void Check(bool good, const char* what) {
    if (!good) {
        std::perror(what);
        std::exit(1);
    }
}

void Check(const Error& error) {
    if (error != ERROR_OK) {
        std::fprintf(stderr, "%s\n", error.Describe().c_str());
        std::exit(1);
    }
}

void OnArrivalOrRemoval(void*, unsigned int serial) {
    Check(write(g_pipe[1], &serial, sizeof serial) == sizeof serial, "write");
}

// The cameras that are attached. Their interface objects stay good when they leave, and say so then.
class Cameras {
public:
    explicit Cameras(BusMaster& busMaster) : m_busMaster(busMaster) {}

    // Looks what there is now, for callbacks come in no particular order. False when the camera is not attached.
    bool Update(unsigned int serial) {
        ZevoGuid guid;
        boost::shared_ptr<HardwareInterface> camera;
        CameraInfo info;
        const bool isAttached = m_busMaster.GetCameraFromSerialNumber(serial, &guid) == ERROR_OK &&
                                m_busMaster.KeepHwInterface(guid, &camera) == ERROR_OK &&
                                camera->GetCameraInfo(&info) == HAL_OK;
        const auto known = m_cameras.find(serial);
        if (known != m_cameras.end()) {
            if (isAttached && known->second == camera) {
                return true;
            }
            std::printf("%u has left: %s\n", serial, HalStatusText(known->second->GetCameraInfo(&info)));
            m_cameras.erase(known);
        }
        if (isAttached) {
            std::printf("%u has arrived: %s %s\n", serial, info.vendorName, info.modelName);
            m_cameras[serial] = camera;
        }
        return isAttached;
    }

private:
    BusMaster& m_busMaster;
    std::map<unsigned int, boost::shared_ptr<HardwareInterface>> m_cameras;
};

// False when a signal asks for the end.
bool WaitForCamera(int signals, unsigned int* serial) {
    pollfd files[] = {{g_pipe[0], POLLIN, 0}, {signals, POLLIN, 0}};
    Check(poll(files, 2, -1) > 0, "poll");
    if (files[1].revents != 0) {
        return false;
    }
    Check(read(g_pipe[0], serial, sizeof *serial) == sizeof *serial, "read");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Platform::SimulatedComputer> computer;
    if (argc == 2 && std::strcmp(argv[1], "--simulated") == 0) {
        computer = Platform::SimulatedComputer::BuiltIn();
        Platform::Configure(computer->MakeOptions());  // before anybody asks for the bus master
    }
    // The library's own threads leave these two alone.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
    Check(signals >= 0 && pipe(g_pipe) == 0, "signalfd, pipe");

    BusMaster& busMaster = Singleton<BusMaster>::GetInstance();
    Check(busMaster.Initialize());
    void* arrivals = nullptr;
    void* removals = nullptr;
    Check(busMaster.RegisterCallback(OnArrivalOrRemoval, ARRIVAL, nullptr, &arrivals));
    Check(busMaster.RegisterCallback(OnArrivalOrRemoval, REMOVAL, nullptr, &removals));

    // Listed after registering, so that none is missed; one that comes in between is told once all the same.
    Cameras cameras(busMaster);
    unsigned int serial = 0;
    for (unsigned int i = 0; busMaster.GetCameraSerialNumberFromIndex(i, &serial) == ERROR_OK; ++i) {
        cameras.Update(serial);
    }
    if (computer) {
        computer->Perform(R"({"unplug": "inspection"})");
    }
    while (WaitForCamera(signals, &serial)) {
        const bool isAttached = cameras.Update(serial);
        if (computer && isAttached) {
            break;
        }
        if (computer) {
            computer->Perform(R"({"plug": "inspection"})");
        }
    }
    Check(busMaster.UnregisterCallback(arrivals));
    Check(busMaster.UnregisterCallback(removals));
}
