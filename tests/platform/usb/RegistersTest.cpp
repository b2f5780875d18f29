// SPDX-License-Identifier: Apache-2.0
// Registers of cameras, over the libusb that ships, on simulated devices behind its calls of the kernel.
#include <sys/fsuid.h>
#include <sys/mount.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/platform/usb/SimulatedUsbfs.h"
#include "tests/platform/usb/UsbFixture.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {
namespace {

using Bytes = SimulatedVisionCamera::Bytes;
using Answers = std::vector<SimulatedVisionCamera::Answer>;
using testing::ElementsAre;
using testing::SizeIs;

constexpr char TestNode[] = "/dev/bus/usb/002/002";

class UsbRegisters : public UsbFixture {
public:
    UsbRegisters() {
        bed.AddController(UsbTestbed::Pci, 1, 2);
        bed.Add(Camera("2-1", 2, "A"));
        simulated->registers = {{0x1D8, 0x00010000}, {0x0, 0x6D617845}, {0x10040, 8}};
        usbfs.Attach(TestNode, simulated);
    }
    ~UsbRegisters() override {
        if (core) {
            core->Stop();
        }
        entry.reset();
        // Whatever a test did, the camera was given back.
        EXPECT_EQ(usbfs.CountClaims(), 0u);
        EXPECT_EQ(usbfs.CountFiles(), 0u);
        usbfs.DetachAll();
    }

    Platform::UsbDevice& CameraEntry() {
        if (!entry) {
            Start();
            entry = List().at(0);
        }
        return *entry;
    }
    std::uint32_t Read(std::uint64_t address) { return CameraEntry().ReadRegister(address, &value); }

