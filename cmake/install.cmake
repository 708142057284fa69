# What `cmake --install` puts where its users look. Debian's packages take it from there.
include(CMakePackageConfigHelpers)

install(TARGETS kivtrap DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/completions/kivtrap.bash RENAME kivtrap
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/completions/_kivtrap
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES packaging/completions/kivtrap.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(FILES CHANGELOG.md SECURITY.md docs/architecture.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.cc")

# The libraries: headers by folder, archives, a CMake package and pkg-config files.
set(KIV_LIBRARIES liblocal snmp rpc)
foreach(library ${KIV_LIBRARIES})
  install(TARGETS kivtrap_${library} EXPORT kivtrap
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/kivtrap)
  install(DIRECTORY ${library} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivtrap
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/include/liblocal/base/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivtrap/liblocal/base)
install(EXPORT kivtrap NAMESPACE kivtrap:: FILE kivtrap-config.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kivtrap)
write_basic_package_version_file(kivtrap-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivtrap-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kivtrap)

# A pkg-config file for each engine, with the libraries below it. The prefix is relative to
# the file's own directory, so the whole tree may be moved.
file(RELATIVE_PATH KIV_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
function(kiv_pkg_config library description)
  configure_file(packaging/kivtrap-library.pc.in kivtrap-${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivtrap-${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
kiv_pkg_config(snmp "SNMPv1 engine of kivtrap, for C++20")
kiv_pkg_config(rpc "ONC RPC client runtime of kivtrap, for C++20")

# The manual pages, with the version and, in @PROGRAM@, example programs.
set(EXAMPLES ${CMAKE_INSTALL_FULL_DOCDIR}/examples)
foreach(program send_trap get_value rpc_ping)
  set(source ${PROJECT_SOURCE_DIR}/examples/${program}.cc)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  string(STRIP "${text}" text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  string(REPLACE "'" "\\(aq" ${program} "${text}")
endforeach()
foreach(page kivtrap.1 kivtrap-snmp.3 kivtrap-rpc.3)
  configure_file(docs/man/${page}.in ${page} @ONLY)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${page}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
