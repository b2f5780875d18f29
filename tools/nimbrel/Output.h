// SPDX-License-Identifier: Apache-2.0
// Standard output and standard error of a command. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_OUTPUT_H
#define NIMBREL2_TOOLS_NIMBREL_OUTPUT_H

#include <string>

namespace Nimbrel2::Tool {

/// Whoever started the program may have closed some of the three standard descriptors. Keeps their numbers from being
/// those of sockets, which would be written to. For the beginning of the program.
void KeepStandardDescriptors();

/// Standard output without a buffer: what was written has left the process.
class Output {
public:
    enum class Result {
        Written,
        ReaderGone,   ///< Nobody will read any more: a command ends quietly, as `... | head` wants it.
        Interrupted,  ///< The interrupt descriptor became readable while the reader was not reading.
    };

    /// A descriptor whose readability ends a write that would wait for the reader. -1: none.
    void SetInterrupt(int fd) { m_interrupt = fd; }

    /// Writes all of the text, waiting for the reader where it must.
    /// @throws CommandError when standard output cannot be written for another reason (a full disk).
    Result Write(const std::string& text);

private:
    Result WaitForReader();

    int m_interrupt = -1;
};

/// Writes to standard error, with what a terminal would act upon replaced. What cannot be written is lost.
void WriteError(const std::string& text);

}  // namespace Nimbrel2::Tool

#endif
