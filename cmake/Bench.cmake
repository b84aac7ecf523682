# The benchmarks, with Google Benchmark's library as packaged. The agent's calls and the disks are
# those of the tests.
find_package(benchmark REQUIRED)
zelGlob(benchSources bench/*.cpp)
zelProgram(bench ${benchSources} tests/support/agent.cpp tests/support/testDisk.cpp)
target_include_directories(bench PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(bench PRIVATE hostkernel zelmod benchmark::benchmark)
