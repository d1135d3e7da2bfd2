# The programs use the shared library through its public headers only; vexsim not at all.
set(VEXSIM_DEVICES_DIR ${CMAKE_CURRENT_SOURCE_DIR}/apps/vexsim/devices)

find_package(nlohmann_json 3.9 REQUIRED)
find_path(VEX_CLI11_INCLUDE_DIR CLI/CLI.hpp REQUIRED)
add_library(vex_app_flags INTERFACE)
target_link_libraries(vex_app_flags INTERFACE vex_flags nlohmann_json::nlohmann_json)
target_include_directories(vex_app_flags SYSTEM INTERFACE ${VEX_CLI11_INCLUDE_DIR})

file(GLOB VEXSIM_SOURCES CONFIGURE_DEPENDS apps/vexsim/*.cpp)
add_executable(vexsim ${VEXSIM_SOURCES})
target_link_libraries(vexsim PRIVATE vex_app_flags)
target_compile_definitions(vexsim PRIVATE VEXSIM_DEVICES_DIR="${VEXSIM_DEVICES_DIR}")

file(GLOB VEXCP_SOURCES CONFIGURE_DEPENDS apps/vexcp/*.cpp)
add_executable(vexcp ${VEXCP_SOURCES})
target_link_libraries(vexcp PRIVATE vexupnpcp vex_app_flags)

file(GLOB VEX_EXAMPLE_SOURCES CONFIGURE_DEPENDS examples/*.cpp)
foreach(source ${VEX_EXAMPLE_SOURCES})
  get_filename_component(name ${source} NAME_WE)
  add_executable(example_${name} ${source})
  set_target_properties(example_${name} PROPERTIES OUTPUT_NAME ${name}
                        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/examples)
  target_link_libraries(example_${name} PRIVATE vexupnpcp vex_flags)
endforeach()

add_subdirectory(tests/soak)

if(VEX_BUILD_TESTS)
  add_test(NAME program_tests
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tools/two_hosts
                   python3 -m unittest discover -s ${CMAKE_CURRENT_SOURCE_DIR}/tests/programs)
  set_tests_properties(program_tests PROPERTIES
                       ENVIRONMENT VEX_BINARY_DIR=${CMAKE_CURRENT_BINARY_DIR})
endif()

if(VEX_BUILD_BENCH)
  add_subdirectory(bench/discovery)
  add_subdirectory(bench/actions)
endif()
