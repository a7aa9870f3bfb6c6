# `make package`: a Debian package of the install tree under
# CMAKE_INSTALL_PREFIX (default /usr/local/ardent), with the systemd unit in
# /lib/systemd/system enabled on install, the manual page where man finds
# it, and etc/agent.properties kept as a configuration file across upgrades
# and removals.
set(ARDENT_PREFIX ${CMAKE_INSTALL_PREFIX})
set(ARDENT_UNIT_FILE ${CMAKE_BINARY_DIR}/packaging/ardent-agent.service)
configure_file(${PROJECT_SOURCE_DIR}/packaging/ardent-agent.service.in ${ARDENT_UNIT_FILE} @ONLY)
foreach(script postinst prerm postrm)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/deb/${script}.in ${CMAKE_BINARY_DIR}/packaging/deb/${script} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
file(WRITE ${CMAKE_BINARY_DIR}/packaging/deb/conffiles "${ARDENT_PREFIX}/etc/agent.properties\n")
set(ARDENT_MAN_PAGE ${PROJECT_SOURCE_DIR}/packaging/ardent-agent.8)
configure_file(${PROJECT_SOURCE_DIR}/packaging/deb/install-unit.cmake.in
               ${CMAKE_BINARY_DIR}/packaging/install-unit.cmake @ONLY)

install(FILES ${ARDENT_UNIT_FILE} DESTINATION share/systemd)
install(FILES packaging/ardent-agent.8 DESTINATION share/man/man8)
install(FILES packaging/agent.properties DESTINATION etc PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ardent-agent)
set(CPACK_PACKAGE_VENDOR "Ardent")
set(CPACK_PACKAGE_CONTACT "Ardent maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "host-security agent that finds web shells")
set(CPACK_PACKAGE_DESCRIPTION
    "Scans web roots on the host and in its containers, periodically, on demand and as files change, and reports web shells as JSON events.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${ARDENT_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The shared libraries of the staged tree resolve each other through RPATH.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${ARDENT_STAGE_LIB})
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/deb/postinst
    ${CMAKE_BINARY_DIR}/packaging/deb/prerm
    ${CMAKE_BINARY_DIR}/packaging/deb/postrm
    ${CMAKE_BINARY_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_BINARY_DIR}/packaging/install-unit.cmake)
include(CPack)
