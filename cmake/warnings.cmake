# The warnings for every target of the project. Linked privately, so that they do not apply to other projects' code.
#
# Another compiler, or another optimisation level, gives other warnings. They must not stop users who only build the
# project. The presets, which developers use, turn them into errors.
option(BUNDLE_SERVER_WERROR "Let no warning pass: each is an error" OFF)
add_library(project_warnings INTERFACE)
target_compile_options(
    project_warnings
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wshadow
              -Wconversion
              -Wsign-conversion
              -Wcast-qual
              -Wcast-align
              -Wformat=2
              -Wundef
              # gcc 14 finds null pointers in the C++ library's own comparison of vectors of strings.
              $<$<NOT:$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_GREATER_EQUAL:$<CXX_COMPILER_VERSION>,14>>>:-Wnull-dereference>
              -Wdouble-promotion
              $<$<BOOL:${BUNDLE_SERVER_WERROR}>:-Werror>
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast
              -Wnon-virtual-dtor
              -Woverloaded-virtual
              -Wextra-semi>
)
# By gcc's manual this warning has false positives in instrumented code. The builds without sanitizers have it.
if(BUNDLE_SERVER_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(project_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
