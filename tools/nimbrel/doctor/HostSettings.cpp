// SPDX-License-Identifier: Apache-2.0
// Reads /proc and the packet filter's rules. Any thread; no lock.
#include "tools/nimbrel/doctor/HostSettings.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/base/Netstat.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

constexpr std::chrono::seconds kLongestRun{5};
constexpr std::size_t kLongestOutput = std::size_t{16} << 20;

std::string ReadAll(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Reads until the writer is done. @return false when it takes too long or says too much.
bool Collect(int fd, std::string* output) {
    const auto deadline = std::chrono::steady_clock::now() + kLongestRun;
    std::array<char, 4096> buffer;
    while (output->size() < kLongestOutput) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) continue;
        const ssize_t size = read(fd, buffer.data(), buffer.size());
        if (size == 0) return true;
        if (size > 0) output->append(buffer.data(), static_cast<std::size_t>(size));
        if (size < 0 && errno != EINTR) return false;
    }
    return false;
}

/// Standard output of a program that ends well; nothing otherwise. It sees no input and its errors go nowhere.
std::optional<std::string> RunQuietly(const std::vector<const char*>& words) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> arguments;
    for (const char* word : words) arguments.push_back(const_cast<char*>(word));
    arguments.push_back(nullptr);
    pid_t child = 0;
    const int error = posix_spawn(&child, words.front(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string output;
    const bool complete = error == 0 && Collect(ends[0], &output);
    close(ends[0]);
    if (error != 0) return std::nullopt;
    if (!complete) kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (!complete || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return output;
}

std::string TextOf(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

std::optional<std::vector<InputChain>> ParseRuleset(const std::string& json) {
    const nlohmann::json document = nlohmann::json::parse(json, nullptr, false);
    if (!document.is_object()) return std::nullopt;
    const auto entries = document.find("nftables");
    if (entries == document.end() || !entries->is_array()) return std::nullopt;
    std::vector<InputChain> chains;
    for (const nlohmann::json& entry : *entries) {
        if (!entry.is_object()) continue;
        const auto chain = entry.find("chain");
        if (chain == entry.end() || !chain->is_object() || TextOf(*chain, "hook") != "input") continue;
        const std::string family = TextOf(*chain, "family");
        if (family != "inet" && family != "ip") continue;
        chains.push_back({family, TextOf(*chain, "table"), TextOf(*chain, "name"), TextOf(*chain, "policy") == "drop"});
    }
    return chains;
}

std::optional<std::uint64_t> ParseFilteredPackets(const std::string& netstat) {
    return Platform::ParseNetstat(netstat, "IPReversePathFilter");
}

std::optional<std::uint64_t> ReadFilteredPackets() { return ParseFilteredPackets(ReadAll("/proc/net/netstat")); }

HostSettings ReadHostSettings() {
    HostSettings settings;
    std::istringstream largest(ReadAll("/proc/sys/net/core/rmem_max"));
    std::uint32_t octets = 0;
    if (largest >> octets) settings.largestReceiveBuffer = octets;
    if (const auto rules = RunQuietly({"/usr/sbin/nft", "-j", "list", "ruleset"})) {
        settings.inputChains = ParseRuleset(*rules);
    }
    settings.usesUfw = ReadAll("/etc/ufw/ufw.conf").find("\nENABLED=yes") != std::string::npos;
    settings.usesFirewalld = access("/run/firewalld", F_OK) == 0;
    return settings;
}

}  // namespace Nimbrel2::Tool::Doctor
