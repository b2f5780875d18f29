// SPDX-License-Identifier: Apache-2.0
// Counts filtered packets. Any thread; no lock: each read is one system call at offset 0.
#include "platform/linux/gige/FilterCounter.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "platform/base/Netstat.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::size_t MostBytes = 64 << 10;

}  // namespace

void FilterCounter::Open() {
    m_file = FileDescriptor(::open("/proc/thread-self/net/netstat", O_RDONLY | O_CLOEXEC));
    m_first = Read();
}

std::uint64_t FilterCounter::Read() const {
    std::string text(MostBytes, '\0');
    const ssize_t size = ::pread(m_file.Get(), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return ParseNetstat(text, "IPReversePathFilter").value_or(0);
}

}  // namespace Nimbrel2::Platform::GigE
