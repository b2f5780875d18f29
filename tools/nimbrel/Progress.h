// SPDX-License-Identifier: Apache-2.0
// Shows on a terminal that a long wait goes on. A thread of its own draws; m_mutex guards only the order to stop.
#ifndef NIMBREL2_TOOLS_NIMBREL_PROGRESS_H
#define NIMBREL2_TOOLS_NIMBREL_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace Nimbrel2::Tool {

/// While it lives, standard error shows a turning stroke, the text and the seconds gone, from 0.2 s on. Nothing at all
/// when standard error is no terminal, or has the trace. The line is gone when the object is.
class Progress {
public:
    explicit Progress(const std::string& text);
    ~Progress();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void Draw();

    const std::string m_text;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    std::thread m_thread;
};

}  // namespace Nimbrel2::Tool

#endif
