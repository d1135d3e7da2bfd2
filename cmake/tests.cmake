find_package(GTest REQUIRED)

# The library's objects with a clock that tests can shorten.
add_library(vex_testable STATIC tests/support/timing_scaled.cpp)
target_link_libraries(vex_testable PUBLIC vex_objects PRIVATE vex_flags)
target_include_directories(vex_testable PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}
                           ${CMAKE_CURRENT_SOURCE_DIR}/include)

file(GLOB VEX_SUPPORT_SOURCES CONFIGURE_DEPENDS tests/support/*.cpp)
list(REMOVE_ITEM VEX_SUPPORT_SOURCES
     ${CMAKE_CURRENT_SOURCE_DIR}/tests/support/timing_scaled.cpp)
add_library(vex_test_support STATIC ${VEX_SUPPORT_SOURCES})
target_link_libraries(vex_test_support PUBLIC vex_testable GTest::gmock GTest::gtest
                      PRIVATE vex_flags)

# Lets tests/support/fail_alloc.cpp fail an allocation; the sanitizers' own allocator stays in place.
target_link_options(vex_test_support INTERFACE
  LINKER:--wrap=malloc LINKER:--wrap=calloc LINKER:--wrap=realloc
  # A program whose tests fail no allocation needs the wrappers all the same.
  LINKER:--undefined=__wrap_malloc)

# vex_test_program(NAME FOLDER): one program of all tests in a folder.
function(vex_test_program name folder)
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*_test.cpp)
  if(VEX_TEST_FILTER)
    list(FILTER sources INCLUDE REGEX "${VEX_TEST_FILTER}")
  endif()
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_compile_definitions(${name} PRIVATE VEX_SOURCE_DIR="${CMAKE_CURRENT_SOURCE_DIR}"
                             VEX_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}")
  target_link_libraries(${name} PRIVATE vex_test_support vex_flags)
  # Tests are compiled far more often than they run: unoptimised they build in less than half the time.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Debug>:-O0>)
  add_test(NAME ${name} COMMAND ${ARGN} $<TARGET_FILE:${name}>)
endfunction()

if(VEX_BUILD_TESTS)
  vex_test_program(unit_tests tests/unit)
  vex_test_program(scenario_tests tests/scenario ${CMAKE_CURRENT_SOURCE_DIR}/tools/in_netns)
  # Some of them need a device that is a process of its own.
  if(TARGET scenario_tests AND TARGET vexsim)
    add_dependencies(scenario_tests vexsim)
    set_source_files_properties(tests/scenario/fault_process_test.cpp PROPERTIES
                                COMPILE_DEFINITIONS VEX_HAVE_VEXSIM)
  endif()
  # Many threads at once, for as long as VEX_STRESS_SECONDS says.
  file(GLOB VEX_STRESS_SOURCES CONFIGURE_DEPENDS tests/stress/*.cpp)
  add_executable(stress_tests ${VEX_STRESS_SOURCES})
  target_link_libraries(stress_tests PRIVATE vex_test_support vex_flags)
  add_test(NAME stress_tests
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tools/in_netns $<TARGET_FILE:stress_tests>)
  set_tests_properties(stress_tests PROPERTIES ENVIRONMENT VEX_STRESS_SECONDS=6)
endif()

if(VEX_BUILD_BENCH)
  include(cmake/bench.cmake)
endif()
if(VEX_BUILD_FUZZ)
  include(cmake/fuzz.cmake)
endif()
