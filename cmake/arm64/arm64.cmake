# What both toolchains for 64-bit Arm have in common: the root that cmake/arm64/fetch unpacks, and the
# emulator that runs what is built.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/arm64-sysroot ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/packages)
    message(FATAL_ERROR "${CMAKE_SYSROOT} is not there: cmake/arm64/fetch makes it")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig)

set(FDSTREAM_EMULATOR "qemu-aarch64 -L '${CMAKE_SYSROOT}'")
