# Per-target settings shared by every bexko target: warnings and the sanitizer chosen with
# BEXKO_SANITIZE. Applied target by target, never as global flags.

if(BEXKO_SANITIZE AND NOT BEXKO_SANITIZE MATCHES "^(address|thread)$")
  message(FATAL_ERROR "BEXKO_SANITIZE must be 'address', 'thread' or empty, not '${BEXKO_SANITIZE}'")
endif()
if(BEXKO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang" OR NOT CMAKE_C_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "BEXKO_FUZZ needs clang for C and C++ (libFuzzer), not "
                        "${CMAKE_C_COMPILER_ID}/${CMAKE_CXX_COMPILER_ID}: configure with "
                        "CC=clang-14 CXX=clang++-14 in a fresh build folder")
  endif()
  if(BEXKO_SANITIZE STREQUAL "thread")
    message(FATAL_ERROR "BEXKO_FUZZ builds with AddressSanitizer: it cannot be combined with "
                        "BEXKO_SANITIZE=thread")
  endif()
endif()

function(bexko_configure_target target)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    return()
  endif()
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  if(BEXKO_SANITIZE STREQUAL "address")
    # Undefined behaviour aborts the process, so that a test that meets it fails.
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined
                                             -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=undefined)
  elseif(BEXKO_FUZZ)
    # Every library that a fuzz target reaches is instrumented for coverage, so that the fuzzer
    # steers by what happens inside it, and checked by the same sanitizers as the target.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined
                                             -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=undefined)
  elseif(BEXKO_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
endfunction()

# bexko_add_gtest(<name> SOURCES ... LIBRARIES ...): a GoogleTest executable registered with
# ctest. Every test executable runs with its own temporary HOME and XDG folders (tests/support/isolated_main.cpp),
# so that no test touches the user's home.
function(bexko_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} bexko_test_main GTest::gtest GTest::gmock)
  bexko_configure_target(${name})
  # Tests see the packages shipped in the build tree's share/bexko.
  add_dependencies(${name} bexko_data)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "BEXKO_TEST_ISOLATE=1;BEXKO_ENGINE_FAST=1")
endfunction()

# bexko_glob_sources(<out-var> <dir>): the .cpp files of <dir>; while a component has none yet,
# one empty placeholder source, so that its target exists and the tree configures.
function(bexko_glob_sources out dir)
  file(GLOB sources CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT sources)
    get_filename_component(name ${dir} NAME)
    string(MD5 key ${dir})
    set(placeholder ${CMAKE_BINARY_DIR}/placeholders/${key}.cpp)
    file(WRITE ${placeholder} "// ${dir} has no sources yet.\n")
    set(sources ${placeholder})
  endif()
  set(${out} ${sources} PARENT_SCOPE)
endfunction()

# bexko_add_component_tests(<name> <dir> LIBRARIES ... [TIMEOUT s]): one GoogleTest executable
# from <dir>/test_*.cpp, when there are any.
function(bexko_add_component_tests name dir)
  cmake_parse_arguments(ARG "" "TIMEOUT" "LIBRARIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${dir}/test_*.cpp)
  if(sources AND BEXKO_BUILD_TESTS)
    if(NOT ARG_TIMEOUT)
      set(ARG_TIMEOUT 120)
    endif()
    bexko_add_gtest(${name} SOURCES ${sources} LIBRARIES ${ARG_LIBRARIES} TIMEOUT ${ARG_TIMEOUT})
  endif()
endfunction()

# bexko_add_fuzz_target(<name> SOURCES ... LIBRARIES ... CORPUS <dir> [DICT <file>]): a libFuzzer
# executable (built only with BEXKO_FUZZ), checked by AddressSanitizer and
# UndefinedBehaviorSanitizer. <dir> is its committed seed corpus, <file> an optional libFuzzer
# dictionary; bin/fuzz-targets.txt lists every target with its corpus and dictionary, for
# scripts/fuzz.sh.
function(bexko_add_fuzz_target name)
  cmake_parse_arguments(ARG "" "CORPUS;DICT" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
  bexko_configure_target(${name})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_property(GLOBAL APPEND PROPERTY BEXKO_FUZZ_TARGETS "${name} ${ARG_CORPUS} ${ARG_DICT}")
  get_property(targets GLOBAL PROPERTY BEXKO_FUZZ_TARGETS)
  list(JOIN targets "\n" lines)
  file(WRITE ${CMAKE_BINARY_DIR}/bin/fuzz-targets.txt "${lines}\n")
  if(NOT TARGET bexko_fuzz)
    add_custom_target(bexko_fuzz)
  endif()
  add_dependencies(bexko_fuzz ${name})
endfunction()
