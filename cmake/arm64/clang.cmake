# clang and libc++, as the device's platform has them.

include(${CMAKE_CURRENT_LIST_DIR}/arm64.cmake)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
# The sysroot's headers, and not what the host may have of libc++.
add_compile_options(-nostdinc++)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${CMAKE_SYSROOT}/usr/lib/llvm-14/include/c++/v1)
foreach(kind EXE SHARED)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT -stdlib=libc++)
endforeach()
