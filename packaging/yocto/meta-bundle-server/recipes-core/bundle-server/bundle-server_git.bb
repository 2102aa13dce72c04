SUMMARY = "Installs, starts and supervises bundles on a device"
SECTION = "base"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=f579c0e0087e07dde6c3f590358b889a"

# Set the place of the sources, for instance in local.conf:
#   BUNDLE_SERVER_GIT = "git://git.example.org/bundle-server;protocol=https;branch=main"
#   SRCREV:pn-bundle-server = "the commit that you have tested"
BUNDLE_SERVER_GIT ?= ""
SRC_URI = "${BUNDLE_SERVER_GIT}"
SRCREV ?= "${AUTOREV}"
PV = "0.1.0+git"
S = "${WORKDIR}/git"

inherit cmake pkgconfig systemd update-rc.d

DEPENDS = "poco"

# To use the device's own libraries for the four headers of platform/include, set "device" in PACKAGECONFIG instead of "host",
# and name the libraries and their place in EXTRA_OECMAKE (docs/device.md).
# "put" builds the verbs that install, update and verify bundles: put, rollback, versions, verify, remove.
PACKAGECONFIG ??= "host put"
PACKAGECONFIG[host] = "-DBUNDLE_SERVER_PLATFORM=host,,libevent safec,,,device"
PACKAGECONFIG[device] = "-DBUNDLE_SERVER_PLATFORM=device,,,,,host"
PACKAGECONFIG[put] = "-DBUNDLE_SERVER_PUT=ON,-DBUNDLE_SERVER_PUT=OFF,elfutils libarchive libsodium"

EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DBUNDLE_SERVER_TESTS=OFF \
    -DBUNDLE_SERVER_AUTHOR=OFF \
    -DBUNDLE_SERVER_INIT='${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'systemd', 'sysv', d)}' \
"

SYSTEMD_SERVICE:${PN} = "bundle-server.service"
INITSCRIPT_NAME = "bundle-server"
INITSCRIPT_PARAMS = "defaults 90 10"

# Shell completions are for users who log in on the device. Other programs use the library, also without the server.
PACKAGES =+ "${PN}-completions libbundle-client"
FILES:libbundle-client = " \
    ${libdir}/libbundle-client.so.0 \
    ${libdir}/libbundle-client.so.${@d.getVar('PV').split('+')[0]} \
"
FILES:${PN}-dev = " \
    ${includedir}/bundle_client.h \
    ${libdir}/cmake \
    ${libdir}/libbundle-client.so \
    ${libdir}/pkgconfig \
"
FILES:${PN}-staticdev = " \
    ${libdir}/libbundle-client.a \
"
FILES:${PN}-completions = " \
    ${datadir}/bash-completion \
    ${datadir}/fish \
    ${datadir}/zsh \
"
FILES:${PN} += " \
    ${bindir}/bundlectl \
    ${sbindir}/bundle_server \
    ${libexecdir}/bundle-server \
    ${datadir}/bundle-server \
    ${sysconfdir}/bundle-server/bundle-server.ini \
    ${sysconfdir}/cron.d/bundle-server \
    ${sysconfdir}/default/bundle-server \
    ${sysconfdir}/init.d/bundle-server \
    ${sysconfdir}/logrotate.d/bundle-server \
    ${nonarch_libdir}/tmpfiles.d/bundle-server.conf \
    ${systemd_system_unitdir}/bundle-server.service \
    ${systemd_system_unitdir}/bundle-server-check.service \
    ${systemd_system_unitdir}/bundle-server-check.timer \
    ${systemd_system_unitdir}/bundle-server-logrotate.service \
    ${systemd_system_unitdir}/bundle-server-logrotate.timer \
    ${systemd_system_unitdir}/bundle-server-metrics.service \
    ${systemd_system_unitdir}/bundle-server-metrics.timer \
    ${systemd_system_unitdir}/bundle-server-recorder.service \
    ${systemd_system_unitdir}/bundle-server-serving.service \
    ${localstatedir}/lib/bundle-server/bundles \
"
CONFFILES:${PN} = " \
    ${sysconfdir}/bundle-server/bundle-server.ini \
    ${sysconfdir}/cron.d/bundle-server \
    ${sysconfdir}/default/bundle-server \
    ${sysconfdir}/logrotate.d/bundle-server \
"
# The programs that the timers and the crontab run.
RRECOMMENDS:${PN} = "logrotate"

do_install:append() {
    # /var/log is in memory on most devices, so the unit or the init script makes the log's directory.
    rm -rf ${D}${localstatedir}/log
    # The directory of units depends on the distribution.
    if [ -d ${D}${prefix}/lib/systemd/system ] && [ "${prefix}/lib/systemd/system" != "${systemd_system_unitdir}" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${prefix}/lib/systemd/system/* ${D}${systemd_system_unitdir}/
        rm -rf ${D}${prefix}/lib/systemd
    fi
}
