# What is installed, and the Debian package that `cpack` makes of it. corvaned finds lum and corvack beside itself and
# the grammar in ../share/corvane, so these places belong together.
install(TARGETS corvaned lum corvack RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT corvane)
install(TARGETS corvsh corvbus RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT corvane)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/grammar/ DESTINATION ${CMAKE_INSTALL_DATADIR}/corvane COMPONENT corvane
  FILES_MATCHING PATTERN "*.cli")
foreach(section 1 8)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT corvane
    FILES_MATCHING PATTERN "*.${section}")
endforeach()
install(FILES ${CMAKE_CURRENT_LIST_DIR}/corvsh.bash-completion
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME corvsh COMPONENT corvane)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/export/krel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvane COMPONENT corvane)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/operations.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/corvane COMPONENT corvane)
# The service and what it reads stand where systemd and the administrator look for them, whatever the prefix.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/corvane.service DESTINATION /lib/systemd/system COMPONENT corvane)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/corvane.conf.example DESTINATION /etc/corvane COMPONENT corvane)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/corvane.default DESTINATION /etc/default RENAME corvane COMPONENT corvane)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane)
set(CPACK_PACKAGE_CONTACT "The Corvane developers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Ethernet segments across a routed IP core")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "lum carries the VLANs of a site to other sites across a routed IP network.
 It runs on the small switch platform Corvane: corvaned, its shell corvsh and the bus tool corvbus.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL corvane)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser | passwd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/deb/postinst
  ${CMAKE_CURRENT_LIST_DIR}/deb/prerm ${CMAKE_CURRENT_LIST_DIR}/deb/postrm ${CMAKE_CURRENT_LIST_DIR}/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
