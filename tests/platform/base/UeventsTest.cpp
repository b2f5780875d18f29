// SPDX-License-Identifier: Apache-2.0
// Uevents in both forms from bytes, whole and cut at every byte, and off a real socket in a namespace of the test's
// own.
#include <endian.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/base/Uevents.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Platform {
namespace {

using namespace std::string_literals;
using Testing::NetworkNamespace;
using Receipt = UeventSocket::Receipt;

constexpr int EventLimit = 10000;  // how long an event may take that is sent before it is waited for

const std::string Properties =
    "ACTION=add\0DEVPATH=/devices/pci0000:00/0000:00:14.0/usb2/2-1\0SUBSYSTEM=usb\0MAJOR=189\0MINOR=129\0"
    "DEVNAME=bus/usb/002/002\0DEVTYPE=usb_device\0PRODUCT=2676/ba02/100\0SEQNUM=4711\0"s;
const std::string KernelForm = "add@/devices/pci0000:00/0000:00:14.0/usb2/2-1\0"s + Properties;

template <class Word>
void Append(std::string* text, Word word) {
    char bytes[sizeof word];
    std::memcpy(bytes, &word, sizeof word);
    text->append(bytes, sizeof bytes);
}

std::string UdevForm(const std::string& properties, std::uint32_t magic = 0xFEEDCAFE, std::uint32_t offset = 40) {
    std::string message = "libudev\0"s;
    Append(&message, htobe32(magic));
    Append(&message, std::uint32_t{40});  // bytes of this header
    Append(&message, offset);
    Append(&message, static_cast<std::uint32_t>(properties.size()));
    message.resize(40);  // hashes for filters
    return message + properties;
}

/// A block of exactly that size, so that the sanitizers see a read past its end.
std::vector<std::uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

struct BothForms : testing::TestWithParam<std::pair<const char*, std::string>> {};

TEST_P(BothForms, TellWhatHappenedToWhichDevice) {
    const auto bytes = Bytes(GetParam().second);
    const auto event = ParseUevent(bytes);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->action, "add");
    EXPECT_EQ(event->devicePath, "/devices/pci0000:00/0000:00:14.0/usb2/2-1");
    EXPECT_EQ(event->subsystem, "usb");
    EXPECT_EQ(event->Find("DEVTYPE"), "usb_device");
    EXPECT_EQ(event->Find("SEQNUM"), "4711");
    EXPECT_EQ(event->Find("DEV"), "") << "a name that another begins with";
    EXPECT_EQ(event->Find("MISSING"), "");
}

TEST_P(BothForms, CutAtAnyByteTellNothingThatIsNotThere) {
    const std::string& whole = GetParam().second;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const auto bytes = Bytes(whole.substr(0, size));
        const auto event = ParseUevent(bytes);
        if (!event) {
            continue;
        }
        EXPECT_EQ(event->devicePath, "/devices/pci0000:00/0000:00:14.0/usb2/2-1") << size;
        EXPECT_EQ(event->subsystem, "usb") << size;
        EXPECT_TRUE(event->Find("DEVTYPE").empty() || event->Find("DEVTYPE") == "usb_device") << size;
    }
}

INSTANTIATE_TEST_SUITE_P(Uevent, BothForms,
                         testing::Values(std::pair{"kernel", KernelForm}, std::pair{"udev", UdevForm(Properties)}),
                         [](const auto& instance) { return instance.param.first; });

struct BadMessage {
    const char* name;
    std::string bytes;
};
void PrintTo(const BadMessage& message, std::ostream* out) { *out << message.name; }

struct NoUevent : testing::TestWithParam<BadMessage> {};

TEST_P(NoUevent, IsNotTakenForOne) { EXPECT_FALSE(ParseUevent(Bytes(GetParam().bytes))); }

