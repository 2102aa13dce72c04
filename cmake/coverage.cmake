# Counts which lines and branches run, for script/test --coverage.
#
# The counters are kept in memory and written when a process ends in order. What a process has run before an exec, an
# _exit or an abort would be lost, and that is all that a child of the server ever runs: coverage_flush.cpp stands in for
# these calls. What a process has run that is killed is lost. Every process adds its counters to the same files, each of
# which the compiler's library locks meanwhile; threads count atomically.
option(BUNDLE_SERVER_COVERAGE "Count the lines and branches that run (gcc only)" OFF)
if(NOT BUNDLE_SERVER_COVERAGE)
    return()
endif()
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "BUNDLE_SERVER_COVERAGE counts with gcc, not with ${CMAKE_CXX_COMPILER_ID}")
endif()

add_library(coverage_flush STATIC ${CMAKE_SOURCE_DIR}/tests/support/coverage_flush.cpp)
set_target_properties(coverage_flush PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_link_libraries(coverage_flush PRIVATE project_warnings)

# From here on, for all.
link_libraries(coverage_flush)
add_compile_options(--coverage -fprofile-update=atomic)
# The compiler's library comes last on the command line and calls one of them itself: what it needs must be there before.
add_link_options(--coverage LINKER:--wrap=execl,--wrap=_exit,--wrap=abort,--undefined=__wrap_abort)
