// SPDX-License-Identifier: Apache-2.0
// The trace sink of the tests. Any thread; one mutex for the sink's target and one for the lines, both leaves.
#include "tests/support/TraceRecorder.h"

#include <algorithm>
#include <thread>

#include "common/Trace.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Testing {

struct TraceRecorder::State {
    struct Line {
        std::string text;
        std::thread::id thread;
    };

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Line> lines;
    std::vector<std::pair<std::string, std::shared_ptr<Gate>>> gates;

    std::size_t Count(const std::string& text) const {
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(), [&text](const Line& line) { return line.text == text; }));
    }
};

namespace {

// Never destroyed: a thread of the code under test may outlive the test that started it.
struct Target {
    std::mutex mutex;
    std::shared_ptr<TraceRecorder::State> state;
};

Target& GetTarget() {
    static Target& target = *new Target;
    return target;
}

void Record(const std::string& text) {
    const AllocationFailure::Pause pause;
    std::shared_ptr<TraceRecorder::State> state;
    {
        const std::lock_guard<std::mutex> lock(GetTarget().mutex);
        state = GetTarget().state;
    }
    if (!state) {
        return;
    }
    std::vector<std::shared_ptr<Gate>> gates;
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        state->lines.push_back({text, std::this_thread::get_id()});
        for (const auto& [line, gate] : state->gates) {
            if (line == text) {
                gates.push_back(gate);
            }
        }
        state->changed.notify_all();
    }
    for (const auto& gate : gates) {
        gate->Pass();
    }
}

}  // namespace

TraceRecorder::TraceRecorder() : m_state(std::make_shared<State>()) {
    {
        const std::lock_guard<std::mutex> lock(GetTarget().mutex);
        GetTarget().state = m_state;
    }
    SetTraceSink(&Record);
}

TraceRecorder::~TraceRecorder() {
    SetTraceSink(nullptr);
    {
        const std::lock_guard<std::mutex> lock(GetTarget().mutex);
        GetTarget().state.reset();
    }
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const auto& gate : m_state->gates) {
        gate.second->Open();
    }
}

std::vector<std::string> TraceRecorder::Lines() const {
    const AllocationFailure::Pause pause;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    std::vector<std::string> lines;
    for (const State::Line& line : m_state->lines) {
        lines.push_back(line.text);
    }
    return lines;
}

std::vector<std::string> TraceRecorder::LinesOfThisThread() const {
    const AllocationFailure::Pause pause;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    std::vector<std::string> lines;
    for (const State::Line& line : m_state->lines) {
        if (line.thread == std::this_thread::get_id()) {
            lines.push_back(line.text);
        }
    }
    return lines;
}

std::size_t TraceRecorder::Count(const std::string& line) const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->Count(line);
}

void TraceRecorder::Clear() {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->lines.clear();
}

bool TraceRecorder::WaitFor(const std::string& line, std::size_t times, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, timeout, [&] { return m_state->Count(line) >= times; });
}

std::shared_ptr<Gate> TraceRecorder::BlockAt(const std::string& line) {
    const AllocationFailure::Pause pause;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    auto gate = std::make_shared<Gate>();
    m_state->gates.emplace_back(line, gate);
    return gate;
}

}  // namespace Nimbrel2::Testing
