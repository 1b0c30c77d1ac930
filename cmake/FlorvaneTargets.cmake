# Compiler settings of every target, and one function to declare a box of the architecture.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=10G ${CCACHE})
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

add_library(florvane_settings INTERFACE)
target_include_directories(florvane_settings INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(florvane_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                       -Woverloaded-virtual -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(florvane_settings INTERFACE -Wthread-safety)
else()
  # GCC 12 reports inlined standard library code of its own under these four.
  target_compile_options(florvane_settings INTERFACE -Wno-array-bounds -Wno-maybe-uninitialized -Wno-restrict
                         -Wno-stringop-overflow)
  target_compile_options(florvane_settings INTERFACE -fpch-preprocess)
endif()
target_link_libraries(florvane_settings INTERFACE Threads::Threads)
if(FLORVANE_SANITIZE)
  target_compile_options(florvane_settings INTERFACE -fsanitize=${FLORVANE_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(florvane_settings INTERFACE -fsanitize=${FLORVANE_SANITIZE})
  if(FLORVANE_SANITIZE MATCHES "undefined")
    target_compile_options(florvane_settings INTERFACE -fno-sanitize-recover=undefined)
  endif()
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Instrumentation keeps GCC 12 from seeing that a short string's buffer is not left.
    target_compile_options(florvane_settings INTERFACE -Wno-array-bounds)
    if(FLORVANE_SANITIZE MATCHES "thread")
      target_compile_options(florvane_settings INTERFACE -Wno-tsan)
    endif()
  endif()
endif()

# florvane_precompile(TARGET): the standard headers that nearly every source includes.
function(florvane_precompile target)
  if(FLORVANE_PCH)
    target_precompile_headers(${target} PRIVATE <algorithm> <atomic> <chrono> <condition_variable> <cstdint>
      <functional> <map> <memory> <mutex> <optional> <set> <span> <string> <string_view> <thread> <unordered_map>
      <utility> <variant> <vector>)
  endif()
endfunction()

# florvane_library(NAME SOURCES... ): one box. Link its dependencies with target_link_libraries afterwards.
function(florvane_library target)
  add_library(${target} STATIC ${ARGN})
  target_link_libraries(${target} PUBLIC florvane_settings)
  florvane_precompile(${target})
endfunction()

# florvane_program(NAME OUTPUT SOURCES...)
function(florvane_program target output)
  add_executable(${target} ${ARGN})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${output})
  target_link_libraries(${target} PRIVATE florvane_settings)
endfunction()