    SimulatedUsbfs& usbfs = SimulatedUsbfs::Get();
    std::shared_ptr<SimulatedVisionCamera> simulated = std::make_shared<SimulatedVisionCamera>();
    Device entry;
    std::uint32_t value = 0;
};

TEST_F(UsbRegisters, AreReadAndWritten) {
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
    EXPECT_EQ(CameraEntry().WriteRegister(0x10040, 0x01020304), HAL_OK);
    EXPECT_EQ(Read(0x10040), HAL_OK);
    EXPECT_EQ(value, 0x01020304u);
    ASSERT_THAT(simulated->commands, SizeIs(3));
    const Bytes& read = simulated->commands[0];
    const Bytes expected{'U',  '3',  'V', 'C', 0x00, 0x40, 0x00, 0x08, 12, 0, read[10], read[11],  // header
                         0xD8, 0x01, 0,   0,   0,    0,    0,    0,    0,  0, 4,        0};        // address, size
    EXPECT_EQ(read, expected);
    EXPECT_EQ(simulated->claims, 3);
    EXPECT_EQ(simulated->releases, 3) << "the interface is given back after each";
}

TEST_F(UsbRegisters, AreReachedByTheAddressesThatTheGlueMakesOfTheirLow32Bits) {
    EXPECT_EQ(Read(0xFFFF000001D8), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
    simulated->registers[0x123456789ABC] = 7;
    EXPECT_EQ(Read(0x123456789ABC), HAL_OK);
    EXPECT_EQ(value, 7u);
}

TEST_F(UsbRegisters, AnswerWhatTheCameraAnswers) {
    EXPECT_EQ(Read(0x4), HAL_NO_SUCH_REGISTER);
    const struct {
        std::uint16_t status;
        std::uint32_t answer;
    } rows[] = {{0x8001, HAL_NOT_SUPPORTED},
                {0x8002, HAL_INVALID_ARGUMENT},
                {0x8003, HAL_NO_SUCH_REGISTER},
                {0x8004, HAL_WRITE_PROTECTED},
                {0x8005, HAL_INVALID_ARGUMENT},
                {0x8006, HAL_ACCESS_DENIED},
                {0x8007, HAL_BUSY},
                {0x8FFF, HAL_REFUSED},
                {0xA001, HAL_REFUSED}};
    for (const auto& row : rows) {
        simulated->onCommand = [&](const Bytes& command) {
            return Answers{{0ms, SimulatedVisionCamera::MakeAcknowledge(row.status, 0x0803,
                                                                        SimulatedVisionCamera::IdOf(command), {})}};
        };
        EXPECT_EQ(CameraEntry().WriteRegister(0x10040, 1), row.answer) << row.status;
    }
    EXPECT_THAT(simulated->commands, SizeIs(1 + std::size(rows))) << "an answer is not asked for twice";
}

TEST_F(UsbRegisters, HaveAnotherRequestIdEachTime) {
    Read(0);
    Read(0);
    EXPECT_NE(SimulatedVisionCamera::IdOf(simulated->commands[0]), SimulatedVisionCamera::IdOf(simulated->commands[1]));
    EXPECT_NE(SimulatedVisionCamera::IdOf(simulated->commands[0]), 0);
}

TEST_F(UsbRegisters, AreAskedForAgainAfterATimeOutWithTheSameId) {
    int asked = 0;
    simulated->onCommand = [&](const Bytes&) -> std::optional<Answers> {
        if (++asked < 3) {
            return Answers{};
        }
        return std::nullopt;
    };
    timings.registerTry = 50ms;
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    ASSERT_THAT(simulated->commands, SizeIs(3));
    EXPECT_EQ(simulated->commands[0], simulated->commands[2]);
}

TEST_F(UsbRegisters, OfAMuteCameraTimeOutAfterThreeTries) {
    simulated->onCommand = [](const Bytes&) { return Answers{}; };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Read(0x1D8), HAL_TIMED_OUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 600ms);
    EXPECT_THAT(simulated->commands, SizeIs(3));
}

TEST_F(UsbRegisters, OfACameraThatAsksForTimeAreWaitedFor) {
    timings.pendingLimit = 60s;  // however busy this computer is
    simulated->onCommand = [&](const Bytes& command) {
        const std::uint16_t id = SimulatedVisionCamera::IdOf(command);
        return Answers{{0ms, SimulatedVisionCamera::MakePending(id, 60000)}, {400ms, simulated->Acknowledge(command)}};
    };
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
    EXPECT_THAT(simulated->commands, SizeIs(1)) << "the command is not sent again";
}

TEST_F(UsbRegisters, AreTakenFromAnAcknowledgeThatComesWhileItsTransferIsBeingCancelled) {
    simulated->onCommand = [&](const Bytes& command) {
        return Answers{{0ms, SimulatedVisionCamera::MakePending(SimulatedVisionCamera::IdOf(command), 900)}};
    };
    simulated->onCancel = [&] {
        if (!simulated->commands.empty()) {
            simulated->Say({0ms, simulated->Acknowledge(simulated->commands.back())});
            simulated->onCancel = nullptr;
        }
    };
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
    EXPECT_THAT(simulated->commands, SizeIs(1));
}

TEST_F(UsbRegisters, OfACameraThatAsksForTimeWithoutEndTimeOutAfterOneSecond) {
    simulated->onCommand = [&](const Bytes& command) {
        Answers answers;
        for (int i = 0; i < 40; ++i) {
            answers.push_back(
                {i * 100ms, SimulatedVisionCamera::MakePending(SimulatedVisionCamera::IdOf(command), 65535)});
        }
        return answers;
    };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Read(0x1D8), HAL_TIMED_OUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_THAT(simulated->commands, SizeIs(1));
}

TEST_F(UsbRegisters, AreNotTakenFromWhatAnotherProgramHasLeftBehind) {
    simulated->Say({0ms, SimulatedVisionCamera::MakeAcknowledge(0, 0x0801, 4711, {1, 2, 3, 4})});
    simulated->Say({0ms, SimulatedVisionCamera::MakeAcknowledge(0, 0x0801, 4712, Bytes(3000, 0xEE))});
    simulated->Say({0ms, Bytes(64, 0xFF)});
    simulated->Say({0ms, {}});
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
}

TEST_F(UsbRegisters, AreNotTakenFromALateAcknowledge) {
    timings.registerTry = 20ms;
    simulated->onCommand = [](const Bytes&) { return Answers{}; };
    EXPECT_EQ(Read(0x1D8), HAL_TIMED_OUT);
    usbfs.WithLock([&] {
        simulated->onCommand = nullptr;
        simulated->registers[0x1D8] = 0xBAD;
        simulated->Say({0ms, simulated->Acknowledge(simulated->commands.back())});
        simulated->registers[0x1D8] = 0x600D;
    });
    // The camera may take longer than the short time for the first.
    std::uint32_t status = Read(0x1D8);
    for (int i = 0; i < 100 && status == HAL_TIMED_OUT; ++i) {
        status = Read(0x1D8);
    }
    EXPECT_EQ(status, HAL_OK);
    EXPECT_EQ(value, 0x600Du);
}

TEST_F(UsbRegisters, AnswerThatTheAnswerIsBadWhenAnyLengthIsWrong) {
    const auto answer = [&](const std::function<Bytes(std::uint16_t id)>& make) {
        simulated->onCommand = [make](const Bytes& command) {
            return Answers{{0ms, make(SimulatedVisionCamera::IdOf(command))}};
        };
        return Read(0x1D8);
    };
    using Camera = SimulatedVisionCamera;
    EXPECT_EQ(answer([](std::uint16_t id) {
                  return Camera::MakeAcknowledge(0, 0x0801, id, {1, 2, 3});
              }),
              HAL_BAD_ANSWER);
    EXPECT_EQ(answer([](std::uint16_t id) {
                  return Camera::MakeAcknowledge(0, 0x0801, id, {1, 2, 3, 4, 5});
              }),
              HAL_BAD_ANSWER);
    EXPECT_EQ(answer([](std::uint16_t id) { return Camera::MakeAcknowledge(0, 0x0801, id, {}); }), HAL_BAD_ANSWER);
    EXPECT_EQ(answer([](std::uint16_t id) {
                  return Camera::MakeAcknowledge(0, 0x0803, id, {0, 0, 4, 0});
              }),
              HAL_BAD_ANSWER);
    EXPECT_EQ(answer([](std::uint16_t id) { return Camera::MakeAcknowledge(0, 0x0805, id, {0, 0}); }), HAL_BAD_ANSWER);
    EXPECT_EQ(answer([](std::uint16_t id) {
                  Bytes cut = Camera::MakeAcknowledge(0, 0x0801, id, {1, 2, 3, 4});
                  cut.pop_back();
                  return cut;
              }),
              HAL_TIMED_OUT)
        << "what is no acknowledge is none";
}

TEST_F(UsbRegisters, ComeBackAfterAHalt) {
    simulated->haltedEndpoints = {SimulatedVisionCamera::OutEndpoint};
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_THAT(simulated->clearedHalts, ElementsAre(SimulatedVisionCamera::OutEndpoint));
    usbfs.WithLock([&] { simulated->haltedEndpoints = {SimulatedVisionCamera::InEndpoint}; });
    EXPECT_EQ(Read(0x1D8), HAL_OK);
    EXPECT_THAT(simulated->clearedHalts,
                ElementsAre(SimulatedVisionCamera::OutEndpoint, SimulatedVisionCamera::InEndpoint));
}

TEST_F(UsbRegisters, OfACameraThatAnotherProgramHasClaimedAreRefusedAtOnce) {
    simulated->claimedByOthers = {0};
    timings.registerTry = 3600s;  // nothing is waited for
    EXPECT_EQ(Read(0x1D8), HAL_ACCESS_DENIED);
    EXPECT_EQ(CameraEntry().WriteRegister(0x10040, 1), HAL_ACCESS_DENIED);
    EXPECT_THAT(simulated->commands, SizeIs(0));
}

TEST_F(UsbRegisters, OfACameraThatIsPulledOutMeanwhileAreGone) {
    simulated->onCommand = [&](const Bytes&) {
        bed.SendUevent("2-1", "remove");
        bed.RemoveSilently("2-1");
        usbfs.Detach(TestNode);
        return Answers{};
    };
    EXPECT_EQ(Read(0x1D8), HAL_GONE);
}

TEST_F(UsbRegisters, OfACameraThatHasJustComeBackAreFoundBeforeTheBurstIsOver) {
    timings.quiet = 3600s;
    timings.longestBurst = 3600s;
    Platform::UsbDevice& camera = CameraEntry();
    usbfs.Detach(TestNode);
    bed.Remove("2-1");
    bed.Add(Camera("2-1", 3, "A"));
    usbfs.Attach("/dev/bus/usb/002/003", simulated);
    EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_OK);
    EXPECT_EQ(value, 0x00010000u);
}

