# The scenarios in a real kernel under an emulator: the guest's only program, and the program that
# drives it. The latter has 32 bits, so that both sides can share addresses.
include(StaticProgram)
zelGlob(guestSources vm/guest/*.cpp)
zelStaticProgram(vm_guest SOURCES ${guestSources})

# test::Agent, with host::Process as a process of the guest.
zelGlob(vmSources vm/host/*.cpp tests/scenario/*.cpp tests/support/agent.cpp)
list(FILTER vmSources EXCLUDE REGEX "/hostScenarioTest\\.cpp$")
zelProgram(vm_scenarios ${vmSources})
target_include_directories(vm_scenarios PRIVATE ${PROJECT_SOURCE_DIR} tests kernel/include
  kernel/host/include zelmod/2.6)
target_link_libraries(vm_scenarios PRIVATE Threads::Threads)
add_custom_target(vm DEPENDS vm_guest_program vm_scenarios)
