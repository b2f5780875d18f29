// SPDX-License-Identifier: Apache-2.0
// The trace sink: none by default, replaceable, given every text whole.
#include <gtest/gtest.h>

#include <stdexcept>

#include "common/Trace.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2 {
namespace {

TEST(Trace, DropsTextsWhenThereIsNoSink) {
    EXPECT_EQ(nullptr, SetTraceSink(nullptr));
    EXPECT_NO_THROW(Trace("nobody hears this"));
}

TEST(Trace, HandsTextsToTheSinkUnchanged) {
    const Testing::TraceRecorder traces;
    Trace("plain %s %d\n");
    Trace("");
    EXPECT_EQ((std::vector<std::string>{"plain %s %d\n", ""}), traces.Lines());
}

TEST(Trace, DropsWhatASinkThrows) {
    for (const TraceSink sink : {TraceSink([](const std::string&) { throw std::runtime_error("full"); }),
                                 TraceSink([](const std::string&) { throw 42; })}) {
        SetTraceSink(sink);
        Trace("dropped");
    }
    SetTraceSink(nullptr);
}

TEST(Trace, ReturnsTheSinkBeforeIt) {
    const TraceSink sink = [](const std::string&) {};
    EXPECT_EQ(nullptr, SetTraceSink(sink));
    EXPECT_EQ(sink, SetTraceSink(nullptr));
    EXPECT_EQ(nullptr, SetTraceSink(nullptr));
}

}  // namespace
}  // namespace Nimbrel2
