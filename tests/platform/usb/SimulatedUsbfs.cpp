// SPDX-License-Identifier: Apache-2.0
// A usbfs in the test's own process. Any thread; one lock, held for each call but never while poll waits.
#include "tests/platform/usb/SimulatedUsbfs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

namespace Nimbrel2::Testing {

namespace {

using Clock = std::chrono::steady_clock;

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::uint16_t LoadU16(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }
std::uint64_t LoadU64(const std::uint8_t* bytes) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = value << 8 | bytes[i];
    }
    return value;
}
void Append(std::vector<std::uint8_t>* bytes, std::uint64_t value, int size) {
    for (int i = 0; i < size; ++i) {
        bytes->push_back(static_cast<std::uint8_t>(value >> 8 * i & 0xFF));
    }
}

// "/dev/bus/usb/002/027" of a file below the mocked root; empty for any other.
std::string NodeOf(int fd) {
    char path[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
    if (size <= 0) {
        return {};
    }
    const std::string whole(path, static_cast<std::size_t>(size));
    const std::size_t found = whole.find("/dev/bus/usb/");
    return found == std::string::npos ? std::string() : whole.substr(found);
}

int Fail(int error) {
    errno = error;
    return -1;
}

// The descriptors that are simulated devices'. All calls of the program come by, and this is all that they touch unless
// they are about such a device: ThreadSanitizer reads debug information in the middle of a report, with this program's
// open and close, and an instrumented lock or map on that way would make it report once more and wait for itself.
std::array<std::atomic<bool>, 4096> simulatedFiles;

bool IsSimulated(int fd) {
    return fd >= 0 && static_cast<std::size_t>(fd) < simulatedFiles.size() &&
           simulatedFiles.at(static_cast<std::size_t>(fd)).load(std::memory_order_relaxed);
}

}  // namespace

int SimulatedUsbDevice::Control(const Setup&, std::uint8_t*) { return -EPIPE; }
std::optional<int> SimulatedUsbDevice::BulkOut(std::uint8_t, std::span<const std::uint8_t>) { return -EPIPE; }
std::optional<std::vector<std::uint8_t>> SimulatedUsbDevice::BulkIn(std::uint8_t) { return std::nullopt; }
int SimulatedUsbDevice::Reset() { return 0; }

SimulatedUsbfs& SimulatedUsbfs::Get() {
    // Never destroyed: files are closed to the very end of the program.
    static auto* const instance = new SimulatedUsbfs;
    return *instance;
}

void SimulatedUsbfs::Attach(const std::string& node, std::shared_ptr<SimulatedUsbDevice> device) {
    const std::lock_guard lock(m_mutex);
    m_devices[node] = std::move(device);
}

void SimulatedUsbfs::Detach(const std::string& node) {
    const std::lock_guard lock(m_mutex);
    m_devices.erase(node);
    for (auto& [fd, file] : m_files) {
        if (file.node == node) {
            file.device = nullptr;
        }
    }
}

void SimulatedUsbfs::DetachAll() {
    const std::lock_guard lock(m_mutex);
    m_devices.clear();
    m_refusedOpens = 0;
    for (auto& [fd, file] : m_files) {
        file.device = nullptr;
    }
}

void SimulatedUsbfs::WithLock(const std::function<void()>& function) {
    const std::lock_guard lock(m_mutex);
    function();
}

std::size_t SimulatedUsbfs::CountClaims() {
    const std::lock_guard lock(m_mutex);
    std::size_t count = 0;
    for (const auto& [fd, file] : m_files) {
        count += file.claims.size();
    }
    return count;
}

std::size_t SimulatedUsbfs::CountFiles() {
    const std::lock_guard lock(m_mutex);
    return m_files.size();
}

SimulatedUsbfs::File* SimulatedUsbfs::Find(int fd) {
    if (const auto found = m_files.find(fd); found != m_files.end()) {
        return &found->second;
    }
    if (m_devices.empty() || fd < 0 || static_cast<std::size_t>(fd) >= simulatedFiles.size()) {
        return nullptr;
    }
    const std::string node = NodeOf(fd);
    const auto device = m_devices.find(node);
    if (device == m_devices.end()) {
        return nullptr;
    }
    File file;
    file.node = node;
    file.device = device->second;
    simulatedFiles.at(static_cast<std::size_t>(fd)) = true;
    return &m_files.emplace(fd, std::move(file)).first->second;
}

