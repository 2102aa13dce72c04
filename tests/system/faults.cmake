# Calls of the daemon and of its libraries that fail, and memory that runs out while it starts.
add_library(system_test_malloc_fault MODULE items/malloc_fault.cpp)
target_link_libraries(system_test_malloc_fault PRIVATE project_warnings)
system_test(system_faults_test SOURCES start_up_faults_test.cpp LONG)
target_compile_definitions(
    system_faults_test PRIVATE TEST_MALLOC_FAULT="$<TARGET_FILE:system_test_malloc_fault>"
                               INSTRUMENTATION="${BUNDLE_SERVER_SANITIZE}$<$<BOOL:${BUNDLE_SERVER_COVERAGE}>:coverage>"
)
add_dependencies(system_faults_test system_test_malloc_fault)
