# Programs that need nothing on the machine they are copied to: static, 32 bits, on a C library that
# also runs on old kernels, and without the C++ runtime library.
set(musl ${PROJECT_SOURCE_DIR}/build/cache/musl-i386/usr)
if(NOT EXISTS ${musl}/lib/i386-linux-musl/libc.a)
  message(FATAL_ERROR "the static C library is missing (${musl}): run tools/setup.sh")
endif()
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
  OUTPUT_VARIABLE compilerHeaders OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -m32 -print-libgcc-file-name
  OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(staticFlags -std=c++20 -m32 -march=i686 -O2 -g ${warningFlags} -fno-exceptions -fno-rtti
  -fno-threadsafe-statics -fno-stack-protector -fno-pie -fcf-protection=none
  -fno-asynchronous-unwind-tables -ffunction-sections -fdata-sections -U_FORTIFY_SOURCE
  -D_FILE_OFFSET_BITS=64 -nostdinc -isystem ${musl}/include/i386-linux-musl
  -isystem ${compilerHeaders})

#   zelStaticProgram(NAME SOURCES file... [INCLUDES folder...])
# makes the program NAME in the build's folder, by the target NAME_program.
function(zelStaticProgram name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;INCLUDES")
  list(TRANSFORM arg_INCLUDES PREPEND -I${PROJECT_SOURCE_DIR}/)
  set(objects "")
  foreach(source ${arg_SOURCES})
    cmake_path(GET source STEM stem)
    set(object ${PROJECT_BINARY_DIR}/${name}.dir/${stem}.o)
    add_custom_command(OUTPUT ${object}
      COMMAND ${CMAKE_CXX_COMPILER} ${staticFlags} ${arg_INCLUDES} -MD -MF ${object}.d
        -c ${source} -o ${object}
      DEPENDS ${source} DEPFILE ${object}.d
      COMMENT "Building ${name}.dir/${stem}.o" VERBATIM)
    list(APPEND objects ${object})
  endforeach()
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/${name}.dir)
  set(libraries ${musl}/lib/i386-linux-musl)
  set(program ${PROJECT_BINARY_DIR}/${name})
  add_custom_command(OUTPUT ${program}
    COMMAND ${CMAKE_CXX_COMPILER} -m32 -static -no-pie -nostdlib -Wl,--gc-sections
      -Wl,-z,noexecstack -o ${program} ${libraries}/crt1.o ${libraries}/crti.o
      ${objects} -Wl,--start-group ${libraries}/libc.a ${libgcc} -Wl,--end-group
      ${libraries}/crtn.o
    DEPENDS ${objects} ${libraries}/libc.a
    COMMENT "Linking ${name}" VERBATIM)
  add_custom_target(${name}_program ALL DEPENDS ${program})
endfunction()