bool SimulatedUsbfs::Owns(int fd) { return IsSimulated(fd); }

void SimulatedUsbfs::Close(int fd) {
    const std::lock_guard lock(m_mutex);
    m_files.erase(fd);
    simulatedFiles.at(static_cast<std::size_t>(fd)) = false;
}

void SimulatedUsbfs::End(Transfer& transfer, int status, int length) {
    transfer.ended = true;
    transfer.urb->status = status;
    transfer.urb->actual_length = length;
}

void SimulatedUsbfs::Advance(File& file) {
    for (Transfer& transfer : file.transfers) {
        if (transfer.ended) {
            continue;
        }
        usbdevfs_urb& urb = *transfer.urb;
        auto* const buffer = static_cast<std::uint8_t*>(urb.buffer);
        if (!file.device) {
            End(transfer, -ENODEV, 0);
        } else if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
            const SimulatedUsbDevice::Setup setup{buffer[0], buffer[1], LoadU16(buffer + 2), LoadU16(buffer + 4),
                                                  LoadU16(buffer + 6)};
            const int result = file.device->Control(setup, buffer + 8);
            if (result != -EAGAIN) {
                End(transfer, std::min(result, 0), std::max(result, 0));
            }
        } else if (file.device->haltedEndpoints.count(urb.endpoint) != 0) {
            End(transfer, -EPIPE, 0);
        } else if ((urb.endpoint & USB_DIR_IN) == 0) {
            const auto taken =
                file.device->BulkOut(urb.endpoint, {buffer, static_cast<std::size_t>(urb.buffer_length)});
            if (taken) {
                End(transfer, std::min(*taken, 0), std::max(*taken, 0));
            }
        } else if (const auto said = file.device->BulkIn(urb.endpoint)) {
            const std::size_t length = std::min(said->size(), static_cast<std::size_t>(urb.buffer_length));
            std::copy_n(said->begin(), length, buffer);
            End(transfer, said->size() > length ? -EOVERFLOW : 0, static_cast<int>(length));
        }
    }
}

short SimulatedUsbfs::Poll(int fd) {
    const std::lock_guard lock(m_mutex);
    File* const file = Find(fd);
    if (file == nullptr) {
        return 0;
    }
    Advance(*file);
    if (!file->device) {
        return POLLERR;
    }
    const bool any = std::any_of(file->transfers.begin(), file->transfers.end(),
                                 [](const Transfer& transfer) { return transfer.ended; });
    return any ? POLLOUT : short{0};
}

int SimulatedUsbfs::Submit(File& file, usbdevfs_urb* urb) {
    if (!file.device) {
        return Fail(ENODEV);
    }
    if (urb->type != USBDEVFS_URB_TYPE_BULK && urb->type != USBDEVFS_URB_TYPE_CONTROL) {
        return Fail(EINVAL);
    }
    // Endpoints belong to interfaces that must have been claimed; the control endpoint does not.
    if (urb->type == USBDEVFS_URB_TYPE_BULK && file.claims.empty()) {
        return Fail(EBUSY);
    }
    file.transfers.push_back({urb, false});
    return 0;
}

int SimulatedUsbfs::Reap(File& file, void** urb) {
    Advance(file);
    const auto ended = std::find_if(file.transfers.begin(), file.transfers.end(),
                                    [](const Transfer& transfer) { return transfer.ended; });
    if (ended == file.transfers.end()) {
        return Fail(file.device ? EAGAIN : ENODEV);
    }
    *urb = ended->urb;
    file.transfers.erase(ended);
    return 0;
}

int SimulatedUsbfs::Discard(File& file, const usbdevfs_urb* urb) {
    const auto found = std::find_if(file.transfers.begin(), file.transfers.end(),
                                    [urb](const Transfer& transfer) { return transfer.urb == urb && !transfer.ended; });
    if (found == file.transfers.end()) {
        return Fail(EINVAL);
    }
    int length = 0;
    if (file.device && file.device->onCancel && (urb->endpoint & USB_DIR_IN) != 0) {
        file.device->onCancel();
        // What comes while the kernel takes the transfer back is in it, and its status is that of a cancelled one.
        if (const auto said = file.device->BulkIn(urb->endpoint)) {
            length = static_cast<int>(std::min(said->size(), static_cast<std::size_t>(urb->buffer_length)));
            std::copy_n(said->begin(), length, static_cast<std::uint8_t*>(urb->buffer));
        }
    }
    End(*found, -ENOENT, length);
    return 0;
}

