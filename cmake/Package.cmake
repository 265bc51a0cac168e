# The Debian package: the process, its tools, scripts, configuration and accounts. `./run package` makes it.
#
# No service is installed: the device's own main process starts the update process when it wants one. board_main, which
# stands in its place on a development board, lies beside the package's data for whoever tries the package out.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # the package wants five programs, not the tests
set(app app_run/app_bin)
set(board ${PROJECT_SOURCE_DIR}/board/root)
install(TARGETS update_active DESTINATION ${app})
install(TARGETS secureboot_check update_pack update_request DESTINATION usr/bin)
install(TARGETS board_main DESTINATION usr/libexec/update-active)
file(GLOB scripts CONFIGURE_DEPENDS ${board}/${app}/script/*.sh)
install(PROGRAMS ${scripts} DESTINATION ${app}/script)
install(PROGRAMS ${board}/etc/init.d/cgrouputil.sh DESTINATION etc/init.d)
install(FILES ${board}/${app}/accountlib/update_active.xml DESTINATION ${app}/accountlib)
install(FILES ${board}/${app}/app_config/tola.cfg DESTINATION ${app}/app_config)
install(FILES ${PROJECT_SOURCE_DIR}/docs/feature.cfg DESTINATION mnt/config)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/operating.md
              ${PROJECT_SOURCE_DIR}/docs/packages.md DESTINATION usr/share/doc/update-active)
foreach(directory home/sys_cfg mnt/log/update mnt/sub_bin/sys_log log/root_log)
  install(DIRECTORY DESTINATION ${directory})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME update-active)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
if(NOT EXISTS ${PROJECT_SOURCE_DIR}/certs/root_rsa2048.pem)
  # Whoever holds the build folder can sign for such a package: its version tells, wherever it goes.
  string(APPEND CPACK_PACKAGE_VERSION +devroots)
endif()
set(CPACK_PACKAGE_CONTACT "update_active maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "activates signed software updates on a controller board")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${TOLA_TARGET_ARCHITECTURE})  # empty: the machine's own
# Named, not asked of dpkg-shlibdeps: that knows no library of a processor whose packages are not installed here.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.36), libgcc-s1, libstdc++6 (>= 12), libssl3 (>= 3.0.0), libtinyxml2-9 (>= 9.0.0), adduser, net-tools, unzip")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/conffiles ${packaging}/postinst ${packaging}/prerm ${packaging}/postrm)
include(CPack)
