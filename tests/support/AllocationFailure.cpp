// SPDX-License-Identifier: Apache-2.0
// The test binary's operator new. Any thread; no lock.
#include "tests/support/AllocationFailure.h"

#include <sys/prctl.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Nimbrel2::Testing {

namespace {

thread_local unsigned int t_pauses = 0;
thread_local bool t_armed = false;
thread_local std::uint64_t t_failAt = 0;
thread_local std::uint64_t t_count = 0;

std::atomic<bool> g_armed{false};
std::atomic<std::uint64_t> g_failAt{0};
std::atomic<std::uint64_t> g_count{0};
std::atomic<const char*> g_threadName{nullptr};  // null: all threads count

bool DoesThisThreadCount() noexcept {
    const char* const wanted = g_threadName.load();
    if (wanted == nullptr) {
        return true;
    }
    std::array<char, 16> name{};  // as long as the kernel keeps
    ::prctl(PR_GET_NAME, name.data());
    return std::strcmp(name.data(), wanted) == 0;
}

bool MustFail() noexcept {
    if (t_pauses != 0) {
        return false;
    }
    if (t_armed) {
        return ++t_count == t_failAt;
    }
    return g_armed.load() && DoesThisThreadCount() && g_count.fetch_add(1) + 1 == g_failAt.load();
}

void* Allocate(std::size_t size) noexcept { return MustFail() ? nullptr : std::malloc(size == 0 ? 1 : size); }

void* AllocateAligned(std::size_t size, std::size_t alignment) noexcept {
    if (MustFail()) {
        return nullptr;
    }
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* OrThrow(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

AllocationFailure::AllocationFailure(std::uint64_t nth, Scope scope) : m_scope(scope) {
    if (scope == Scope::ThisThread) {
        t_failAt = nth;
        t_count = 0;
        t_armed = true;
    } else {
        g_failAt = nth;
        g_count = 0;
        g_threadName = nullptr;
        g_armed = true;
    }
}

AllocationFailure::AllocationFailure(std::uint64_t nth, const char* threadName) : m_scope(Scope::AllThreads) {
    g_failAt = nth;
    g_count = 0;
    g_threadName = threadName;
    g_armed = true;
}

AllocationFailure::~AllocationFailure() {
    if (m_scope == Scope::ThisThread) {
        t_armed = false;
    } else {
        g_armed = false;
    }
}

bool AllocationFailure::Happened() const {
    return m_scope == Scope::ThisThread ? t_failAt != 0 && t_count >= t_failAt : g_failAt != 0 && g_count >= g_failAt;
}

std::uint64_t AllocationFailure::Count() const { return m_scope == Scope::ThisThread ? t_count : g_count.load(); }

AllocationFailure::Pause::Pause() { ++t_pauses; }

AllocationFailure::Pause::~Pause() { --t_pauses; }

}  // namespace Nimbrel2::Testing

void* operator new(std::size_t size) { return Nimbrel2::Testing::OrThrow(Nimbrel2::Testing::Allocate(size)); }
void* operator new[](std::size_t size) { return Nimbrel2::Testing::OrThrow(Nimbrel2::Testing::Allocate(size)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Nimbrel2::Testing::Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Nimbrel2::Testing::Allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    return Nimbrel2::Testing::OrThrow(Nimbrel2::Testing::AllocateAligned(size, static_cast<std::size_t>(alignment)));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return Nimbrel2::Testing::OrThrow(Nimbrel2::Testing::AllocateAligned(size, static_cast<std::size_t>(alignment)));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
