# What `cmake --install` and `cpack -G DEB` put where their users look.
include(CMakePackageConfigHelpers)

install(TARGETS kivtrap DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
install(FILES docs/man/kivtrap.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
install(FILES packaging/completions/kivtrap.bash RENAME kivtrap
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT command)
install(FILES packaging/completions/_kivtrap
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT command)
install(FILES README.md CHANGELOG.md docs/architecture.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT command)

# The libraries: headers by folder, archives, a CMake package and pkg-config files.
set(KIV_LIBRARIES platform liblocal snmp rpc)
foreach(library ${KIV_LIBRARIES})
  install(TARGETS ${library} EXPORT kivtrap
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/kivtrap COMPONENT development)
  install(DIRECTORY ${library} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivtrap
    COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()
install(EXPORT kivtrap NAMESPACE kivtrap:: FILE kivtrap-config.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kivtrap COMPONENT development)
write_basic_package_version_file(kivtrap-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivtrap-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kivtrap COMPONENT development)

# A pkg-config file for each engine, with all that stands under it. It finds its
# prefix from its own place, so the whole tree may be moved.
file(RELATIVE_PATH KIV_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
function(kiv_pkg_config library description)
  configure_file(packaging/kivtrap-library.pc.in kivtrap-${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivtrap-${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
kiv_pkg_config(snmp "SNMPv1 engine of kivtrap")
kiv_pkg_config(rpc "ONC RPC client runtime of kivtrap")

set(CPACK_PACKAGE_VENDOR "the kivtrap developers")
set(CPACK_PACKAGE_CONTACT "the kivtrap developers <kivtrap@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME kivtrap)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION net)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "libc6 (>= 2.36)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME kivtrap-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENTS_ALL command development)
include(CPack)
