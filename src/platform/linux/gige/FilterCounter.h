// SPDX-License-Identifier: Apache-2.0
// Counts the packets that the reverse path filters of the driver's network namespace have dropped. Any thread; no lock.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_FILTERCOUNTER_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_FILTERCOUNTER_H

#include <cstdint>

#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform::GigE {

class FilterCounter {
public:
    /// In the network namespace of the calling thread, whoever reads later. Where the kernel does not count it reads 0.
    void Open();
    std::uint64_t Read() const;
    /// What it was when it was opened.
    std::uint64_t GetFirst() const { return m_first; }

private:
    FileDescriptor m_file;
    std::uint64_t m_first = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
