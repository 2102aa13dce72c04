# Servers that are killed at whatever moment, and the next one.
system_test(system_restart_test SOURCES restart_test.cpp LONG)
target_compile_definitions(system_restart_test PRIVATE TEST_HURRY="$<TARGET_FILE:system_test_hurry>")
add_dependencies(system_restart_test system_test_hurry)
