// SPDX-License-Identifier: Apache-2.0
// The trace sink: one atomic pointer, so that a trace point costs a load when nobody listens.
#include "common/Trace.h"

#include <atomic>

namespace Nimbrel2 {

namespace {
std::atomic<TraceSink> g_sink{nullptr};
}

void Trace(const std::string& text) noexcept {
    const TraceSink sink = g_sink.load(std::memory_order_acquire);
    if (sink == nullptr) {
        return;
    }
    try {
        sink(text);
    } catch (...) {
        // A trace changes no result, whatever becomes of it.
    }
}

TraceSink SetTraceSink(TraceSink sink) noexcept { return g_sink.exchange(sink, std::memory_order_acq_rel); }

}  // namespace Nimbrel2