int SimulatedUsbfs::Claim(File& file, unsigned int interface) {
    if (file.claims.count(interface) != 0) {
        return 0;
    }
    if (file.device->claimedByOthers.count(interface) != 0) {
        return Fail(EBUSY);
    }
    for (const auto& [fd, other] : m_files) {
        if (other.device == file.device && other.claims.count(interface) != 0) {
            return Fail(EBUSY);
        }
    }
    file.claims.insert(interface);
    ++file.device->claims;
    return 0;
}

std::optional<int> SimulatedUsbfs::Ioctl(int fd, unsigned long request, void* argument) {
    const std::lock_guard lock(m_mutex);
    File* const file = Find(fd);
    if (file == nullptr) {
        return std::nullopt;
    }
    if (request == USBDEVFS_REAPURBNDELAY) {
        return Reap(*file, static_cast<void**>(argument));
    }
    if (request == USBDEVFS_DISCARDURB) {
        return Discard(*file, static_cast<usbdevfs_urb*>(argument));
    }
    if (!file->device) {
        return Fail(ENODEV);
    }
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES:
            *static_cast<std::uint32_t*>(argument) = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                     USBDEVFS_CAP_REAP_AFTER_DISCONNECT |
                                                     USBDEVFS_CAP_BULK_CONTINUATION;
            return 0;
        case USBDEVFS_CONNECTINFO:
            *static_cast<usbdevfs_connectinfo*>(argument) = {
                static_cast<unsigned int>(std::stoul(file->node.substr(file->node.rfind('/') + 1))), 0};
            return 0;
        case USBDEVFS_GET_SPEED:
            return USB_SPEED_SUPER;
        case USBDEVFS_CONTROL: {
            const auto& transfer = *static_cast<usbdevfs_ctrltransfer*>(argument);
            if (transfer.bRequestType == USB_DIR_IN && transfer.bRequest == USB_REQ_GET_CONFIGURATION) {
                *static_cast<std::uint8_t*>(transfer.data) = 1;
                return 1;
            }
            return Fail(EPIPE);
        }
        case USBDEVFS_CLAIMINTERFACE:
            return Claim(*file, *static_cast<unsigned int*>(argument));
        case USBDEVFS_RELEASEINTERFACE:
            if (file->claims.erase(*static_cast<unsigned int*>(argument)) == 0) {
                return Fail(EINVAL);
            }
            ++file->device->releases;
            return 0;
        case USBDEVFS_CLEAR_HALT: {
            const auto endpoint = static_cast<std::uint8_t>(*static_cast<unsigned int*>(argument));
            file->device->haltedEndpoints.erase(endpoint);
            file->device->clearedHalts.insert(endpoint);
            return 0;
        }
        case USBDEVFS_RESET:
            ++file->device->resets;
            if (const int error = file->device->Reset(); error != 0) {
                return Fail(error);
            }
            return 0;
        case USBDEVFS_SUBMITURB:
            return Submit(*file, static_cast<usbdevfs_urb*>(argument));
        default:
            return Fail(ENOTTY);
    }
}

// ---- A camera ------------------------------------------------------------------------------------------------------

std::optional<int> SimulatedVisionCamera::BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> bytes) {
    if (endpoint != OutEndpoint) {
        return -EPIPE;
    }
    const Bytes command(bytes.begin(), bytes.end());
    commands.push_back(command);
    const auto answers = onCommand ? onCommand(command) : std::nullopt;
    if (answers) {
        for (const Answer& answer : *answers) {
            Say(answer);
        }
    } else {
        Say({std::chrono::milliseconds(0), Acknowledge(command)});
    }
    return static_cast<int>(bytes.size());
}

std::optional<SimulatedVisionCamera::Bytes> SimulatedVisionCamera::BulkIn(std::uint8_t endpoint) {
    if (endpoint != InEndpoint || m_waiting.empty() || Clock::now() < m_waiting.front().at) {
        return std::nullopt;
    }
    const Bytes bytes = m_waiting.front().bytes;
    m_waiting.pop_front();
    return bytes;
}

void SimulatedVisionCamera::Say(Answer answer) {
    m_waiting.push_back({Clock::now() + answer.after, std::move(answer.bytes)});
}

std::uint16_t SimulatedVisionCamera::IdOf(const Bytes& command) { return LoadU16(command.data() + 10); }

