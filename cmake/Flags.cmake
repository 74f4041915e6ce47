# The one place for compiler and linker flags; every target links tarnwell_flags.
add_library(tarnwell_flags INTERFACE)
target_include_directories(tarnwell_flags INTERFACE ${CMAKE_SOURCE_DIR}/src)
target_compile_options(tarnwell_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wconversion
  -Wno-sign-conversion -fno-omit-frame-pointer)
target_compile_definitions(tarnwell_flags INTERFACE _FILE_OFFSET_BITS=64 TARNWELL_VERSION="${PROJECT_VERSION}")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 sees members of std::variant, std::optional and std::expected that do not exist at that moment freed or read
  # as soon as it optimizes, and overlaps in std::string that cannot be; these three warnings are wrong more often than
  # right.
  target_compile_options(tarnwell_flags INTERFACE -Wno-maybe-uninitialized -Wno-free-nonheap-object -Wno-restrict)
endif()
if(TARNWELL_WERROR)
  target_compile_options(tarnwell_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(tarnwell_flags INTERFACE -Wthread-safety)
endif()
if(TARNWELL_SANITIZE)
  target_compile_options(tarnwell_flags INTERFACE -fsanitize=${TARNWELL_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(tarnwell_flags INTERFACE -fsanitize=${TARNWELL_SANITIZE})
endif()
if(TARNWELL_FUZZ)
  # libFuzzer is told which ways the inputs take; programs without it ignore that.
  target_compile_options(tarnwell_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(tarnwell_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(TARNWELL_COVERAGE)
  target_compile_options(tarnwell_flags INTERFACE --coverage)
  target_link_options(tarnwell_flags INTERFACE --coverage)
endif()
