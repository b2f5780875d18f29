// SPDX-License-Identifier: Apache-2.0
// Reads one register of a camera: read_register SERIAL ADDRESS. The README shows this program.
#include <cstdio>
#include <cstdlib>

#include "busmaster/BusMaster.h"
#include "common/HalStatus.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return std::fputs("usage: read_register SERIAL ADDRESS\n", stderr), 2;
    }
    Nimbrel2::BusMaster& busMaster = Nimbrel2::Singleton<Nimbrel2::BusMaster>::GetInstance();
    Nimbrel2::ZevoGuid guid;
    boost::shared_ptr<Nimbrel2::HardwareInterface> camera;  // Stays good when the camera leaves meanwhile.
    const unsigned int serial = static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10));
    Nimbrel2::Error error = busMaster.Initialize();
    if (error == Nimbrel2::ERROR_OK) {
        error = busMaster.GetCameraFromSerialNumber(serial, &guid);
    }
    if (error == Nimbrel2::ERROR_OK) {
        error = busMaster.KeepHwInterface(guid, &camera);
    }
    if (error != Nimbrel2::ERROR_OK) {
        return std::fprintf(stderr, "%s\n", error.Describe().c_str()), 1;
    }
    std::uint32_t value = 0;
    const std::uint32_t status = camera->ReadRegister(std::strtoull(argv[2], nullptr, 0), 0xFFFFFFFF, &value);
    if (status != HAL_OK) {
        return std::fprintf(stderr, "%s\n", Nimbrel2::HalStatusText(status)), 1;
    }
    std::printf("0x%08x\n", value);
}
