#ifndef TESTS_SUPPORT_FAULT_ALLOCATION_H
#define TESTS_SUPPORT_FAULT_ALLOCATION_H

/// Makes operator new fail while it lives, in the whole program that links this file, the libraries that it has loaded
/// included. One at a time.
class AllocationFault {
public:
    /// Whose allocations count, and fail.
    enum class Of { CALLER, OTHER_THREADS };
    enum class Lasting { ONCE, FOR_GOOD };

    /// @param after how many allocations go through before the first that fails
    AllocationFault(long after, Lasting lasting, Of of = Of::CALLER);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    bool HasStruck() const;
};

#endif
