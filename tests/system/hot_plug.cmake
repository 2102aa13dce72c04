# In fast motion: a library that makes the daemon's long sleeps short, for a soak.
add_library(system_test_hurry MODULE ${CMAKE_CURRENT_LIST_DIR}/hot_plug_hurry.cpp)
target_link_libraries(system_test_hurry PRIVATE project_warnings ${CMAKE_DL_LIBS})

foreach(part ways failures changes start soak)
    system_test(system_hot_plug_${part}_test SOURCES hot_plug_${part}_test.cpp hot_plug.cpp TIMEOUT 180)
endforeach()
target_compile_definitions(system_hot_plug_soak_test PRIVATE TEST_HURRY="$<TARGET_FILE:system_test_hurry>")
add_dependencies(system_hot_plug_soak_test system_test_hurry)
