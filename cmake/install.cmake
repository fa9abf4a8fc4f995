# What `cmake --install` gives: libraries, headers, the CMake package and the pkg-config file, and with the tools the
# manual page of modem_sim; tools/modem_api_test/ installs that of the client, and its shell completion.
include(CMakePackageConfigHelpers)

set(PELMAR_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/pelmar_modemapi)
set(PELMAR_INSTALL_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/pelmar_modemapi)

target_include_directories(pelmar_modemapi INTERFACE $<INSTALL_INTERFACE:${PELMAR_INSTALL_HEADERS}>)
target_include_directories(platform_headers INTERFACE $<INSTALL_INTERFACE:${PELMAR_INSTALL_HEADERS}/platform>)
set_target_properties(pelmar_modemapi PROPERTIES EXPORT_NAME modemapi)
set_target_properties(pelmar_platform_linux PROPERTIES EXPORT_NAME platform_linux)

install(TARGETS pelmar_modemapi pelmar_platform_linux platform_headers
  EXPORT pelmar_modemapiTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${PELMAR_INSTALL_HEADERS} FILES_MATCHING PATTERN *.h)
install(DIRECTORY platform/include/ DESTINATION ${PELMAR_INSTALL_HEADERS}/platform FILES_MATCHING PATTERN *.h)

install(EXPORT pelmar_modemapiTargets NAMESPACE pelmar:: DESTINATION ${PELMAR_INSTALL_PACKAGE})
configure_package_config_file(cmake/pelmar_modemapiConfig.cmake.in pelmar_modemapiConfig.cmake
  INSTALL_DESTINATION ${PELMAR_INSTALL_PACKAGE})
write_basic_package_version_file(pelmar_modemapiConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pelmar_modemapiConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/pelmar_modemapiConfigVersion.cmake DESTINATION ${PELMAR_INSTALL_PACKAGE})

configure_file(cmake/pelmar_modemapi.pc.in pelmar_modemapi.pc.in @ONLY)
# The prefix may be chosen as late as at the installation.
install(CODE "
  file(READ \"${CMAKE_CURRENT_BINARY_DIR}/pelmar_modemapi.pc.in\" text)
  string(REGEX REPLACE \"^prefix=[^\\n]*\" \"prefix=\${CMAKE_INSTALL_PREFIX}\" text \"\${text}\")
  file(WRITE \"${CMAKE_CURRENT_BINARY_DIR}/pelmar_modemapi.pc\" \"\${text}\")
")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pelmar_modemapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(PELMAR_TOOLS)
  install(FILES docs/man/modem_sim.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES tools/modem_api_test/json_schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmar)
endif()
