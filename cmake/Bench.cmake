# The benchmarks, with Google Benchmark's library as packaged.
find_package(benchmark REQUIRED)
zelGlob(benchSources bench/*.cpp)
zelProgram(bench ${benchSources})
target_link_libraries(bench PRIVATE hostkernel zelmod benchmark::benchmark)
