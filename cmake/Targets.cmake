# How this project's libraries, programs and tests are declared.
include(GoogleTest)

set(warningFlags -Wall -Wextra -Werror)

# Sets `result` to the files that match the patterns (relative to the top folder). A folder without
# any is an incomplete checkout.
function(zelGlob result)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/)
  file(GLOB files CONFIGURE_DEPENDS ${ARGN})
  if(NOT files)
    message(FATAL_ERROR "no source file matches ${ARGN}: is the checkout complete?")
  endif()
  set(${result} ${files} PARENT_SCOPE)
endfunction()

# Code that is optimised, in all builds.
function(zelLibrary name)
  add_library(${name} STATIC ${ARGN})
  target_compile_options(${name} PRIVATE ${speed} ${warningFlags})
endfunction()

function(zelProgram name)
  add_executable(${name} ${ARGN})
  target_compile_options(${name} PRIVATE ${speed} ${warningFlags})
endfunction()

if(ZEL_BUILD STREQUAL package)
  return() # no tests, and GoogleTest need not be there
endif()

# GoogleTest with the flags of this build (the package's library fits only one of them), its main
# function, and the sanitizers' settings, which are objects so that they are always linked.
set(googletest /usr/src/googletest)
if(NOT EXISTS ${googletest}/googletest/src/gtest-all.cc)
  message(FATAL_ERROR "${googletest} is missing: install the package googletest (make setup)")
endif()
add_library(gtest STATIC EXCLUDE_FROM_ALL
  ${googletest}/googletest/src/gtest-all.cc ${googletest}/googlemock/src/gmock-all.cc
  ${googletest}/googlemock/src/gmock_main.cc)
target_include_directories(gtest SYSTEM
  PUBLIC ${googletest}/googletest/include ${googletest}/googlemock/include
  PRIVATE ${googletest}/googletest ${googletest}/googlemock)
# Unoptimised and with the address sanitizer its death tests lose their child.
target_compile_options(gtest PRIVATE -O1)
target_link_libraries(gtest PUBLIC Threads::Threads)

add_library(testmain OBJECT EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/tests/sanitizerOptions.cpp)
target_link_libraries(testmain PUBLIC gtest)
target_precompile_headers(testmain PRIVATE <gtest/gtest.h> <functional> <map> <memory> <random>
  <string> <vector>)

# A test program; ctest runs each of its tests in a process of its own.
#   zelTests(NAME SOURCES file... [LIBRARIES library...] [LABEL fast|slow] [TIMEOUT seconds])
function(zelTests name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "LABEL;TIMEOUT" "SOURCES;LIBRARIES")
  add_executable(${name} ${arg_SOURCES})
  target_compile_options(${name} PRIVATE ${warningFlags})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} testmain)
  target_precompile_headers(${name} REUSE_FROM testmain)
  # Under the deterministic scheduler no two threads run at a time: the thread sanitizer would find
  # nothing there.
  if(ZEL_BUILD STREQUAL tsan)
    set(filter TEST_FILTER "-*/deterministic:*_deterministic")
  endif()
  gtest_discover_tests(${name} TEST_PREFIX ${name}. NO_PRETTY_VALUES ${filter}
    DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${arg_LABEL} TIMEOUT ${arg_TIMEOUT})
endfunction()
