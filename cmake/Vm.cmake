# The scenarios in a real kernel under an emulator: the guest's only program, and the program that
# drives it. The latter has 32 bits, so that both sides can share addresses, and is not optimised: all
# that it does is to wait for the emulator. zelsend runs there as it is delivered; zel, which takes its
# stream, is the native build's.
include(Zelsend)
zelGlob(guestSources vm/guest/*.cpp)
zelStaticProgram(vm_guest SOURCES ${guestSources})

# test::Agent, with host::Process as a process of the guest.
zelGlob(vmHostSources vm/host/*.cpp tests/support/agent.cpp)
list(FILTER vmHostSources EXCLUDE REGEX "/main\\.cpp$")
add_library(vm_host STATIC ${vmHostSources})
target_compile_options(vm_host PRIVATE ${warningFlags})
target_precompile_headers(vm_host PRIVATE <algorithm> <fstream> <functional> <map> <mutex> <regex>
  <set> <sstream> <string> <thread> <vector>)
target_include_directories(vm_host PUBLIC ${PROJECT_SOURCE_DIR} tests kernel/include
  kernel/host/include zelmod/2.6)
target_link_libraries(vm_host PUBLIC Threads::Threads)

function(vmProgram name)
  add_executable(${name} ${ARGN})
  target_compile_options(${name} PRIVATE ${warningFlags})
  target_link_libraries(${name} PRIVATE vm_host)
  target_precompile_headers(${name} REUSE_FROM vm_host)
endfunction()

zelGlob(vmSources tests/scenario/*.cpp)
list(FILTER vmSources EXCLUDE REGEX "/hostScenarioTest\\.cpp$")
vmProgram(vm_scenarios vm/host/main.cpp ${vmSources})
add_custom_target(vm DEPENDS vm_guest_program zelsend_program vm_scenarios)

# Measurements in that kernel: a program for the guest, and what drives it.
zelGlob(benchGuestSources vm/guest/bench/*.cpp)
zelStaticProgram(vm_bench_guest SOURCES ${benchGuestSources} INCLUDES zelmod/2.6)
zelGlob(benchSources vm/bench/*.cpp)
list(FILTER benchSources EXCLUDE REGEX "/main\\.cpp$")
add_library(vm_bench_parts STATIC ${benchSources})
target_compile_options(vm_bench_parts PRIVATE ${warningFlags})
target_link_libraries(vm_bench_parts PUBLIC vm_host)
vmProgram(vm_bench vm/bench/main.cpp)
target_link_libraries(vm_bench PRIVATE vm_bench_parts)
add_custom_target(vm-bench DEPENDS vm_guest_program vm_bench_guest_program vm_bench)
zelGlob(vmTests tests/unit/vm/*.cpp)
zelTests(vm_tests SOURCES ${vmTests} LIBRARIES vm_bench_parts LABEL fast TIMEOUT 120)

# The demonstration in that kernel: a program that changes files in the guest, and what drives it.
zelGlob(demoGuestSources vm/guest/demo/*.cpp)
zelStaticProgram(vm_demo_writer SOURCES ${demoGuestSources})
zelGlob(demoSources vm/demo/*.cpp)
vmProgram(vm_demo ${demoSources})
add_custom_target(vm-demo DEPENDS vm_guest_program vm_demo_writer_program zelsend_program vm_demo)

# A few of the scenarios belong to the checks: in Debian's kernel, and in another one where the
# environment says which to take. They take some minutes, and their limit is for a busy machine; they
# begin first. Debian's keeps two processors busy.
foreach(step debian module package scenarios)
  add_test(NAME real_kernel.${step}
    COMMAND ${PROJECT_SOURCE_DIR}/tools/check-real-kernel.sh ${step})
  set_tests_properties(real_kernel.${step} PROPERTIES LABELS vm COST 1000 TIMEOUT 3600
    SKIP_RETURN_CODE 77)
endforeach()
set_tests_properties(real_kernel.debian PROPERTIES PROCESSORS 2)
set_tests_properties(real_kernel.module PROPERTIES FIXTURES_SETUP real_module)
set_tests_properties(real_kernel.scenarios PROPERTIES FIXTURES_REQUIRED real_module)
