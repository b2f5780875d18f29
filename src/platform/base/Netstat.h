// SPDX-License-Identifier: Apache-2.0
// Counters of the kernel's network, from the text of /proc/net/netstat. Pure; any thread.
#ifndef NIMBREL2_PLATFORM_BASE_NETSTAT_H
#define NIMBREL2_PLATFORM_BASE_NETSTAT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Nimbrel2::Platform {

/// @param name  "IPReversePathFilter" for one. Nothing when the text has no such counter.
std::optional<std::uint64_t> ParseNetstat(const std::string& netstat, std::string_view name);

}  // namespace Nimbrel2::Platform

#endif