INSTANTIATE_TEST_SUITE_P(Message, NoUevent,
                         testing::Values(BadMessage{"Empty", ""}, BadMessage{"NoHeader", Properties},
                                         BadMessage{"NoZeroByte", "add@/devices/usb2"},
                                         BadMessage{"NoAction", "add@/devices/x\0DEVPATH=/devices/x\0SUBSYSTEM=usb\0"s},
                                         BadMessage{"NoPath", "add@/devices/x\0ACTION=add\0SUBSYSTEM=usb\0"s},
                                         BadMessage{"NoSubsystem", "add@/devices/x\0ACTION=add\0DEVPATH=/devices/x\0"s},
                                         BadMessage{"WrongMagic", UdevForm(Properties, 0xFEEDCAFF)},
                                         BadMessage{"PropertiesBehindTheEnd", UdevForm(Properties, 0xFEEDCAFE, 41)},
                                         BadMessage{"PropertiesFarBehindTheEnd",
                                                    UdevForm(Properties, 0xFEEDCAFE, 0xFFFFFFFF)},
                                         BadMessage{"HeaderAlone", "libudev\0"s}),
                         [](const auto& instance) { return instance.param.name; });

TEST(UeventProperties, WithoutAnEqualsSignArePassedOver) {
    const auto bytes = Bytes("add@/devices/x\0NONSENSE\0ACTION=add\0=\0DEVPATH=/devices/x\0SUBSYSTEM=usb\0A=b=c\0"s);
    const auto event = ParseUevent(bytes);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->Find("A"), "b=c");
}

TEST(UeventSender, IsTrustedWhenItIsTheKernelOrRoot) {
    EXPECT_TRUE(IsTrusted({0, 0}));
    EXPECT_TRUE(IsTrusted({0, 65534})) << "the kernel, seen from another user namespace";
    EXPECT_TRUE(IsTrusted({0, std::nullopt}));
    EXPECT_TRUE(IsTrusted({4711, 0})) << "udevd";
    EXPECT_FALSE(IsTrusted({4711, 1000}));
    EXPECT_FALSE(IsTrusted({4711, std::nullopt}));
}

/// Waits for the next event. Whatever else happens in the namespace is passed over.
Receipt WaitFor(UeventSocket& socket, const std::string& action, Uevent* event) {
    pollfd poll{socket.GetFd(), POLLIN, 0};
    while (::poll(&poll, 1, EventLimit) > 0) {
        const Receipt receipt = socket.Receive(event);
        if (receipt == Receipt::Lost || (receipt == Receipt::Event && event->action == action)) {
            return receipt;
        }
    }
    return Receipt::Nothing;
}

