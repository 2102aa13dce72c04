#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

#include <cstdlib>

/// Some tests prove more the longer they run. Their short form runs with all other tests. Their long form runs when
/// BUNDLE_SERVER_LONG_TESTS is set, as script/test --long does.
inline bool IsLongForm()
{
    return std::getenv("BUNDLE_SERVER_LONG_TESTS") != nullptr;
}

template <class Amount> Amount Scaled(Amount shortForm, Amount longForm)
{
    return IsLongForm() ? longForm : shortForm;
}

#endif
