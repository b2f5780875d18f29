// SPDX-License-Identifier: Apache-2.0
// An operating system that refuses system calls and file descriptors.
#include "tests/platform/gige/Refusals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <vector>

#include "platform/base/StartThread.h"

namespace Nimbrel2::Testing {

void Refuse(int call, int argument, std::uint32_t value, int argument2, std::uint32_t value2) {
    const auto offset = [](int index) {
        return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + static_cast<std::size_t>(index) * 8
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
                                          + 4
#endif
        );
    };
    const bool two = argument2 >= 0;
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0,
                 static_cast<std::uint8_t>(two ? 5 : 3)),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(argument)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, static_cast<std::uint8_t>(two ? 3 : 1)),
    };
    if (two) {
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(argument2)));
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value2, 0, 1));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0) << std::generic_category().message(errno);
}

NoMoreDescriptors::NoMoreDescriptors() {
    // UndefinedBehaviorSanitizer needs descriptors to look at an object's type the first time: here a thread's and that
    // of the texts of errors.
    Platform::StartThread("first", [] {}).join();
    EXPECT_NE(std::system_category().message(EMFILE), "");
    getrlimit(RLIMIT_NOFILE, &m_before);
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    rlimit none = m_before;
    none.rlim_cur = static_cast<rlim_t>(next);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
}

NoMoreDescriptors::~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

LinkSwitch::LinkSwitch(NetworkNamespace& network, const std::string& interface) : m_interface(interface) {
    network.Run([this] { m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
}

LinkSwitch::~LinkSwitch() { close(m_socket); }

void LinkSwitch::SetUp() const {
    ifreq request{};
    m_interface.copy(request.ifr_name, IFNAMSIZ - 1);
    ASSERT_EQ(ioctl(m_socket, SIOCGIFFLAGS, &request), 0);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ASSERT_EQ(ioctl(m_socket, SIOCSIFFLAGS, &request), 0);
}

}  // namespace Nimbrel2::Testing
