#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

#include <cstdlib>

/// Some tests prove more the longer they run. They have a short form, which runs with all others, and a long one, which
/// script/test --long asks for by setting BUNDLE_SERVER_LONG_TESTS.
inline bool IsLongForm()
{
    return std::getenv("BUNDLE_SERVER_LONG_TESTS") != nullptr; // NOLINT(concurrency-mt-unsafe): nothing sets it
}

template <class Amount> Amount Scaled(Amount shortForm, Amount longForm)
{
    return IsLongForm() ? longForm : shortForm;
}

#endif
