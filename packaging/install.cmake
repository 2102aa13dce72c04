# Runs at the installation, after a script that sets the directories, INIT and PACKAGING.

cmake_policy(VERSION 3.22)

# The full path of a directory. With the prefix /usr, /etc and /var are those of the system, as is usual.
function(full_path variable directory)
    if(IS_ABSOLUTE "${directory}")
        set(path "${directory}")
    elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND directory MATCHES "^(etc|var)$")
        set(path "/${directory}")
    else()
        set(path "${CMAKE_INSTALL_PREFIX}/${directory}")
    endif()
    set(${variable} "${path}" PARENT_SCOPE)
endfunction()

full_path(BIN "${BINDIR}")
full_path(SBIN "${SBINDIR}")
full_path(ETC "${SYSCONFDIR}")
full_path(VAR "${LOCALSTATEDIR}")
full_path(LOADER_DIRECTORY "${LIBEXECDIR}/bundle-server")
set(COLLECTION "${VAR}/lib/bundle-server/bundles")
set(LOG_DIRECTORY "${VAR}/log/bundle-server")

# Two installations from one build may run at the same time.
string(RANDOM LENGTH 12 installation)
set(SCRATCH "${SCRATCH}/${installation}")

# install_configured(SOURCE DESTINATION NAME TYPE): installs a file of service/ with the paths filled in.
function(install_configured source destination name type)
    set(made "${SCRATCH}/${destination}/${name}")
    configure_file("${PACKAGING}/service/${source}" "${made}" @ONLY)
    file(INSTALL DESTINATION "${destination}" TYPE ${type} FILES "${made}")
endfunction()

install_configured(bundle-server.ini.in "${ETC}/bundle-server" bundle-server.ini FILE)
install_configured(bundle-server.default.in "${ETC}/default" bundle-server FILE)
install_configured(bundle-server.logrotate.in "${ETC}/logrotate.d" bundle-server FILE)
install_configured(check-supervision.in "${LOADER_DIRECTORY}" check-supervision PROGRAM)
if("systemd" IN_LIST INIT)
    set(lib "${CMAKE_INSTALL_PREFIX}/lib")
    foreach(
        unit
        bundle-server
        bundle-server-check
        bundle-server-logrotate
        bundle-server-metrics
        bundle-server-recorder
        bundle-server-serving
    )
        install_configured(${unit}.service.in "${lib}/systemd/system" ${unit}.service FILE)
    endforeach()
    foreach(unit bundle-server-check bundle-server-logrotate bundle-server-metrics)
        install_configured(${unit}.timer "${lib}/systemd/system" ${unit}.timer FILE)
    endforeach()
    install_configured(bundle-server.tmpfiles "${lib}/tmpfiles.d" bundle-server.conf FILE)
    install_configured(end-server.in "${LOADER_DIRECTORY}" end-server PROGRAM)
endif()
if("sysv" IN_LIST INIT)
    install_configured(bundle-server.init.in "${ETC}/init.d" bundle-server PROGRAM)
    install_configured(bundle-server.cron.in "${ETC}/cron.d" bundle-server FILE)
endif()
file(INSTALL DESTINATION "${COLLECTION}" TYPE DIRECTORY FILES "")
file(INSTALL DESTINATION "${LOG_DIRECTORY}" TYPE DIRECTORY FILES "")
file(REMOVE_RECURSE "${SCRATCH}")
