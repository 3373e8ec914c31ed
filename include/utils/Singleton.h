// Once-only construction of a process-wide object.
//
// Owns:     the object, from its first use to the end of the process; it is never destroyed.
// Threads:  instance() from any thread; the first caller constructs, the others wait for it.
// Lifetime: longer than every user's.
//
// Each singleton's header declares its instantiation `extern template`; the library holds the one
// definition, so that a program and the library share one object.
#ifndef KYP_UTILS_SINGLETON_H
#define KYP_UTILS_SINGLETON_H

#include <mutex>

#include "utils/Export.h"

namespace utility {

template <typename T>
class KYP_API Singleton {
public:
    // The once-body: makes the object, stores it in m_instance and returns it. Not to be called but
    // through m_once.
    static T* getInstance();

    static T* m_instance;          // null before the first use
    static std::once_flag m_once;  // guards the call of getInstance
};

template <typename T>
T* Singleton<T>::m_instance = nullptr;

template <typename T>
std::once_flag Singleton<T>::m_once;

template <typename T>
T* Singleton<T>::getInstance() {
    T* const made = new T();
    // instance() looks at it without the once check.
    __atomic_store_n(&m_instance, made, __ATOMIC_RELEASE);
    return made;
}

// The process-wide T, made on first use. Throws what T's constructor or std::call_once throws.
template <typename T>
T& instance() {
    // A request passes here some ten times; std::call_once costs more than all the locks between.
    if (T* const made = __atomic_load_n(&Singleton<T>::m_instance, __ATOMIC_ACQUIRE)) return *made;

    std::call_once(Singleton<T>::m_once, Singleton<T>::getInstance);
    return *Singleton<T>::m_instance;
}

}  // namespace utility

#endif
