# Cross-compiles for 32-bit ARM with a hardware FPU and glibc. To use an integrator's own compiler and sysroot:
#   -DBUNDLE_SERVER_CROSS=arm-vendor-linux-gnueabihf- -DBUNDLE_SERVER_SYSROOT=/path/to/sysroot
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(BUNDLE_SERVER_CROSS arm-linux-gnueabihf- CACHE STRING "What the names of the cross tools begin with")
set(BUNDLE_SERVER_SYSROOT
    ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf
    CACHE PATH "The root directory of the device, with headers; the default is what script/install-dependencies --arm makes"
)
# CMake's compiler checks run this file again in projects of their own, which do not see this project's cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BUNDLE_SERVER_CROSS BUNDLE_SERVER_SYSROOT)
if(NOT IS_DIRECTORY ${BUNDLE_SERVER_SYSROOT}/usr/include)
    message(
        FATAL_ERROR
        "There is no sysroot in ${BUNDLE_SERVER_SYSROOT}. Make one of Debian's packages with script/install-dependencies --arm, or "
        "name the device's own with -DBUNDLE_SERVER_SYSROOT=DIR."
    )
endif()
get_filename_component(CMAKE_SYSROOT ${BUNDLE_SERVER_SYSROOT} REALPATH)

set(CMAKE_C_COMPILER ${BUNDLE_SERVER_CROSS}gcc)
set(CMAKE_CXX_COMPILER ${BUNDLE_SERVER_CROSS}g++)

# Programs come from the building machine, everything else from the device.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(pkgconfig "")
foreach(directory lib/arm-linux-gnueabihf lib share)
    list(APPEND pkgconfig ${CMAKE_SYSROOT}/usr/${directory}/pkgconfig)
endforeach()
list(JOIN pkgconfig ":" pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${pkgconfig})
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
