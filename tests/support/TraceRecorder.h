// SPDX-License-Identifier: Apache-2.0
// Records the trace lines of the code under test and can hold up the thread that emits one. Any thread; a leaf mutex
// that is not held while a thread is held up.
#ifndef NIMBREL2_TESTS_SUPPORT_TRACERECORDER_H
#define NIMBREL2_TESTS_SUPPORT_TRACERECORDER_H

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Gate.h"

namespace Nimbrel2::Testing {

/// Listens while it lives. One at a time.
class TraceRecorder {
public:
    TraceRecorder();
    /// Stops listening and lets every thread go on.
    ~TraceRecorder();
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    /// The lines so far, of all threads, in the order in which they came.
    std::vector<std::string> Lines() const;
    /// The lines of the calling thread only.
    std::vector<std::string> LinesOfThisThread() const;
    std::size_t Count(const std::string& line) const;
    void Clear();

    /// Waits until the line has come that many times since the start or the last Clear. False when it did not.
    bool WaitFor(const std::string& line, std::size_t times = 1, std::chrono::milliseconds timeout = TestDeadline);

    /// Every thread that emits this line from now on waits at the gate, after the line was recorded.
    std::shared_ptr<Gate> BlockAt(const std::string& line);

    struct State;

private:
    std::shared_ptr<State> m_state;
};

}  // namespace Nimbrel2::Testing

#endif
