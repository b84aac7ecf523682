# The compiler flags of each build. Read before project(), so that CMake's own probes use them.

# Everything is linked at fixed addresses: the module's objects are position-dependent, as a
# kernel module's are.
set(buildFlags "-g -fno-pie -fno-omit-frame-pointer")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie")
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
set(sanitizers "")
set(speed -O2)

if(ZEL_BUILD STREQUAL i386)
  set(buildFlags "${buildFlags} -m32 -D_FILE_OFFSET_BITS=64")
elseif(ZEL_BUILD STREQUAL asan)
  set(buildFlags "${buildFlags} -m32 -D_FILE_OFFSET_BITS=64")
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(ZEL_BUILD STREQUAL tsan)
  set(sanitizers -fsanitize=thread)
elseif(ZEL_BUILD STREQUAL fuzz)
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(sanitizers -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
elseif(ZEL_BUILD STREQUAL release)
  set(buildFlags "${buildFlags} -DNDEBUG")
elseif(ZEL_BUILD STREQUAL package)
  # What links the host kernel must be at fixed addresses, and nothing here does.
  set(buildFlags "")
  set(CMAKE_EXE_LINKER_FLAGS_INIT "")
elseif(NOT ZEL_BUILD STREQUAL native)
  message(FATAL_ERROR
    "ZEL_BUILD is '${ZEL_BUILD}'; it must be i386, asan, tsan, native, release, fuzz or package")
endif()

set(CMAKE_C_FLAGS_INIT "${buildFlags}")
set(CMAKE_CXX_FLAGS_INIT "${buildFlags}")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# A sanitizer's checks are far more code than what they check: optimising all that takes longer than it
# saves.
if(sanitizers)
  set(speed -O1)
endif()
add_compile_options(${sanitizers})
add_link_options(${sanitizers})
