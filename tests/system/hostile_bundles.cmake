# Bundles that are up to no good, and what of them the daemon gets over.
add_executable(hostile_bundle_program ${CMAKE_CURRENT_LIST_DIR}/hostile_bundle_program.cpp)
target_link_libraries(hostile_bundle_program PRIVATE project_warnings)
add_library(hostile_bundle_library MODULE ${CMAKE_CURRENT_LIST_DIR}/hostile_bundle_library.cpp)
target_link_libraries(hostile_bundle_library PRIVATE project_warnings)
add_library(hostile_bundle_constructor MODULE ${CMAKE_CURRENT_LIST_DIR}/hostile_bundle_constructor.cpp)
target_link_libraries(hostile_bundle_constructor PRIVATE project_warnings)

# hostile_bundle_test(PART [LONG])
function(hostile_bundle_test part)
    set(test system_hostile_bundle_${part}_test)
    system_test(${test} SOURCES hostile_bundle_${part}_test.cpp hostile_bundle.cpp TIMEOUT 180 ${ARGN})
    target_compile_definitions(
        ${test}
        PRIVATE
            HOSTILE_PROGRAM="$<TARGET_FILE:hostile_bundle_program>"
            HOSTILE_LIBRARY="$<TARGET_FILE:hostile_bundle_library>"
            HOSTILE_CONSTRUCTOR="$<TARGET_FILE:hostile_bundle_constructor>"
    )
    add_dependencies(${test} hostile_bundle_program hostile_bundle_library hostile_bundle_constructor)
endfunction()

hostile_bundle_test(manifest LONG)
hostile_bundle_test(directory)
hostile_bundle_test(item)
hostile_bundle_test(library)
hostile_bundle_test(script)
