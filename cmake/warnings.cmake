# What every target of the project is compiled with. Linked privately, so that it reaches nobody else's code.
#
# Another compiler, or another level of optimisation, sees other warnings: they must not keep anybody from building who
# only wants to use the project. The presets, with which it is developed, make them errors.
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
              -Wnull-dereference
              -Wdouble-promotion
              $<$<BOOL:${BUNDLE_SERVER_WERROR}>:-Werror>
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast
              -Wnon-virtual-dtor
              -Woverloaded-virtual
              -Wextra-semi>
)
# gcc itself says that instrumented code leads this warning astray. The builds without sanitizers have it.
if(BUNDLE_SERVER_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(project_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
