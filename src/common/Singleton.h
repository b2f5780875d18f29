// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_SINGLETON_H
#define NIMBREL2_COMMON_SINGLETON_H

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "hal/Export.h"

namespace Nimbrel2 {

/// Base of a class with one object in the process: made on first use, destroyed once, at exit or before. Both classes
/// are exported: each shared object that is compiled with hidden visibility would have an object of its own otherwise.
/// @par Threads  Any. The first GetInstance makes the object while the others wait.
template <class T>
class NIMBREL2_API Singleton {
public:
    virtual ~Singleton() = default;

    /// The object. Must not be called after the object was destroyed: that ends the program with a message.
    static T& GetInstance() {
        State& state = GetState();
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (state.destroyed) {
            // Not assert: a second object would find the first one's threads and buses half gone, in every build.
            std::fputs("Singleton::GetInstance was called after the object had been destroyed.\n", stderr);
            std::abort();
        }
        if (state.instance == nullptr) {
            state.instance = new T;
            std::atexit(&Singleton::DestroyInstance);
        }
        return *state.instance;
    }

    /// Destroys the object, if there is one. The last to be called on it; calling it again does nothing.
    static void DestroyInstance() {
        State& state = GetState();
        T* instance = nullptr;
        {
            const std::lock_guard<std::mutex> lock(state.mutex);
            instance = state.instance;
            state.instance = nullptr;
            state.destroyed = state.destroyed || instance != nullptr;
        }
        delete instance;
    }

protected:
    Singleton() = default;
    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

private:
    struct State {
        std::mutex mutex;
        T* instance = nullptr;
        bool destroyed = false;
    };

    // Never destroyed, so that it outlives every exit handler.
    static State& GetState() {
        static State& state = *new State;
        return state;
    }
};

}  // namespace Nimbrel2

#endif
