# SCRIVA_FUZZ builds the targets in tests/fuzz as libFuzzer programs. Everything is compiled with
# coverage instrumentation and the address and undefined-behaviour sanitizers; needs clang.
# Without it the same targets are plain programs that replay their corpus under CTest.
option(SCRIVA_FUZZ "Build the fuzz targets as libFuzzer programs (clang only)" OFF)
if(SCRIVA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "SCRIVA_FUZZ needs clang (configure with CC=clang CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
