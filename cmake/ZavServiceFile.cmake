# SPDX-License-Identifier: Apache-2.0
#
# The service file names the program, its configuration and its manual where they are installed. That
# is known only when somebody installs: "cmake --install build --prefix /opt/recorder". So this is
# used twice, when the build is configured, and by the installation with the prefix of that.

# zav_installed_path(<variable> <prefix> <folder>)   a folder of GNUInstallDirs as it is on the device
function(zav_installed_path variable prefix folder)
    if(IS_ABSOLUTE "${folder}")
        set(${variable} "${folder}" PARENT_SCOPE)
    elseif(prefix STREQUAL "/usr" AND folder STREQUAL "etc")
        set(${variable} "/etc" PARENT_SCOPE)
    else()
        set(${variable} "${prefix}/${folder}" PARENT_SCOPE)
    endif()
endfunction()

# zav_configure_service_file(<prefix> <output> [<name>])   of the center unless another is named
#
# Needs ZAV_SHM_SOURCE_DIR, ZAV_SHM_NOTIFIES, and CMAKE_INSTALL_BINDIR, ..._SYSCONFDIR and ..._DOCDIR
# as GNUInstallDirs sets them.
function(zav_configure_service_file prefix output)
    zav_installed_path(bindir "${prefix}" "${CMAKE_INSTALL_BINDIR}")
    zav_installed_path(sysconfdir "${prefix}" "${CMAKE_INSTALL_SYSCONFDIR}")
    zav_installed_path(docdir "${prefix}" "${CMAKE_INSTALL_DOCDIR}")
    set(ZAV_SHM_CENTERD "${bindir}/zav-shm-centerd")
    set(ZAV_SHM_RTSPD "${bindir}/zav-shm-rtspd")
    set(ZAV_SHM_WEB "${bindir}/zav-shm-web")
    set(ZAV_SHM_CONFIG "${sysconfdir}/zav_shm.json")
    set(ZAV_SHM_DOCS "${docdir}/docs")
    if(ZAV_SHM_NOTIFIES)
        set(ZAV_SHM_SERVICE_TYPE
            "Type=notify\n# Stays silent when the center does not answer on its queues any more.\nWatchdogSec=20")
    else()
        set(ZAV_SHM_SERVICE_TYPE
            "# Built without libsystemd: tells neither that it is ready nor that it does well.\nType=exec")
    endif()
    set(name zav-shm-centerd)
    if(ARGC GREATER 2)
        set(name "${ARGV2}")
    endif()
    configure_file("${ZAV_SHM_SOURCE_DIR}/packaging/${name}.service" "${output}" @ONLY)
endfunction()

# zav_install_service(<prefix> <build folder>)   at installation: the service file, and the
#                                                configuration that it names unless there is one
function(zav_install_service prefix build)
    set(unit "${build}/installed/zav-shm-centerd.service")
    zav_configure_service_file("${prefix}" "${unit}")
    file(INSTALL DESTINATION "${prefix}/lib/systemd/system" TYPE FILE FILES "${unit}")
    zav_installed_path(sysconfdir "${prefix}" "${CMAKE_INSTALL_SYSCONFDIR}")
    if(EXISTS "$ENV{DESTDIR}${sysconfdir}/zav_shm.json")
        message(STATUS "Kept: $ENV{DESTDIR}${sysconfdir}/zav_shm.json")
    else()
        file(INSTALL DESTINATION "${sysconfdir}" TYPE FILE RENAME zav_shm.json
            FILES "${ZAV_SHM_SOURCE_DIR}/samples/recorder.json")
    endif()
endfunction()

# zav_install_program_service(<prefix> <build folder> <name>)   at installation
function(zav_install_program_service prefix build name)
    set(unit "${build}/installed/${name}.service")
    zav_configure_service_file("${prefix}" "${unit}" "${name}")
    file(INSTALL DESTINATION "${prefix}/lib/systemd/system" TYPE FILE FILES "${unit}")
endfunction()

# zav_program_service(<name>)   when the build is configured: the service file of a program, here and
#                               at installation
function(zav_program_service name)
    set(ZAV_SHM_SOURCE_DIR ${PROJECT_SOURCE_DIR})
    zav_configure_service_file(${CMAKE_INSTALL_PREFIX} ${CMAKE_CURRENT_BINARY_DIR}/${name}.service
        ${name})
    install(CODE "
        set(ZAV_SHM_SOURCE_DIR \"${PROJECT_SOURCE_DIR}\")
        set(CMAKE_INSTALL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
        set(CMAKE_INSTALL_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
        set(CMAKE_INSTALL_DOCDIR \"${CMAKE_INSTALL_DOCDIR}\")
        include(\"${PROJECT_SOURCE_DIR}/cmake/ZavServiceFile.cmake\")
        zav_install_program_service(\"\${CMAKE_INSTALL_PREFIX}\" \"${CMAKE_CURRENT_BINARY_DIR}\"
            ${name})")
endfunction()
