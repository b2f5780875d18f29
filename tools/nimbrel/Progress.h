// SPDX-License-Identifier: Apache-2.0
// Shows on a terminal that a wait continues. A thread of its own draws; m_mutex guards only the order to stop.
#ifndef NIMBREL2_TOOLS_NIMBREL_PROGRESS_H
#define NIMBREL2_TOOLS_NIMBREL_PROGRESS_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Nimbrel2::Tool {

/// While it lives, a terminal on standard error shows a spinner, the text, the elapsed seconds and remarks, from 0.2 s
/// on. The line is wiped when the object is destroyed. Nothing is shown when standard error is not a terminal or has
/// the trace.
class Progress {
public:
    /// What has been found so far: ": 3 heard ..." or nothing. Called on the drawing thread, a few times per second.
    using Remarks = std::function<std::string()>;

    explicit Progress(const std::string& text, Remarks remarks = {});
    ~Progress();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void Draw();

    const std::string m_text;
    const Remarks m_remarks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    std::thread m_thread;
};

}  // namespace Nimbrel2::Tool

#endif