TEST_F(UsbRegisters, AreNeverReadFromAnotherDeviceThatHasGotTheNumber) {
    Platform::UsbDevice& camera = CameraEntry();
    // Its node is another device's now, and nobody has said so.
    std::filesystem::remove(bed.RealPath(TestNode));
    std::ofstream(bed.RealPath(TestNode), std::ios::binary)
        << std::string(reinterpret_cast<const char*>(HubDescriptors(0x0300).data()), HubDescriptors(0x0300).size());
    EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_GONE);
    EXPECT_THAT(simulated->commands, SizeIs(0));
}

TEST_F(UsbRegisters, OfACameraWithoutANodeMayNotBeReachedThoughItIsAttached) {
    Platform::UsbDevice& camera = CameraEntry();
    std::filesystem::remove(bed.RealPath(TestNode));
    EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_PERMISSION);
    EXPECT_EQ(camera.FireBusReset(), HAL_PERMISSION);
    bed.RemoveSilently("2-1");
    EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_GONE) << "though nobody has said so";
}

TEST_F(UsbRegisters, OfOneCameraWaitForOneAnother) {
    Platform::UsbDevice& camera = CameraEntry();
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 20; ++j) {
                std::uint32_t read = 0;
                if (camera.ReadRegister(0x1D8, &read) == HAL_OK && read == 0x00010000) {
                    ++good;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 80) << "nobody took the interface from another thread";
}

