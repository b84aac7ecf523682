# zelsend as it is delivered.
include(StaticProgram)
zelGlob(zelsendSources agent/*.cpp)
zelStaticProgram(zelsend SOURCES ${zelsendSources} INCLUDES agent zelmod/2.6)
set(zelsendProgram ${PROJECT_BINARY_DIR}/zelsend)
