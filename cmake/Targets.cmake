# SPDX-License-Identifier: Apache-2.0
# How this project declares its targets.
#
# A library's headers are reachable only as "<folder>/<header>.h", and only by
# targets that list the library in USES: each folder is exported through a
# private include root that holds nothing but that folder. So the USES lists
# are the dependency table, and a forbidden #include does not compile.

add_library(zx_options INTERFACE)
target_compile_options(zx_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wimplicit-fallthrough -Wcast-align -Wformat=2 -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
if(ZX_SANITIZE)
  add_compile_options(-fsanitize=${ZX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${ZX_SANITIZE})
  add_compile_definitions(ZX_SANITIZED=1)
endif()

# Made anew each time: a folder that was one before may hold others now.
file(REMOVE_RECURSE "${PROJECT_BINARY_DIR}/roots")

# zx_folder(TARGET FOLDER): lets TARGET's users include "FOLDER/x.h".
function(zx_folder target folder)
  set(root "${PROJECT_BINARY_DIR}/roots/${target}")
  get_filename_component(parent "${root}/${folder}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${folder}" "${root}/${folder}" SYMBOLIC)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_include_directories(${target} INTERFACE "${root}")
  else()
    target_include_directories(${target} PUBLIC "${root}")
  endif()
endfunction()

# zx_library(NAME FOLDER folder SOURCES ... USES ...): a static library.
function(zx_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER" "SOURCES;USES")
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC ${arg_USES} PRIVATE zx_options)
  zx_folder(${name} ${arg_FOLDER})
endfunction()

# zx_test(NAME SOURCES ... USES ...): a GoogleTest program, one ctest entry a case.
# Run in the source tree's root, so that tests find examples/ and corpora.
function(zx_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_USES} zx_options GTest::gmock_main)
  # Only what is tested is worth optimising; the matchers' templates take the
  # compiler twice as long with it.
  target_compile_options(${name} PRIVATE $<$<CONFIG:RelWithDebInfo>:-O0 -g1>)
  set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
  list(LENGTH arg_SOURCES sources)
  if(sources GREATER 2)
    target_precompile_headers(${name} PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
  endif()
  include(GoogleTest)
  gtest_discover_tests(${name} WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
                       TEST_PREFIX "${name}: " PROPERTIES TIMEOUT 120 DISCOVERY_TIMEOUT 60)
endfunction()

# zx_fuzz_target(NAME SOURCES ... USES ...): with ZX_FUZZ a libFuzzer program;
# otherwise one that replays fuzz/corpus/NAME, registered as a test.
function(zx_fuzz_target name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_USES} zx_options)
  if(ZX_FUZZ)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(${name} PRIVATE "${PROJECT_SOURCE_DIR}/fuzz/replay.cpp")
    add_test(NAME "fuzz corpus: ${name}"
             COMMAND ${name} "${PROJECT_SOURCE_DIR}/fuzz/corpus/${name}")
  endif()
endfunction()
