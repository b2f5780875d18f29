// SPDX-License-Identifier: Apache-2.0
// Devices that answer requests behind the device nodes of a mocked /dev: ioctl, poll and close of the program that this
// is linked into come here when they are about such a node, as the kernel's usbfs would take them. So the libusb that
// ships is run as it is, on mocked devices. Any thread; one lock.
#ifndef NIMBREL2_TESTS_PLATFORM_USB_SIMULATEDUSBFS_H
#define NIMBREL2_TESTS_PLATFORM_USB_SIMULATEDUSBFS_H

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

struct usbdevfs_urb;

namespace Nimbrel2::Testing {

/// A device. Its functions are called with the simulation's lock held.
class SimulatedUsbDevice {
public:
    struct Setup {
        std::uint8_t requestType = 0;
        std::uint8_t request = 0;
        std::uint16_t value = 0;
        std::uint16_t index = 0;
        std::uint16_t length = 0;
    };

    virtual ~SimulatedUsbDevice() = default;
    /// @param data  In or out, setup.length bytes. @return bytes, or a negative errno: -EPIPE for "no".
    virtual int Control(const Setup& setup, std::uint8_t* data);
    /// @return bytes or a negative errno; nothing: it does not take them now.
    virtual std::optional<int> BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> bytes);
    /// The next transfer that it has to say; nothing: it has none yet.
    virtual std::optional<std::vector<std::uint8_t>> BulkIn(std::uint8_t endpoint);
    /// @return 0 or an errno.
    virtual int Reset();
    /// Called before a transfer is cancelled: what the device says now comes just in time.
    std::function<void()> onCancel;
    /// Nothing for one that this user may claim.
    std::set<unsigned int> claimedByOthers;
    std::set<std::uint8_t> haltedEndpoints;

    // What was done to it.
    int resets = 0;
    int claims = 0;
    int releases = 0;
    std::set<std::uint8_t> clearedHalts;
};

class SimulatedUsbfs {
public:
    static SimulatedUsbfs& Get();

    /// @param node  "/dev/bus/usb/002/027": one that a UsbTestbed has.
    void Attach(const std::string& node, std::shared_ptr<SimulatedUsbDevice> device);
    /// The device is pulled out: its files answer so from here on.
    void Detach(const std::string& node);
    void DetachAll();
    /// Runs with the lock held: to look at a device and to change it.
    void WithLock(const std::function<void()>& function);
    /// Interfaces that this program holds now, over all devices.
    std::size_t CountClaims();
    /// Files of devices that are open now.
    std::size_t CountFiles();
    /// How often somebody was not permitted to open a node, since the last DetachAll.
    int CountRefusedOpens() const { return m_refusedOpens; }
    void Refused() { ++m_refusedOpens; }

    // The calls. Nothing: this file is none of ours.
    std::optional<int> Ioctl(int fd, unsigned long request, void* argument);
    void Close(int fd);
    bool Owns(int fd);
    /// POLLOUT when a transfer has ended, POLLERR when the device is gone.
    short Poll(int fd);

private:
    struct Transfer {
        usbdevfs_urb* urb = nullptr;
        bool ended = false;
    };
    struct File {
        std::string node;
        std::shared_ptr<SimulatedUsbDevice> device;  ///< null when it was pulled out
        std::deque<Transfer> transfers;
        std::set<unsigned int> claims;
    };

    File* Find(int fd);  // the lock is held
    void Advance(File& file);
    static void End(Transfer& transfer, int status, int length);
    int Submit(File& file, usbdevfs_urb* urb);
    int Reap(File& file, void** urb);
    int Discard(File& file, const usbdevfs_urb* urb);
    int Claim(File& file, unsigned int interface);

    std::recursive_mutex m_mutex;
    std::map<std::string, std::shared_ptr<SimulatedUsbDevice>> m_devices;
    std::map<int, File> m_files;
    std::atomic<int> m_refusedOpens{0};
};

/// A USB3 Vision camera with quadlet registers, which can be told to misbehave.
class SimulatedVisionCamera : public SimulatedUsbDevice {
public:
    using Bytes = std::vector<std::uint8_t>;
    struct Answer {
        std::chrono::milliseconds after{0};
        Bytes bytes;
    };

    std::map<std::uint64_t, std::uint32_t> registers;
    /// In place of what it would answer to a command. Nothing: what it would.
    std::function<std::optional<std::vector<Answer>>(const Bytes& command)> onCommand;
    std::vector<Bytes> commands;  ///< what it was sent

    static constexpr std::uint8_t OutEndpoint = 0x01;
    static constexpr std::uint8_t InEndpoint = 0x81;

    std::optional<int> BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> bytes) override;
    std::optional<Bytes> BulkIn(std::uint8_t endpoint) override;

    /// What it answers to a command when nothing is wrong with it.
    Bytes Acknowledge(const Bytes& command);
    /// An acknowledge of one's own; the length is put in.
    static Bytes MakeAcknowledge(std::uint16_t status, std::uint16_t command, std::uint16_t id, const Bytes& payload);
    static Bytes MakePending(std::uint16_t id, std::uint16_t milliseconds);
    static std::uint16_t IdOf(const Bytes& command);
    /// Leaves something for whoever reads next.
    void Say(Answer answer);

private:
    struct Waiting {
        std::chrono::steady_clock::time_point at;
        Bytes bytes;
    };
    std::deque<Waiting> m_waiting;
};

}  // namespace Nimbrel2::Testing

#endif
