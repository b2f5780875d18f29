// SPDX-License-Identifier: Apache-2.0
// How a command ends before its work is done.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMMANDERROR_H
#define NIMBREL2_TOOLS_NIMBREL_COMMANDERROR_H

#include <stdexcept>
#include <string>

namespace Nimbrel2::Tool {

/// What the process ends with; the help of every command tells it to users.
enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

/// Ends the command: the text goes to standard error, the status to the shell.
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& text, ExitStatus status = kFailed)
        : std::runtime_error(text), m_status(status) {}

    ExitStatus GetStatus() const { return m_status; }

private:
    ExitStatus m_status;
};

}  // namespace Nimbrel2::Tool

#endif
