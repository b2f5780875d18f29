// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_SINGLETON_H
#define NIMBREL2_COMMON_SINGLETON_H

#include <cstdlib>

#include "common/SingletonSlot.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// Base of a class with one object in the process: made on first use, destroyed once, at exit or before. Both classes
/// are exported: each shared object that is compiled with hidden visibility would have an object of its own otherwise.
/// @par Threads  Any. The first GetInstance makes the object while the others wait.
/// @par Forks    A process that was forked after the object was made has the same object, but never destroys it.
template <class T>
class NIMBREL2_API Singleton {
public:
    virtual ~Singleton() = default;

    /// The object, until its destructor has returned. After that the call ends the program with a message; on a thread
    /// of the library that had to be left behind, such as a callback that did not end in time, it never returns.
    static T& GetInstance();

    /// Destroys the object, if this process has made one. The last to be called on it; calling it again does nothing.
    static void DestroyInstance();

protected:
    Singleton() = default;
    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

private:
    static void* Make();
    static void Destroy(void* object) { static_cast<T*>(object)->~T(); }

    static SingletonSlot m_slot;
};

// Initialised before any code runs: the slot's constructor is constexpr.
template <class T>
SingletonSlot Singleton<T>::m_slot;

// None of these is inline, so that where T's template is instantiated in a library alone its object belongs to that
// library, and not to whichever plug-in asked first and may be unloaded.

template <class T>
T& Singleton<T>::GetInstance() {
    return *static_cast<T*>(m_slot.Get(&Singleton::Make));
}

template <class T>
void Singleton<T>::DestroyInstance() {
    m_slot.Destroy(&Singleton::Destroy);
}

template <class T>
void* Singleton<T>::Make() {
    T* const object = new T;
    std::atexit(&Singleton::DestroyInstance);
    return object;
}

}  // namespace Nimbrel2

#endif
