# The tests of zelsend and zel.

# A device, a stream's writer and failing system calls for the tests.
zelGlob(agentSupport tests/support/streamBuilder.cpp tests/support/fakeDevice.cpp
  tests/support/faultyCalls.cpp)
zelGlob(agentTests tests/unit/agent/*.cpp)
zelTests(agent_tests SOURCES ${agentTests} ${agentSupport} LIBRARIES zel_core zelsend_core
  LABEL fast TIMEOUT 120)

add_test(NAME zelsend_is_static
  COMMAND ${PROJECT_SOURCE_DIR}/tools/check-zelsend.sh ${zelsendProgram})
# The same check refuses a program that needs libraries.
add_test(NAME zelsend_check_refuses_dynamic
  COMMAND ${PROJECT_SOURCE_DIR}/tools/check-zelsend.sh $<TARGET_FILE:zel>)
set_tests_properties(zelsend_check_refuses_dynamic PROPERTIES WILL_FAIL TRUE)
set_tests_properties(zelsend_is_static zelsend_check_refuses_dynamic
  PROPERTIES LABELS fast TIMEOUT 30)
