// SPDX-License-Identifier: Apache-2.0
// How a command ends before its work is done. Values; any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMMANDERROR_H
#define NIMBREL2_TOOLS_NIMBREL_COMMANDERROR_H

#include <stdexcept>
#include <string>
#include <utility>

namespace Nimbrel2::Tool {

/// Exit status of the process; the help of each command lists them.
enum ExitStatus { ExitDone = 0, ExitFailed = 1, ExitUsage = 2 };

/// Stands in a hint for the user's own command line, run again as root.
inline constexpr char AgainAsRootMark[] = "{again-as-root}";

/// Ends the command: the text goes to standard error, the status to the shell.
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& text, ExitStatus status = ExitFailed)
        : std::runtime_error(text), m_status(status) {}

    /// @param hint  A sentence with the command to try next, on a line of its own; may be empty.
    CommandError WithHint(std::string hint) const {
        CommandError copy = *this;
        copy.m_hint = std::move(hint);
        return copy;
    }
    /// @param details  The chain of errors behind this one, which only `-v` shows.
    CommandError WithDetails(std::string details) const {
        CommandError copy = *this;
        copy.m_details = std::move(details);
        return copy;
    }

    ExitStatus GetStatus() const { return m_status; }
    const std::string& GetHint() const { return m_hint; }
    const std::string& GetDetails() const { return m_details; }

private:
    ExitStatus m_status;
    std::string m_hint;
    std::string m_details;
};

}  // namespace Nimbrel2::Tool

#endif
