# What every target compiles with: the warnings, and the sanitizers of this build.

add_compile_options(
    -Wall -Wextra -Wpedantic -Werror
    -Wconversion -Wsign-conversion -Wshadow
    -Wnon-virtual-dtor -Woverloaded-virtual
    -Wold-style-cast -Wcast-qual -Wcast-align -Wformat=2 -Wundef
    -Wimplicit-fallthrough -Wextra-semi -Wmissing-declarations)

if(FDSTREAM_SANITIZE)
    # The product has no run-time type information, which the vptr check needs.
    set(sanitize -fsanitize=${FDSTREAM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    if(FDSTREAM_SANITIZE MATCHES "undefined")
        list(APPEND sanitize -fno-sanitize=vptr)
    endif()
    if(FDSTREAM_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        list(APPEND sanitize -Wno-maybe-uninitialized)  # g++ 12 sees it in the library's <regex>
    endif()
    add_compile_options(${sanitize})
    add_link_options(${sanitize})
endif()