TEST_F(UsbRegisters, InFlightEndWithTheDriver) {
    simulated->onCommand = [&](const Bytes& command) {
        return Answers{{0ms, SimulatedVisionCamera::MakePending(SimulatedVisionCamera::IdOf(command), 60000)}};
    };
    timings.pendingLimit = 3600s;
    Platform::UsbDevice& camera = CameraEntry();
    std::uint32_t status = 0;
    std::thread reader([&] { status = camera.ReadRegister(0x1D8, &value); });
    bool asked = false;
    while (!asked) {
        usbfs.WithLock([&] { asked = !simulated->commands.empty(); });
    }
    core->Stop();
    reader.join();
    EXPECT_EQ(status, HAL_CLOSED);
}

// ---- Permissions ---------------------------------------------------------------------------------------------------

/// Runs it with the rights to files of nobody.
void RunAsNobody(const std::function<void()>& function) {
    std::thread([&] {
        ::setfsuid(65534);
        function();
    }).join();
}

class UsbPermissions : public UsbRegisters {
public:
    UsbPermissions() {
        using std::filesystem::perms;
        std::filesystem::permissions(bed.GetRoot(), perms(0755));
        // What redirects the calls asks there whether somebody emulates the device.
        std::filesystem::permissions(bed.GetRoot() + "/ioctl/_default", perms(0777));
        Permit(false, 2);
    }
    void Permit(bool permitted, int number) {
        std::filesystem::permissions(bed.RealPath("/dev/bus/usb/002/00" + std::to_string(number)),
                                     std::filesystem::perms(permitted ? 0666 : 0600));
    }
};

TEST_F(UsbPermissions, ToOpenTheNodeAreNeededAndMissingOnesAreSaidAtOnce) {
    timings.permissionGrace = 3600s;
    Platform::UsbDevice& camera = CameraEntry();
    RunAsNobody([&] { EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_PERMISSION); });
    RunAsNobody([&] { EXPECT_EQ(camera.FireBusReset(), HAL_PERMISSION); });
    Permit(true, 2);
    RunAsNobody([&] { EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_OK); });
}

TEST_F(UsbPermissions, AreWaitedForWhileUdevdMayStillGiveThem) {
    NetworkNamespace own;  // and mounts of one's own
    own.Run([&] {
        ASSERT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
        std::filesystem::create_directories("/run/udev");
        std::ofstream("/run/udev/control") << "";
    });
    timings.permissionGrace = 3600s;
    Platform::UsbDevice& camera = CameraEntry();
    usbfs.Detach(TestNode);
    bed.Remove("2-1");
    bed.Add(Camera("2-1", 3, "A"));
    usbfs.Attach("/dev/bus/usb/002/003", simulated);
    Permit(false, 3);
    ASSERT_TRUE(states.WaitFor([](const auto& state) {
        return state.devices.size() == 1 && state.devices[0].version == Platform::Usb::DeviceId(2, 3);
    }));
    std::uint32_t status = 0;
    std::thread reader = own.StartThread([&] {
        ::setfsuid(65534);
        status = camera.ReadRegister(0x1D8, &value);
    });
    while (usbfs.CountRefusedOpens() < 2) {
        std::this_thread::yield();
    }
    Permit(true, 3);
    reader.join();
    EXPECT_EQ(status, HAL_OK);
}

