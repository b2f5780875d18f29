// SPDX-License-Identifier: Apache-2.0
// The one way in which the platform starts threads.
#ifndef NIMBREL2_PLATFORM_BASE_STARTTHREAD_H
#define NIMBREL2_PLATFORM_BASE_STARTTHREAD_H

#include <functional>
#include <thread>

namespace Nimbrel2::Platform {

/// How a thread is started; tests install one that fails.
using ThreadStarter = std::function<std::thread(const char* name, std::function<void()> body)>;

/// Starts a thread named `name` (at most 15 characters, for debuggers). It takes none of the process's signals: those
/// belong to the application's own threads. What the body throws ends the body, not the process.
/// @throws std::system_error, std::bad_alloc when there is no room for a thread.
std::thread StartThread(const char* name, std::function<void()> body);

}  // namespace Nimbrel2::Platform

#endif
