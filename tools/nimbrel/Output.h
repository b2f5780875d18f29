// SPDX-License-Identifier: Apache-2.0
// Standard output and standard error of a command. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_OUTPUT_H
#define NIMBREL2_TOOLS_NIMBREL_OUTPUT_H

#include <chrono>
#include <optional>
#include <string>

namespace Nimbrel2::Tool {

/// The parent may have closed some of the three standard descriptors. Keeps their numbers from being reused for
/// sockets, which would then be written to. Call first.
void KeepStandardDescriptors();

/// Standard output without a buffer.
class Output {
public:
    enum class Result {
        Written,
        ReaderGone,   ///< The pipe is closed: a command ends quietly, as in `... | head`.
        Interrupted,  ///< The interrupt descriptor became readable while the reader was not reading.
    };

    /// A descriptor that ends a blocked write when it becomes readable. -1: none.
    void SetInterrupt(int fd) { m_interrupt = fd; }

    /// Writes all of the text; blocks while the reader does not read.
    /// @throws CommandError when writing fails for another reason than a closed pipe, such as a full disk.
    Result Write(const std::string& text);

    /// Waits until the interrupt descriptor is readable, the reader of standard output is gone, or the time is over.
    /// @param time  Nothing: no limit.
    static void WaitForEnd(int interrupt, std::optional<std::chrono::milliseconds> time = std::nullopt);

private:
    Result WaitForReader();

    int m_interrupt = -1;
};

/// Writes to standard error, with everything replaced that a terminal would act on. What cannot be written is lost.
void WriteError(const std::string& text);

}  // namespace Nimbrel2::Tool

#endif
