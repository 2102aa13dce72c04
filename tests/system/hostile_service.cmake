# Peers that mean no good, and too many of them: these have a long form.
foreach(part peers crowds)
    system_test(system_hostile_service_${part}_test SOURCES hostile_service_${part}_test.cpp hostile_service.cpp LONG)
endforeach()

# Who is let in, and what may fail behind the server's log and its events.
foreach(part access file_size log events)
    system_test(system_hostile_service_${part}_test SOURCES hostile_service_${part}_test.cpp hostile_service.cpp)
endforeach()
