// SPDX-License-Identifier: Apache-2.0
// Lists the cameras of this computer, once. The README shows this program.
#include <cstdio>

#include "busmaster/BusMaster.h"

int main() {
    Nimbrel2::BusMaster& busMaster = Nimbrel2::Singleton<Nimbrel2::BusMaster>::GetInstance();
    const Nimbrel2::Error error = busMaster.Initialize();
    if (error != Nimbrel2::ERROR_OK) {
        return std::fprintf(stderr, "%s\n", error.Describe().c_str()), 1;
    }
    Nimbrel2::ZevoGuid guid;
    for (unsigned int index = 0; busMaster.GetCameraFromIndex(index, &guid) == Nimbrel2::ERROR_OK; ++index) {
        Nimbrel2::CameraInfo info;
        if (busMaster.GetCameraInfo(guid, &info) != Nimbrel2::ERROR_OK) {
            continue;  // It left meanwhile.
        }
        std::printf("%u: %s %s, serial number %u\n", index, info.vendorName, info.modelName, info.serialNumber);
    }
}
