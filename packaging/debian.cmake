# The Debian package: cpack -G DEB in a build directory makes bundle-server_VERSION_ARCHITECTURE.deb. Prefer
# script/package, which builds it for release and checks it.
find_program(DPKG dpkg)
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT DPKG OR NOT DPKG_SHLIBDEPS)
    return() # a machine without Debian's tools builds and installs, and packages in its own way
endif()

# The architecture is that of the programs, not of the machine that builds them.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(architecture armhf)
elseif(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(architecture arm64)
else()
    execute_process(COMMAND ${DPKG} --print-architecture OUTPUT_VARIABLE architecture OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bundle-server)
set(CPACK_PACKAGE_CONTACT "${BUNDLE_SERVER_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "install, start and supervise bundles on a device")
set(CPACK_PACKAGE_DESCRIPTION
    "A bundle is a directory with a manifest and the programs, scripts or libraries
that belong together. The bundle server starts all bundles of one directory,
the required ones first, runs their programs again when they crash, follows
what is added, changed and removed while it runs, and deletes a bundle on
request.
.
The package has the server, the program that runs library items, the command
bundlectl, and service files for systemd and for init scripts."
)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
# The configuration belongs below /etc, the bundles below /var, whatever prefix the build directory was configured with.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE
)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The log is rotated, and the supervision checked, by systemd's timers or by cron.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "logrotate, systemd | cron-daemon | cron")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "")
foreach(file conffiles postinst postrm prerm)
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/${file})
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What the two scripts need to know of this build.
set(CPACK_BUNDLE_SERVER_PROGRAMS "")
foreach(program bundle_server bundlectl dyn_lib_process_loader)
    list(APPEND CPACK_BUNDLE_SERVER_PROGRAMS $<TARGET_FILE:${program}>)
endforeach()
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/dependencies.cmake)
file(
    GENERATE
    OUTPUT ${CPACK_PROJECT_CONFIG_FILE}
    CONTENT
        "set(PROGRAMS [[${CPACK_BUNDLE_SERVER_PROGRAMS}]])
set(ARCHITECTURE [[${architecture}]])
set(SYSROOT [[${CMAKE_SYSROOT}]])
set(SCRATCH [[${CMAKE_CURRENT_BINARY_DIR}/shlibdeps]])
set(SHLIBDEPS [[${DPKG_SHLIBDEPS}]])
include([[${CMAKE_CURRENT_SOURCE_DIR}/cpack/dependencies.cmake]])
"
)
unset(CPACK_BUNDLE_SERVER_PROGRAMS)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/cpack/complete.cmake)
set(CPACK_BUNDLE_SERVER_PACKAGING ${CMAKE_CURRENT_SOURCE_DIR})
include(CPack)
set(BUNDLE_SERVER_PACKAGE
    ${CPACK_PACKAGE_NAME}_${PROJECT_VERSION}_${architecture}.deb
    CACHE INTERNAL "The name of the Debian package"
)
