# cmake --install: library, headers, and what CMake and pkg-config users need to find them.
include(CMakePackageConfigHelpers)
set(VEX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vexupnpcp)

install(TARGETS vexupnpcp EXPORT vexupnpcp_targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/vexupnpcp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(EXPORT vexupnpcp_targets NAMESPACE vexupnpcp:: DESTINATION ${VEX_CMAKE_DIR}
        FILE vexupnpcp-targets.cmake)

configure_package_config_file(cmake/vexupnpcp-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp-config.cmake INSTALL_DESTINATION ${VEX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp-config-version.cmake
        DESTINATION ${VEX_CMAKE_DIR})

# The prefix is known when somebody installs (cmake --install --prefix), not now; so the file reckons it
# from its own place.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(VEX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH VEX_PC_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(PREPEND VEX_PC_PREFIX "\${pcfiledir}/")
  string(REGEX REPLACE "/$" "" VEX_PC_PREFIX "${VEX_PC_PREFIX}")
endif()
foreach(part LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${part}}")
    set(VEX_PC_${part} "${CMAKE_INSTALL_${part}}")
  else()
    set(VEX_PC_${part} "\${prefix}/${CMAKE_INSTALL_${part}}")
  endif()
endforeach()
configure_file(cmake/vexupnpcp.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
