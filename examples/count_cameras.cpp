// SPDX-License-Identifier: Apache-2.0
// Starts the bus master and says how many cameras it lists. Linked with null_hal.c it lists none.
#include <cstdio>

#include "busmaster/BusMaster.h"

using namespace Nimbrel2;

int main() {
    BusMaster& busMaster = Singleton<BusMaster>::GetInstance();
    unsigned int cameras = 0;
    Error error = busMaster.Initialize();
    if (error.GetType() == ERROR_OK) {
        error = busMaster.GetNumOfCameras(&cameras);
    }
    if (error.GetType() != ERROR_OK) {
        std::fprintf(stderr, "%s\n", error.Describe().c_str());
        return 1;
    }
    std::printf("%u cameras\n", cameras);
    return 0;
}
