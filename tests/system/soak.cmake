# A long time of deaths, changes and requests, and the item that dies as it is told.
add_executable(system_test_soak_item ${CMAKE_CURRENT_LIST_DIR}/soak_item.cpp)
target_link_libraries(system_test_soak_item PRIVATE project_warnings)

system_test(system_soak_test SOURCES soak_test.cpp LONG)
target_compile_definitions(
    system_soak_test
    PRIVATE TEST_HURRY="$<TARGET_FILE:system_test_hurry>" TEST_SOAK_ITEM="$<TARGET_FILE:system_test_soak_item>"
)
add_dependencies(system_soak_test system_test_hurry system_test_soak_item)
