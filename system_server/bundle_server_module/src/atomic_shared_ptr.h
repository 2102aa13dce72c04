#ifndef ATOMIC_SHARED_PTR_H
#define ATOMIC_SHARED_PTR_H

#include <atomic>
#include <memory>
#include <utility>

namespace SystemServer {

/// A shared_ptr that one thread replaces while others read it. C++17 and C++20 each have their own way to do this, and
/// C++20 deprecates the older one. Empty until something is stored. No operation throws or blocks for long. The last
/// reader of a replaced object destroys it.
template <typename T> class AtomicSharedPtr {
public:
#ifdef __cpp_lib_atomic_shared_ptr
    std::shared_ptr<T> Load() const
    {
        return m_pointer.load();
    }
    void Store(std::shared_ptr<T> pointer)
    {
        m_pointer.store(std::move(pointer));
    }

private:
    std::atomic<std::shared_ptr<T>> m_pointer;
#else
    std::shared_ptr<T> Load() const
    {
        return std::atomic_load(&m_pointer);
    }
    void Store(std::shared_ptr<T> pointer)
    {
        std::atomic_store(&m_pointer, std::move(pointer));
    }

private:
    std::shared_ptr<T> m_pointer; // accessed by the atomic functions only
#endif
};

} // namespace SystemServer

#endif
