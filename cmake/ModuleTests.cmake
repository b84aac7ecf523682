# The tests of the seam, the host kernel and the module.

zelGlob(supportSources tests/support/*.cpp)
# These stand in for a device, a peer or a failing system below the agent, and belong to its tests.
list(FILTER supportSources EXCLUDE REGEX "/(streamBuilder|fakeDevice|faultyCalls)\\.cpp$")
add_library(testsupport STATIC ${supportSources})
target_compile_options(testsupport PRIVATE -O2 ${warningFlags})
target_include_directories(testsupport PUBLIC . tests)
target_link_libraries(testsupport PUBLIC hostkernel zelmod gtest)

zelGlob(hostTests tests/unit/host/*.cpp)
zelTests(host_tests SOURCES ${hostTests} LIBRARIES testsupport LABEL fast TIMEOUT 120)
zelGlob(contractTests tests/contract/*.cpp)
zelTests(contract_tests SOURCES ${contractTests} LIBRARIES testsupport LABEL fast TIMEOUT 120)
zelGlob(unitTests tests/unit/*.cpp)
zelTests(unit_tests SOURCES ${unitTests} LIBRARIES testsupport LABEL fast TIMEOUT 120)
if(EXISTS ${PROJECT_SOURCE_DIR}/tests/scenario)
  zelGlob(scenarioTests tests/scenario/*.cpp)
  zelTests(scenario_tests SOURCES ${scenarioTests} LIBRARIES testsupport LABEL slow TIMEOUT 300)
endif()

# The simulation runs under the deterministic scheduler, in which no two threads run at a time: the
# thread sanitizer would find nothing there.
zelGlob(simulationSources tests/simulation/*.cpp)
list(FILTER simulationSources EXCLUDE REGEX "(Main|Test)\\.cpp$")
add_library(simulation STATIC ${simulationSources})
target_compile_options(simulation PRIVATE -O2 ${warningFlags})
target_link_libraries(simulation PUBLIC testsupport)
zelProgram(simulate tests/simulation/simulateMain.cpp)
target_link_libraries(simulate PRIVATE simulation)
if(NOT ZEL_BUILD STREQUAL tsan)
  zelGlob(simulationTests tests/simulation/*Test.cpp)
  zelTests(simulation_tests SOURCES ${simulationTests} LIBRARIES simulation LABEL slow TIMEOUT 900)
  # The sanitizers make a run several times as long.
  if(ZEL_BUILD STREQUAL asan)
    target_compile_definitions(simulation_tests PRIVATE SEEDS_PER_TEST=20)
  else()
    target_compile_definitions(simulation_tests PRIVATE SEEDS_PER_TEST=250)
  endif()
endif()

# Checks that are no test programs, once.
if(ZEL_BUILD STREQUAL i386)
  foreach(check lint check-kernel-objects)
    add_test(NAME ${check} COMMAND ${PROJECT_SOURCE_DIR}/tools/${check}.sh)
    add_test(NAME ${check}.self_test COMMAND ${PROJECT_SOURCE_DIR}/tools/${check}.sh --self-test)
    set_tests_properties(${check} ${check}.self_test PROPERTIES LABELS fast TIMEOUT 120)
  endforeach()
endif()
