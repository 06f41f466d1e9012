# Debian's cross compiler, with a libstdc++ of its own.

include(${CMAKE_CURRENT_LIST_DIR}/arm64.cmake)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
