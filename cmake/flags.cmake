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
  if(VEX_SANITIZE MATCHES "undefined")
    target_compile_options(vex_flags INTERFACE -fno-sanitize-recover=all)
  endif()
else()
  target_compile_definitions(vex_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
