# Coverage-guided fuzzing of what reads foreign bytes, by clang's libFuzzer.
zelGlob(fuzzers tests/fuzz/*Fuzz.cpp)
foreach(source ${fuzzers})
  cmake_path(GET source STEM name)
  zelProgram(${name} ${source})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE zel_core)
endforeach()