void WriteUevent(const std::string& action) {
    const FileDescriptor file(::open("/sys/class/net/lo/uevent", O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::write(file.Get(), action.data(), action.size()), static_cast<ssize_t>(action.size()));
}

// What a process of another user than root would send; one that may send at all needs this capability.
void SendAsUser(uid_t user, const std::string& message, int* error) {
    std::thread([&] {
        ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
        // Of this thread alone, which glibc's function would not be.
        if (user != 0 && ::syscall(SYS_setresuid, user, user, user) != 0) {
            *error = errno;
            return;
        }
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        data[0].effective = data[0].permitted = 1u << CAP_NET_ADMIN;
        if (user != 0 && ::syscall(SYS_capset, &header, data) != 0) {
            *error = errno;
            return;
        }
        const FileDescriptor fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
        sockaddr_nl to{};
        to.nl_family = AF_NETLINK;
        to.nl_groups = 1;
        const ssize_t sent =
            ::sendto(fd.Get(), message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        *error = sent < 0 ? errno : 0;
    }).join();
}

TEST(UeventSocketOnARealKernel, HearsTheKernelsForm) {
    NetworkNamespace network;
    network.Run([] {
        UeventSocket socket;
        ASSERT_EQ(socket.Open(), 0);
        WriteUevent("add");
        Uevent event;
        ASSERT_EQ(WaitFor(socket, "add", &event), Receipt::Event);
        EXPECT_EQ(event.devicePath, "/devices/virtual/net/lo");
        EXPECT_EQ(event.subsystem, "net");
        EXPECT_EQ(event.Find("INTERFACE"), "lo");
        EXPECT_EQ(socket.Receive(&event), Receipt::Nothing);
    });
}

TEST(UeventSocketOnARealKernel, SaysThatEventsWereLostWhenItsBufferWasFull) {
    NetworkNamespace network;
    network.Run([] {
        UeventSocket socket;
        ASSERT_EQ(socket.Open(1), 0);  // the kernel makes it its least, some 2 KiB
        for (int i = 0; i < 100; ++i) {
            WriteUevent("add");
        }
        Uevent event;
        bool lost = false;
        Receipt receipt;
        while ((receipt = socket.Receive(&event)) != Receipt::Nothing) {
            lost = lost || receipt == Receipt::Lost;
        }
        EXPECT_TRUE(lost);

        WriteUevent("change");
        EXPECT_EQ(WaitFor(socket, "change", &event), Receipt::Event) << "and hears again afterwards";
    });
}

TEST(UeventSocketOnARealKernel, KeepsAThousandEventsInItsUsualBuffer) {
    NetworkNamespace network;
    network.Run([] {
        UeventSocket socket;
        ASSERT_EQ(socket.Open(), 0);
        for (int i = 0; i < 1000; ++i) {
            WriteUevent("add");
        }
        int heard = 0;
        Uevent event;
        while (socket.Receive(&event) == Receipt::Event) {
            heard += event.action == "add" ? 1 : 0;
        }
        EXPECT_EQ(heard, 1000);
    });
}

TEST(UeventSocketOnARealKernel, HearsRootInUdevsFormAndNobodyElse) {
    NetworkNamespace network;
    network.Run([] {
        UeventSocket socket;
        ASSERT_EQ(socket.Open(), 0);
        int error = 0;
        SendAsUser(65534, UdevForm("ACTION=forged\0DEVPATH=/devices/x\0SUBSYSTEM=usb\0"s), &error);
        ASSERT_EQ(error, 0);
        SendAsUser(0, UdevForm("ACTION=true\0DEVPATH=/devices/y\0SUBSYSTEM=usb\0"s), &error);
        ASSERT_EQ(error, 0);
        SendAsUser(0, "no uevent at all", &error);
        ASSERT_EQ(error, 0);
        std::vector<std::string> actions;
        Uevent event;
        while (socket.Receive(&event) != Receipt::Nothing) {
            actions.emplace_back(event.action);
        }
        EXPECT_THAT(actions, testing::ElementsAre("true"));
    });
}

TEST(UeventSocketOnARealKernel, TakesAMessageThatIsTooLongForEventsThatWereLost) {
    NetworkNamespace network;
    network.Run([] {
        UeventSocket socket;
        ASSERT_EQ(socket.Open(), 0);
        int error = 0;
        SendAsUser(0, UdevForm("ACTION=add\0DEVPATH=/devices/x\0SUBSYSTEM=usb\0X="s + std::string(40000, 'x') + "\0"s),
                   &error);
        ASSERT_EQ(error, 0);
        Uevent event;
        EXPECT_EQ(socket.Receive(&event), Receipt::Lost);
    });
}

TEST(UeventSocket, ThatIsNotOpenHearsNothing) {
    UeventSocket socket;
    Uevent event;
    EXPECT_FALSE(socket.IsOpen());
    EXPECT_EQ(socket.Receive(&event), Receipt::Nothing);
}

bool UeventsReachAProcessIn(int namespaces) {
    // The bare call: a process with a second thread, which a sanitizer may have made, enters no user namespace.
    const long child = ::syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0);
    if (child == 0) {
        ::_exit(UeventsReachUs() ? 0 : 1);
    }
    EXPECT_GT(child, 0) << std::generic_category().message(errno);
    int status = 0;
    EXPECT_EQ(::waitpid(static_cast<pid_t>(child), &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status) == 0;
}

TEST(UeventsReachUs, InNetworksOfTheFirstUserNamespaceOnly) {
    char own[64]{};
    ASSERT_GT(::readlink("/proc/self/ns/user", own, sizeof own - 1), 0);
    const bool inFirst = std::string(own) == "user:[4026531837]";
    EXPECT_EQ(UeventsReachAProcessIn(0), inFirst);
    EXPECT_EQ(UeventsReachAProcessIn(CLONE_NEWNET), inFirst);
    EXPECT_FALSE(UeventsReachAProcessIn(CLONE_NEWUSER | CLONE_NEWNET));
    EXPECT_FALSE(UeventsReachAProcessIn(CLONE_NEWUSER)) << "cannot be told from there";
}

}  // namespace
}  // namespace Nimbrel2::Platform
