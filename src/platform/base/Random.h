// SPDX-License-Identifier: Apache-2.0
// Chance: small, the same on every computer for the same seed, and not for secrets. As thread-safe as an integer.
#ifndef NIMBREL2_PLATFORM_BASE_RANDOM_H
#define NIMBREL2_PLATFORM_BASE_RANDOM_H

#include <chrono>
#include <cstdint>

namespace Nimbrel2::Platform {

/// Spreads numbers that differ in few bits over all 64 (the finalizer of SplitMix64).
constexpr std::uint64_t Mix(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9u;
    value = (value ^ value >> 27) * 0x94D049BB133111EBu;
    return value ^ value >> 31;
}

/// SplitMix64.
class Random {
public:
    /// Neighbouring seeds give sequences that have nothing to do with each other.
    explicit Random(std::uint64_t seed) : m_state(seed) { m_state = Next(); }

    /// One that nobody can foresee from outside this process.
    static Random FromSystem();

    std::uint64_t Next() {
        m_state += 0x9E3779B97F4A7C15u;
        return Mix(m_state);
    }
    /// @param end  Not 0.
    std::uint64_t Below(std::uint64_t end) { return Next() % end; }
    bool HappensInPercent(double percent);
    /// Both included; low when high is not above it.
    std::chrono::milliseconds Between(std::chrono::milliseconds low, std::chrono::milliseconds high);

private:
    std::uint64_t m_state;
};

}  // namespace Nimbrel2::Platform

#endif
