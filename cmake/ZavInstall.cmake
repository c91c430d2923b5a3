# SPDX-License-Identifier: Apache-2.0
#
# What an installed prefix offers to others: find_package(zav_shm) with the targets
# zav_shm::<layer> and zav_shm::zav_shm, pkg-config's zav_shm, and what there is to read, with
# the folders that the links in it lead to.

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zav_shm)

install(EXPORT zav_shm_targets NAMESPACE zav_shm:: DESTINATION ${package_dir})
configure_package_config_file(cmake/zav_shm-config.cmake.in zav_shm-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(zav_shm-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/zav_shm-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/zav_shm-config-version.cmake
    DESTINATION ${package_dir})

# The prefix is worked out from where the file lies, so that an installed tree can be moved.
file(RELATIVE_PATH prefix_from_pkgconfig
    /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
configure_file(cmake/zav_shm.pc.in zav_shm.pc @ONLY)
configure_file(cmake/zav_shm_c.pc.in zav_shm_c.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zav_shm.pc ${CMAKE_CURRENT_BINARY_DIR}/zav_shm_c.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES bench/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.json" PATTERN "*.cpp" PATTERN "*.c" PATTERN "*.py")
