// SPDX-License-Identifier: Apache-2.0
// Starts the bus master and prints what it lists; the process's exit status.
#ifndef CONSUMER_PRINT_COUNTS_H
#define CONSUMER_PRINT_COUNTS_H

#include <busmaster/BusMaster.h>
#include <common/Version.h>

#include <cstdio>

static_assert(__cplusplus == 201703L, "the package made this program be compiled for another standard");

inline int PrintCounts() {
    const Nimbrel2::Version version = Nimbrel2::GetVersion();
    if (version.major * 10000 + version.minor * 100 + version.patch != NIMBREL2_VERSION_NUMBER) {
        return 3;
    }
    auto& busMaster = Nimbrel2::Singleton<Nimbrel2::BusMaster>::GetInstance();
    unsigned int cameras = 1;
    unsigned int devices = 1;
    for (const Nimbrel2::Error& error :
         {busMaster.Initialize(), busMaster.GetNumOfCameras(&cameras), busMaster.GetNumOfDevices(&devices)}) {
        if (error.GetType() != Nimbrel2::ERROR_OK) {
            std::fprintf(stderr, "%s\n", error.Describe().c_str());
            return 1;
        }
    }
    std::printf("%u cameras, %u devices\n", cameras, devices);
    return 0;
}

#endif
