# SPDX-License-Identifier: Apache-2.0
SUMMARY = "Frame distribution through shared memory"
DESCRIPTION = "Processes of one device exchange encoded audio and video frames through shared memory: \
producers write a history of each stream, consumers read it at their own pace, and a center pairs them \
at run time."
SECTION = "multimedia"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Your mirror of the repository, and the commit that you have tested.
SRC_URI = "git://git.example.invalid/zav_shm.git;protocol=https;branch=main \
           file://run-ptest"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "jsoncpp cli11 libogg"

inherit cmake pkgconfig python3-dir ptest systemd useradd

PACKAGECONFIG ??= "${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)} gstreamer web"
PACKAGECONFIG[systemd] = "-DZAV_SHM_SYSTEMD=ON,-DZAV_SHM_SYSTEMD=OFF,systemd"
# The plugin, zav-shm-mux and zav-shm-rtspd.
PACKAGECONFIG[gstreamer] = "-DZAV_SHM_GST=ON,-DZAV_SHM_GST=OFF,gstreamer1.0 gstreamer1.0-plugins-base gstreamer1.0-rtsp-server"
# It needs gstreamer, too.
PACKAGECONFIG[web] = "-DZAV_SHM_WEB=ON,-DZAV_SHM_WEB=OFF,libmicrohttpd gstreamer1.0 gstreamer1.0-plugins-base"

EXTRA_OECMAKE = "-DZAV_SHM_TESTS=OFF -DZAV_SHM_BENCH=OFF -DZAV_SHM_EXAMPLES=OFF \
                 -DZAV_SHM_PYTHON_DIR=${PYTHON_SITEPACKAGES_DIR}"

# tmpfiles.d and sysusers.d are systemd's; user and group are made for every image.
USERADD_PACKAGES = "${PN}-tools"
GROUPADD_PARAM:${PN}-tools = "--system zav-shm"
USERADD_PARAM:${PN}-tools = "--system --no-create-home --home-dir /nonexistent --shell /sbin/nologin --gid zav-shm zav-shm"

do_install:append() {
    rm -rf ${D}${nonarch_libdir}/sysusers.d
    if [ ${systemd_system_unitdir} != ${nonarch_libdir}/systemd/system ]; then
        install -d ${D}${systemd_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system ${D}${systemd_unitdir}
        rmdir ${D}${nonarch_libdir}/systemd
    fi
}

do_install_ptest() {
    install -m 0755 ${WORKDIR}/run-ptest ${D}${PTEST_PATH}/run-ptest
}

SYSTEMD_PACKAGES = "${PN}-tools ${PN}-rtspd ${PN}-web"
SYSTEMD_SERVICE:${PN}-tools = "zav-shm-centerd.service"
SYSTEMD_SERVICE:${PN}-rtspd = "zav-shm-rtspd.service"
SYSTEMD_SERVICE:${PN}-web = "zav-shm-web.service"

PACKAGES =+ "${PN}-tools ${PN}-mux ${PN}-rtspd ${PN}-web ${PN}-gstreamer ${PN}-python"

FILES:${PN} = "${libdir}/libzav_shm.so.* ${libdir}/libzav_shm_c.so.*"
FILES:${PN}-dev = "${includedir} ${libdir}/libzav_shm*.so ${libdir}/cmake ${libdir}/pkgconfig"
FILES:${PN}-staticdev = "${libdir}/libzav_shm*.a"
FILES:${PN}-doc = "${docdir} ${mandir}"
FILES:${PN}-tools = "${bindir}/zav-shm ${bindir}/zav-shm-centerd ${sysconfdir}/zav_shm.json \
                     ${datadir}/zav_shm ${datadir}/bash-completion ${nonarch_libdir}/tmpfiles.d \
                     ${systemd_system_unitdir}/zav-shm-centerd.service"
FILES:${PN}-mux = "${bindir}/zav-shm-mux"
FILES:${PN}-rtspd = "${bindir}/zav-shm-rtspd ${systemd_system_unitdir}/zav-shm-rtspd.service"
FILES:${PN}-web = "${bindir}/zav-shm-web ${systemd_system_unitdir}/zav-shm-web.service"
FILES:${PN}-gstreamer = "${libdir}/gstreamer-1.0"
FILES:${PN}-python = "${PYTHON_SITEPACKAGES_DIR}/zav_shm"

CONFFILES:${PN}-tools = "${sysconfdir}/zav_shm.json"
RDEPENDS:${PN}-python = "${PN} python3-core python3-ctypes python3-asyncio"
RDEPENDS:${PN}-mux = "gstreamer1.0-plugins-good"
RDEPENDS:${PN}-rtspd = "gstreamer1.0-plugins-good"
RDEPENDS:${PN}-web = "gstreamer1.0-plugins-good"
RDEPENDS:${PN}-ptest = "${PN}-tools util-linux-unshare util-linux-mount"
