#ifndef TESTS_SUPPORT_FAULT_ALLOCATION_H
#define TESTS_SUPPORT_FAULT_ALLOCATION_H

/// While it lives, operator new fails in the whole program that links this file and in its libraries. Only one may live
/// at a time.
class AllocationFault {
public:
    /// The threads whose allocations are counted and fail.
    enum class Of { CALLER, OTHER_THREADS };
    enum class Lasting { ONCE, FOR_GOOD };

    /// @param after how many allocations succeed before the first that fails
    AllocationFault(long after, Lasting lasting, Of of = Of::CALLER);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    bool HasStruck() const;
};

#endif
