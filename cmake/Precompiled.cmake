# With TARNWELL_PRECOMPILED the headers of the standard library, and for tests those of the test framework, are compiled
# once for all. The sanitizer presets do so, because they compile everything for a single run; the others do not, so that a
# missing #include shows.
option(TARNWELL_PRECOMPILED "Precompile common headers" OFF)

if(TARNWELL_PRECOMPILED)
  # -pthread on some targets only would make two kinds of objects; with this C library it changes nothing else.
  set_property(TARGET PkgConfig::GIO PROPERTY INTERFACE_COMPILE_OPTIONS "")
endif()

function(tarnwell_precompiled_headers name)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/${name}.cpp CONTENT "")
  add_library(${name} STATIC ${CMAKE_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE tarnwell_flags Threads::Threads)
  target_precompile_headers(${name} PRIVATE <algorithm> <atomic> <chrono> <condition_variable> <expected> <functional>
    <map> <memory> <mutex> <optional> <set> <span> <string> <thread> <unordered_map> <variant> <vector> ${ARGN})
endfunction()

function(tarnwell_precompile target)
  if(TARNWELL_PRECOMPILED)
    if(NOT TARGET tarnwell_precompiled)
      tarnwell_precompiled_headers(tarnwell_precompiled)
    endif()
    target_precompile_headers(${target} REUSE_FROM tarnwell_precompiled)
  endif()
endfunction()

function(tarnwell_precompile_tests target)
  if(TARNWELL_PRECOMPILED)
    if(NOT TARGET tarnwell_precompiled_tests)
      tarnwell_precompiled_headers(tarnwell_precompiled_tests <gtest/gtest.h>)
      target_link_libraries(tarnwell_precompiled_tests PRIVATE GTest::gtest)
    endif()
    target_precompile_headers(${target} REUSE_FROM tarnwell_precompiled_tests)
  endif()
endfunction()
