// SPDX-License-Identifier: Apache-2.0
// Starts the bus master and prints what it lists; the process's exit status.
#ifndef CONSUMER_PRINT_COUNTS_H
#define CONSUMER_PRINT_COUNTS_H

#include <busmaster/BusMaster.h>

#include <cstdio>

inline int PrintCounts() {
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
