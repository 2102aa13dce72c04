#include "support/fault_allocation.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

enum class Target { NOBODY, ONE_THREAD, ALL_BUT_ONE };

std::atomic<Target> g_target{Target::NOBODY};
std::atomic<pthread_t> g_thread;
std::atomic<long> g_left{0}; // allocations before the first that fails
std::atomic<bool> g_lastsForGood{false};
std::atomic<long> g_failures{0};

bool IsTargeted()
{
    const Target target = g_target;
    if (target == Target::NOBODY) {
        return false;
    }
    const bool isTheThread = pthread_equal(g_thread, pthread_self()) != 0;
    return isTheThread == (target == Target::ONE_THREAD);
}

bool MustFail()
{
    if (!IsTargeted()) {
        return false;
    }
    const long left = g_left.fetch_sub(1);
    if (left > 0 || (left < 0 && !g_lastsForGood)) {
        return false;
    }
    ++g_failures;
    return true;
}

void* AllocateOrNull(std::size_t size) noexcept
{
    return MustFail() ? nullptr : std::malloc(size != 0 ? size : 1);
}

} // namespace

AllocationFault::AllocationFault(long after, Lasting lasting, Of of)
{
    g_thread = pthread_self();
    g_left = after;
    g_lastsForGood = lasting == Lasting::FOR_GOOD;
    g_failures = 0;
    g_target = of == Of::CALLER ? Target::ONE_THREAD : Target::ALL_BUT_ONE;
}

AllocationFault::~AllocationFault()
{
    g_target = Target::NOBODY;
}

bool AllocationFault::HasStruck() const
{
    return g_failures != 0;
}

void* operator new(std::size_t size)
{
    if (void* const memory = AllocateOrNull(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return AllocateOrNull(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}
