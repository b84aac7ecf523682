# The machine: a protected server on the host kernel, with a real file system by libext2fs.
zelGlob(machineSources machine/*.cpp)
list(FILTER machineSources EXCLUDE REGEX "/main\\.cpp$")
zelLibrary(machine_core ${machineSources})
target_include_directories(machine_core PUBLIC machine .)
target_link_libraries(machine_core PUBLIC hostkernel zelmod ext2fs com_err xxhash)
zelProgram(zelmachine machine/main.cpp)
target_link_libraries(zelmachine PRIVATE machine_core)

zelGlob(machineTests tests/unit/machine/*.cpp)
zelTests(machine_tests SOURCES ${machineTests} LIBRARIES machine_core LABEL fast TIMEOUT 120)
