# Warnings, sanitizers and defaults shared by every Fennick target.
add_library(fennick_flags INTERFACE)
target_compile_options(fennick_flags INTERFACE -Wall -Wextra -Wpedantic
  $<$<BOOL:${FENNICK_WERROR}>:-Werror>)
# GCC 12 at -O3 warns of overlapping copies inside libstdc++'s own
# `"literal" + std::string` (GCC bug 105651), which no caller can avoid.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(fennick_flags INTERFACE -Wno-restrict)
endif()

if(FENNICK_SANITIZE STREQUAL "address")
  set(FENNICK_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer
      -fno-sanitize-recover=undefined)
elseif(FENNICK_SANITIZE STREQUAL "thread")
  set(FENNICK_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(FENNICK_SANITIZE STREQUAL "fuzz")
  # The library is instrumented for coverage; only the fuzz targets link libFuzzer.
  set(FENNICK_SANITIZER_FLAGS -fsanitize=fuzzer-no-link,address,undefined
      -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
elseif(FENNICK_SANITIZE)
  message(FATAL_ERROR "FENNICK_SANITIZE must be address, thread or fuzz")
endif()
if(FENNICK_SANITIZER_FLAGS)
  add_compile_options(${FENNICK_SANITIZER_FLAGS})
  add_link_options(${FENNICK_SANITIZER_FLAGS})
endif()

function(fennick_configure_target target)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:fennick_flags>)
endfunction()
