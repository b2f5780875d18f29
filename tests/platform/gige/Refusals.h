// SPDX-License-Identifier: Apache-2.0
// An operating system that refuses system calls and file descriptors. What is refused to a thread stays refused to it
// and to those that it starts; descriptors are refused to the process.
#ifndef NIMBREL2_TESTS_PLATFORM_GIGE_REFUSALS_H
#define NIMBREL2_TESTS_PLATFORM_GIGE_REFUSALS_H

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cstdint>
#include <string>

#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {

/// Makes a system call fail with EPERM on this thread and those it starts, when its first or second argument is so.
void Refuse(int call, int argument, std::uint32_t value, int argument2 = -1, std::uint32_t value2 = 0);

/// Lets this process open no more file descriptors, until it is destroyed.
class NoMoreDescriptors {
public:
    NoMoreDescriptors();
    ~NoMoreDescriptors();
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit m_before{};
};

/// Switches a network interface on without a new file descriptor.
class LinkSwitch {
public:
    LinkSwitch(NetworkNamespace& network, const std::string& interface);
    ~LinkSwitch();
    LinkSwitch(const LinkSwitch&) = delete;
    LinkSwitch& operator=(const LinkSwitch&) = delete;

    void SetUp() const;

private:
    const std::string m_interface;
    int m_socket = -1;
};

}  // namespace Nimbrel2::Testing

#endif
