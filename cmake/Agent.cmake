# The agent: zelsend on the device's side, zel on the other.

# zelsend's sources as a library for tests and for what zel has in common with it; without what the
# program has to do without.
zelGlob(zelsendCore agent/*.cpp)
list(FILTER zelsendCore EXCLUDE REGEX "/main\\.cpp$")
zelLibrary(zelsend_core ${zelsendCore})
target_compile_options(zelsend_core PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)
target_include_directories(zelsend_core PUBLIC agent zelmod/2.6)

zelGlob(zelSources agent/zel/*.cpp)
list(FILTER zelSources EXCLUDE REGEX "/main\\.cpp$")
zelLibrary(zel_core ${zelSources})
target_include_directories(zel_core PUBLIC agent/zel agent)
target_link_libraries(zel_core PUBLIC zelsend_core zstd xxhash Threads::Threads)
zelProgram(zel agent/zel/main.cpp)
target_link_libraries(zel PRIVATE zel_core)
