# The kernel in user space, which the module, the machine and the tests run on.
zelGlob(hostKernelSources kernel/host/*.cpp)
zelLibrary(hostkernel ${hostKernelSources})
target_include_directories(hostkernel PUBLIC kernel/include kernel/host/include)
target_link_libraries(hostkernel PUBLIC Threads::Threads)
