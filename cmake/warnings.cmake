# What every target of the project is compiled with. Linked privately, so that it reaches nobody else's code.
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
              -Werror
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast
              -Wnon-virtual-dtor
              -Woverloaded-virtual
              -Wextra-semi>
)
