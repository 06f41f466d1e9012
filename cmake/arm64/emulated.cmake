# Each program becomes NAME.arm64, and beside it stands NAME, a script that has the emulator run it. So
# whoever starts it by its path, a test, a tool or a person, need not know.

list(APPEND CMAKE_CXX_LINK_EXECUTABLE
    "${CMAKE_CURRENT_LIST_DIR}/wrap <TARGET> \"${FDSTREAM_EMULATOR}\"")

# What the compiler looks through by itself is not to be named to it again, ahead of the standard
# library's headers. CMake does not see that it does so when a launcher makes the paths relative.
list(APPEND CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES ${CMAKE_SYSROOT}/usr/include)
