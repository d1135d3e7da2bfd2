# Flags of our own code; what hosts compile against carries none of them.
add_library(vex_flags INTERFACE)
target_compile_definitions(vex_flags INTERFACE
  BOOST_ASIO_NO_DEPRECATED
  # Asio is compiled once, in base/asio_impl.cpp.
  BOOST_ASIO_SEPARATE_COMPILATION
  BOOST_BIND_NO_PLACEHOLDERS
  # Offsets of files and lengths of media exceed 32 bits on 32-bit targets too.
  _FILE_OFFSET_BITS=64)
target_compile_options(vex_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wformat-security
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<BOOL:${VEX_WERROR}>:-Werror>)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(vex_flags INTERFACE -Wthread-safety)
  target_compile_definitions(vex_flags INTERFACE BOOST_THREAD_ENABLE_THREAD_SAFETY_ANALYSIS)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # g++ notes a changed parameter passing at every vector of some Asio types.
  target_compile_options(vex_flags INTERFACE -Wno-psabi)
endif()

target_compile_options(vex_flags INTERFACE -fstack-protector-strong)
target_link_options(vex_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

if(VEX_SANITIZE)
  target_compile_options(vex_flags INTERFACE -fsanitize=${VEX_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(vex_flags INTERFACE -fsanitize=${VEX_SANITIZE})
  if(VEX_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Asio's fences are invisible to the sanitizer; its queues are ordered by mutexes beside them.
    target_compile_options(vex_flags INTERFACE -Wno-tsan)
  endif()
  if(VEX_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND NOT VEX_BUILD_FUZZ)
    # As a library of its own the runtime stands behind the tests' allocation functions, where they
    # look for the original ones.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} --print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
      OUTPUT_VARIABLE vex_asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    get_filename_component(vex_asan_folder ${vex_asan_runtime} DIRECTORY)
    target_link_options(vex_flags INTERFACE -shared-libasan -Wl,-rpath,${vex_asan_folder})
  endif()
  if(VEX_SANITIZE MATCHES "undefined")
    # Clang's check of virtual tables wants a pipe each time, and tests leave no descriptor for it.
    target_compile_options(vex_flags INTERFACE -fno-sanitize-recover=all
      $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=vptr>)
  endif()
else()
  target_compile_definitions(vex_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
