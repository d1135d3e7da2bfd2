# The shared library: the objects, real time, and exactly the symbols of the list.
set(VEX_SYMBOL_LIST ${CMAKE_CURRENT_SOURCE_DIR}/tests/abi/exported_symbols.txt)
set(VEX_VERSION_SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/vexupnpcp.map)
file(STRINGS ${VEX_SYMBOL_LIST} VEX_SYMBOLS REGEX "^[A-Za-z_]")
string(REPLACE ";" ";\n    " VEX_SYMBOL_LINES "${VEX_SYMBOLS}")
file(GENERATE OUTPUT ${VEX_VERSION_SCRIPT}
     CONTENT "VEXUPNPCP_1 {\n  global:\n    ${VEX_SYMBOL_LINES};\n  local: *;\n};\n")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VEX_SYMBOL_LIST})

add_library(vexupnpcp SHARED base/timing_product.cpp)
add_library(vexupnpcp::vexupnpcp ALIAS vexupnpcp)
target_include_directories(vexupnpcp PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_include_directories(vexupnpcp PUBLIC
  $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
target_link_libraries(vexupnpcp PRIVATE $<BUILD_INTERFACE:vex_objects> $<BUILD_INTERFACE:vex_flags>)
if(VEX_SYMBOLS)
  target_link_options(vexupnpcp PRIVATE -Wl,--version-script=${VEX_VERSION_SCRIPT})
endif()
if(NOT VEX_SANITIZE)
  target_link_options(vexupnpcp PRIVATE -Wl,--no-undefined)
endif()
set_target_properties(vexupnpcp PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1
  LINK_DEPENDS ${VEX_VERSION_SCRIPT})
