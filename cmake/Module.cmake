# The module as one relocatable object, as a kernel's build makes it. Its data get sections of
# their own, whose bounds (__start_zelmod_data, __stop_zelmod_data and likewise zelmod_bss) let the
# host kernel's module loader put them back to their first state at each load.

zelGlob(moduleSources zelmod/2.6/*.cpp zelmod/2.6/*/*.cpp)
add_library(zelmod_objects OBJECT ${moduleSources})
target_include_directories(zelmod_objects PRIVATE kernel/include kernel/host/include zelmod/2.6)
target_compile_options(zelmod_objects PRIVATE -O2 ${warningFlags} -ffreestanding -fno-exceptions
  -fno-rtti -fno-threadsafe-statics -fno-use-cxa-atexit -fno-strict-aliasing -fwrapv -fno-common)
if(NOT sanitizers)
  # Kernel stacks are 8 KiB. Sanitizers put their own data into the frames.
  target_compile_options(zelmod_objects PRIVATE -Wframe-larger-than=1024)
endif()

if(ZEL_BUILD MATCHES "^(i386|asan)$")
  set(linkFormat elf_i386)
else()
  set(linkFormat elf_x86_64)
endif()
set(moduleObject ${PROJECT_BINARY_DIR}/zelmod.o)
set(moduleScript ${PROJECT_SOURCE_DIR}/kernel/host/module.lds)
add_custom_command(OUTPUT ${moduleObject}
  COMMAND ${CMAKE_LINKER} -m ${linkFormat} -r --force-group-allocation -T ${moduleScript}
    -o ${moduleObject} $<TARGET_OBJECTS:zelmod_objects>
  DEPENDS zelmod_objects $<TARGET_OBJECTS:zelmod_objects> ${moduleScript}
  COMMENT "Merging the module's objects" COMMAND_EXPAND_LISTS VERBATIM)
add_custom_target(zelmod_object DEPENDS ${moduleObject})

# What programs link: the object as a whole, never as parts of a library.
add_library(zelmod INTERFACE)
target_sources(zelmod INTERFACE ${moduleObject})
target_include_directories(zelmod INTERFACE kernel/include kernel/host/include zelmod/2.6)
add_dependencies(zelmod zelmod_object)
