// SPDX-License-Identifier: Apache-2.0
// Reads /proc, /sys and the rules of the packet filters. Any thread; no lock.
#include "tools/nimbrel/doctor/HostSettings.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/base/Netstat.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

constexpr std::chrono::seconds LongestRun{5};
constexpr std::size_t LongestOutput = std::size_t{16} << 20;

std::string ReadAll(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Reads until the writer is done. @return false when it takes too long or prints too much.
bool Collect(int fd, std::string* output) {
    const auto deadline = std::chrono::steady_clock::now() + LongestRun;
    std::array<char, 4096> buffer;
    while (output->size() < LongestOutput) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        const ssize_t size = read(fd, buffer.data(), buffer.size());
        if (size == 0) {
            return true;
        }
        if (size > 0) {
            output->append(buffer.data(), static_cast<std::size_t>(size));
        }
        if (size < 0 && errno != EINTR) {
            return false;
        }
    }
    return false;
}

/// Standard output of a program that ends with 0; nothing otherwise. It has no input, and its errors are dropped.
std::optional<std::string> RunQuietly(const std::vector<const char*>& words) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> arguments;
    for (const char* word : words) {
        arguments.push_back(const_cast<char*>(word));
    }
    arguments.push_back(nullptr);
    pid_t child = 0;
    const int error = posix_spawn(&child, words.front(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string output;
    const bool complete = error == 0 && Collect(ends[0], &output);
    close(ends[0]);
    if (error != 0) {
        return std::nullopt;
    }
    if (!complete) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        continue;
    }
    if (!complete || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return output;
}

// Names of the interfaces that others are built upon: parents of VLANs and macvlans, members of bonds.
std::set<std::string> ReadCarriers() {
    std::set<std::string> carriers;
    std::error_code ignored;
    for (const auto& interface : std::filesystem::directory_iterator("/sys/class/net", ignored)) {
        for (const auto& entry : std::filesystem::directory_iterator(interface.path(), ignored)) {
            if (entry.path().filename().string().rfind("upper_", 0) == 0) {
                carriers.insert(interface.path().filename());
            }
        }
    }
    return carriers;
}

// Which interfaces are bridges, and which cannot have cameras: ifb and dummy devices, bridges that nothing is plugged
// into.
void ReadKinds(HostSettings* settings) {
    std::error_code ignored;
    for (const auto& interface : std::filesystem::directory_iterator("/sys/class/net", ignored)) {
        const std::string name = interface.path().filename();
        std::istringstream flags(ReadAll(interface.path() / "flags"));
        unsigned int value = 0;
        if (flags >> std::hex >> value && (value & IFF_NOARP) != 0) {
            settings->cameraless.insert(name);
        }
        if (std::filesystem::exists(interface.path() / "bridge", ignored)) {
            settings->bridges.insert(name);
            if (std::filesystem::is_empty(interface.path() / "brif", ignored)) {
                settings->cameraless.insert(name);
            }
        }
    }
}

RuleSet ReadRules() {
    RuleSet rules;
    const auto nft = RunQuietly({"/usr/sbin/nft", "-j", "list", "ruleset"});
    if (nft) {
        if (auto chains = ParseNftRules(*nft)) {
            rules.known = true;
            rules.chains = std::move(*chains);
            if (const auto text = RunQuietly({"/usr/sbin/nft", "list", "chains"})) {
                ReadDevicesOfChains(*text, &rules.chains);
            }
        }
    }
    for (const auto& [program, tool] : {std::pair("/usr/sbin/iptables-nft-save", RuleTool::Iptables),
                                        std::pair("/usr/sbin/iptables-legacy-save", RuleTool::IptablesLegacy)}) {
        const auto text = RunQuietly({program});
        if (!text) {
            continue;
        }
        rules.known = true;
        for (Chain& chain : ParseIptablesRules(*text, tool)) {
            rules.chains.push_back(std::move(chain));
        }
    }
    return rules;
}

}  // namespace

std::optional<std::uint64_t> ParseFilteredPackets(const std::string& netstat) {
    return Platform::ParseNetstat(netstat, "IPReversePathFilter");
}

std::optional<std::uint64_t> ReadFilteredPackets() { return ParseFilteredPackets(ReadAll("/proc/net/netstat")); }

HostSettings ReadHostSettings() {
    HostSettings settings;
    std::istringstream largest(ReadAll("/proc/sys/net/core/rmem_max"));
    std::uint32_t octets = 0;
    if (largest >> octets) {
        settings.largestReceiveBuffer = octets;
    }
    settings.carriers = ReadCarriers();
    ReadKinds(&settings);
    settings.rules = ReadRules();
    return settings;
}

}  // namespace Nimbrel2::Tool::Doctor
