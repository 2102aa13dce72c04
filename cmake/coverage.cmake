# Counts which lines and branches run, for script/test --coverage.
#
# The counters are in memory. The compiler's library writes them when a process ends normally. An exec, an _exit or an abort
# would lose them, and every child of the server ends in one of these ways, so coverage_flush.cpp replaces these calls. The
# counters of a killed process are lost. All processes add their counters to the same files, which the compiler's library
# locks meanwhile. Threads count atomically.
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

# For all targets from here on.
link_libraries(coverage_flush)
add_compile_options(--coverage -fprofile-update=atomic)
# The compiler's library comes last on the command line and calls one of them itself, so the linker needs it before.
add_link_options(--coverage LINKER:--wrap=execl,--wrap=_exit,--wrap=abort,--undefined=__wrap_abort)
