foreach(part ways failures changes start soak overlay)
    system_test(system_hot_plug_${part}_test SOURCES hot_plug_${part}_test.cpp hot_plug.cpp TIMEOUT 180)
endforeach()
