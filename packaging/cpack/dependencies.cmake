# Read by cpack before it packages: asks dpkg-shlibdeps what the programs depend on. cpack could do so itself, but not for
# another architecture, whose libraries are not installed here: for them the sysroot's own database of packages is asked.
cmake_policy(VERSION 3.22)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(options "")
if(SYSROOT)
    set(database "${SYSROOT}/var/lib/dpkg")
    if(NOT EXISTS "${database}/status")
        message(
            FATAL_ERROR
            "${SYSROOT} has no database of packages, so the package's dependencies cannot be told. Make a sysroot with "
            "script/install-dependencies --arm."
        )
    endif()
    # It asks for a library by the path at which it has found it, so in a copy the files are those below the sysroot.
    file(REMOVE_RECURSE "${SCRATCH}/dpkg")
    file(COPY "${database}/" DESTINATION "${SCRATCH}/dpkg")
    file(GLOB lists "${SCRATCH}/dpkg/info/*.list")
    execute_process(COMMAND sed -i "s|^|${SYSROOT}|" ${lists} COMMAND_ERROR_IS_FATAL ANY)
    list(APPEND options "--admindir=${SCRATCH}/dpkg")
    file(GLOB directories "${SYSROOT}/lib/*-linux-*" "${SYSROOT}/usr/lib/*-linux-*")
    foreach(directory IN LISTS directories)
        list(APPEND options "-l${directory}")
    endforeach()
endif()
# It insists on a source package around it.
file(WRITE "${SCRATCH}/debian/control" "Source: bundle-server\n\nPackage: bundle-server\nArchitecture: any\n")
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env "DEB_HOST_ARCH=${ARCHITECTURE}" "${SHLIBDEPS}" -O --warnings=0 ${options} ${PROGRAMS}
    WORKING_DIRECTORY "${SCRATCH}"
    OUTPUT_VARIABLE found
    ERROR_VARIABLE reason
    RESULT_VARIABLE status
    OUTPUT_STRIP_TRAILING_WHITESPACE
)
if(NOT status EQUAL 0 OR NOT found MATCHES "^shlibs:Depends=(.+)$")
    message(FATAL_ERROR "dpkg-shlibdeps ended with ${status}: ${found}${reason}")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
