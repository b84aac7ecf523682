# zelsend as it is delivered: static, 32 bits, on a C library that also runs on old kernels, and
# without the C++ runtime library, so that it needs nothing on the machine it is copied to.
zelGlob(zelsendSources agent/*.cpp)
set(musl ${PROJECT_SOURCE_DIR}/build/cache/musl-i386/usr)
if(NOT EXISTS ${musl}/lib/i386-linux-musl/libc.a)
  message(FATAL_ERROR "the C library for zelsend is missing (${musl}): run tools/setup.sh")
endif()
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
  OUTPUT_VARIABLE compilerHeaders OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -m32 -print-libgcc-file-name
  OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(zelsendFlags -std=c++20 -m32 -march=i686 -O2 -g ${warningFlags} -fno-exceptions -fno-rtti
  -fno-threadsafe-statics -fno-stack-protector -fno-pie -fcf-protection=none
  -fno-asynchronous-unwind-tables -ffunction-sections -fdata-sections -U_FORTIFY_SOURCE
  -D_FILE_OFFSET_BITS=64 -nostdinc -isystem ${musl}/include/i386-linux-musl
  -isystem ${compilerHeaders} -I${PROJECT_SOURCE_DIR}/agent -I${PROJECT_SOURCE_DIR}/zelmod/2.6)
set(zelsendObjects "")
foreach(source ${zelsendSources})
  cmake_path(GET source STEM name)
  set(object ${PROJECT_BINARY_DIR}/zelsend.dir/${name}.o)
  add_custom_command(OUTPUT ${object}
    COMMAND ${CMAKE_CXX_COMPILER} ${zelsendFlags} -MD -MF ${object}.d -c ${source} -o ${object}
    DEPENDS ${source} DEPFILE ${object}.d
    COMMENT "Building zelsend.dir/${name}.o" VERBATIM)
  list(APPEND zelsendObjects ${object})
endforeach()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/zelsend.dir)
set(muslLibraries ${musl}/lib/i386-linux-musl)
set(zelsendProgram ${PROJECT_BINARY_DIR}/zelsend)
add_custom_command(OUTPUT ${zelsendProgram}
  COMMAND ${CMAKE_CXX_COMPILER} -m32 -static -no-pie -nostdlib -Wl,--gc-sections
    -Wl,-z,noexecstack -o ${zelsendProgram} ${muslLibraries}/crt1.o ${muslLibraries}/crti.o
    ${zelsendObjects} -Wl,--start-group ${muslLibraries}/libc.a ${libgcc} -Wl,--end-group
    ${muslLibraries}/crtn.o
  DEPENDS ${zelsendObjects} ${muslLibraries}/libc.a
  COMMENT "Linking zelsend" VERBATIM)
add_custom_target(zelsend_program ALL DEPENDS ${zelsendProgram})
