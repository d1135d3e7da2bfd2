# One libFuzzer program for each tests/fuzz/fuzz_<entry>.cpp.
# With afl-clang-fast++ as compiler the same flags make programs for AFL++.
add_custom_target(fuzzers)
file(GLOB VEX_FUZZ_SOURCES CONFIGURE_DEPENDS tests/fuzz/fuzz_*.cpp)
foreach(source ${VEX_FUZZ_SOURCES})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE vex_testable vex_flags)
  add_dependencies(fuzzers ${name})
endforeach()

if(TARGET fuzz_xml)
  # What the parser is compared with.
  find_package(EXPAT REQUIRED)
  target_link_libraries(fuzz_xml PRIVATE EXPAT::EXPAT)
endif()