SimulatedVisionCamera::Bytes SimulatedVisionCamera::MakeAcknowledge(std::uint16_t status, std::uint16_t command,
                                                                    std::uint16_t id, const Bytes& payload) {
    Bytes bytes{'U', '3', 'V', 'C'};
    Append(&bytes, status, 2);
    Append(&bytes, command, 2);
    Append(&bytes, payload.size(), 2);
    Append(&bytes, id, 2);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

SimulatedVisionCamera::Bytes SimulatedVisionCamera::MakePending(std::uint16_t id, std::uint16_t milliseconds) {
    Bytes payload;
    Append(&payload, 0, 2);
    Append(&payload, milliseconds, 2);
    return MakeAcknowledge(0, 0x0805, id, payload);
}

SimulatedVisionCamera::Bytes SimulatedVisionCamera::Acknowledge(const Bytes& command) {
    const std::uint16_t what = LoadU16(command.data() + 6);
    const std::uint16_t id = IdOf(command);
    const auto acknowledge = static_cast<std::uint16_t>(what + 1);
    const std::uint64_t address = LoadU64(command.data() + 12);
    const auto found = registers.find(address);
    if (found == registers.end()) {
        return MakeAcknowledge(0x8003, acknowledge, id, {});
    }
    Bytes payload;
    if (what == 0x0800) {
        Append(&payload, found->second, 4);
    } else {
        found->second = static_cast<std::uint32_t>(LoadU16(command.data() + 20)) |
                        static_cast<std::uint32_t>(LoadU16(command.data() + 22)) << 16;
        Append(&payload, 0, 2);
        Append(&payload, 4, 2);
    }
    return MakeAcknowledge(0, acknowledge, id, payload);
}

}  // namespace Nimbrel2::Testing

// ---- The calls of the C library that libusb makes ------------------------------------------------------------------

using Nimbrel2::Testing::SimulatedUsbfs;

// libusb, a library beside this program, must find them first, also when the rest of the program is hidden from it.
#pragma GCC visibility push(default)
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) == 'U') {
        if (const auto result = SimulatedUsbfs::Get().Ioctl(fd, request, argument)) {
            return *result;
        }
    }
    static auto* const next = Nimbrel2::Testing::Next<int(int, unsigned long, ...)>("ioctl");
    return next(fd, request, argument);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
    va_end(arguments);
    static auto* const next = Nimbrel2::Testing::Next<int(const char*, int, ...)>("open");
    const int fd = next(path, flags, mode);
    if (fd < 0 && errno == EACCES && std::strncmp(path, "/dev/bus/usb/", 13) == 0) {
        SimulatedUsbfs::Get().Refused();
    }
    return fd;
}

extern "C" int close(int fd) {
    if (Nimbrel2::Testing::IsSimulated(fd)) {
        SimulatedUsbfs::Get().Close(fd);
    }
    static auto* const next = Nimbrel2::Testing::Next<int(int)>("close");
    return next(fd);
}

extern "C" int poll(pollfd* files, nfds_t count, int timeout) {
    static auto* const next = Nimbrel2::Testing::Next<int(pollfd*, nfds_t, int)>("poll");
    SimulatedUsbfs& usbfs = SimulatedUsbfs::Get();
    const bool any = std::any_of(files, files + count, [&](const pollfd& file) { return usbfs.Owns(file.fd); });
    if (!any) {
        return next(files, count, timeout);
    }
    // What a device does has no file to wait on: it is looked at each millisecond.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    std::vector<pollfd> others(files, files + count);
    while (true) {
        int ready = 0;
        for (nfds_t i = 0; i < count; ++i) {
            files[i].revents = 0;
            if (!usbfs.Owns(files[i].fd)) {
                continue;
            }
            others[i].fd = -1;
            files[i].revents = static_cast<short>(usbfs.Poll(files[i].fd) & (files[i].events | POLLERR));
            ready += files[i].revents != 0 ? 1 : 0;
        }
        const bool isOver = timeout >= 0 && std::chrono::steady_clock::now() >= deadline;
        const int more = next(others.data(), count, ready != 0 || isOver ? 0 : 1);
        if (more < 0) {
            return more;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (others[i].fd >= 0) {
                files[i].revents = others[i].revents;
            }
        }
        ready += more;
        if (ready != 0 || isOver) {
            return ready;
        }
    }
}
#pragma GCC visibility pop