TEST_F(UsbPermissions, AreNotWaitedForWithoutUdevd) {
    timings.permissionGrace = 3600s;
    Platform::UsbDevice& camera = CameraEntry();
    bed.Remove("2-1");
    bed.Add(Camera("2-1", 3, "A"));
    Permit(false, 3);
    ASSERT_TRUE(states.WaitFor([](const auto& state) {
        return state.devices.size() == 1 && state.devices[0].version == Platform::Usb::DeviceId(2, 3);
    }));
    RunAsNobody([&] { EXPECT_EQ(camera.ReadRegister(0x1D8, &value), HAL_PERMISSION); });
}

// ---- Cameras that are named by their ids ---------------------------------------------------------------------------

/// Registers of the 48-bit space, by requests to the device.
class SimulatedIidcCamera final : public SimulatedUsbDevice {
public:
    std::map<std::pair<std::uint8_t, std::uint32_t>, std::uint32_t> registers;  ///< by request and low address
    std::vector<Setup> requests;
    bool isMute = false;
    int answerBytes = 4;

    int Control(const Setup& setup, std::uint8_t* data) override {
        if (isMute) {
            return -EAGAIN;
        }
        requests.push_back(setup);
        const std::uint32_t low = std::uint32_t{setup.index} << 16 | setup.value;
        const auto found = registers.find({setup.request, low});
        if (found == registers.end() || setup.length != 4) {
            return -EPIPE;
        }
        if (setup.requestType == 0x40) {
            found->second = static_cast<std::uint32_t>(data[0] | data[1] << 8 | data[2] << 16) |
                            static_cast<std::uint32_t>(data[3]) << 24;
            return 4;
        }
        for (int i = 0; i < 4; ++i) {
            data[i] = static_cast<std::uint8_t>(found->second >> 8 * i & 0xFF);
        }
        return answerBytes;
    }
};

class UsbVendorRequests : public UsbFixture {
public:
    UsbVendorRequests() {
        bed.AddController(UsbTestbed::Pci, 1, 2);
        MockedDevice camera = Camera("1-1", 2, "A", false);
        camera.descriptors = VendorDescriptors(0xABCD, 1);
        bed.Add(camera);
        options.cameraIds = {{0xABCD, 1}};
        simulated->registers = {{{0x7F, 0xF0000410}, 0x01020304}, {{0x80, 0x1000}, 5}};
        SimulatedUsbfs::Get().Attach("/dev/bus/usb/001/002", simulated);
        Start();
        entry = List().at(0);
    }
    ~UsbVendorRequests() override {
        core->Stop();
        EXPECT_EQ(SimulatedUsbfs::Get().CountFiles(), 0u);
        SimulatedUsbfs::Get().DetachAll();
    }

    std::shared_ptr<SimulatedIidcCamera> simulated = std::make_shared<SimulatedIidcCamera>();
    Device entry;
    std::uint32_t value = 0;
};

TEST_F(UsbVendorRequests, ReadAndWriteBothPartsOfTheAddressSpace) {
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000410, &value), HAL_OK);
    EXPECT_EQ(value, 0x01020304u);
    EXPECT_EQ(entry->ReadRegister(0xD00000001000, &value), HAL_OK);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(entry->WriteRegister(0xFFFFF0000410, 0xA0B0C0D0), HAL_OK);
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000410, &value), HAL_OK);
    EXPECT_EQ(value, 0xA0B0C0D0u);
    EXPECT_EQ(simulated->requests[0].requestType, 0xC0);
    EXPECT_EQ(simulated->requests[2].requestType, 0x40);
    EXPECT_EQ(simulated->claims, 4);
    EXPECT_EQ(simulated->releases, 4);
}

TEST_F(UsbVendorRequests, AnswerWhatCannotBeReached) {
    EXPECT_EQ(entry->ReadRegister(0x1000, &value), HAL_NO_SUCH_REGISTER) << "no request leads there";
    EXPECT_TRUE(simulated->requests.empty());
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000414, &value), HAL_NO_SUCH_REGISTER) << "the camera has none there";
    simulated->answerBytes = 2;
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000410, &value), HAL_BAD_ANSWER);
    simulated->claimedByOthers = {0};
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000410, &value), HAL_ACCESS_DENIED);
}

TEST_F(UsbVendorRequests, TimeOutAfterThreeTries) {
    simulated->isMute = true;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(entry->ReadRegister(0xFFFFF0000410, &value), HAL_TIMED_OUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 600ms);
}

}  // namespace
}  // namespace Nimbrel2::Testing
