# fdstream::client for who writes a client, fdstream::provider for who writes a provider.

include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/fdstream-targets.cmake)
foreach(side client provider)
    set(fdstream_${side}_FOUND TRUE)
endforeach()
foreach(component IN LISTS fdstream_FIND_COMPONENTS)
    if(fdstream_FIND_REQUIRED_${component} AND NOT fdstream_${component}_FOUND)
        set(fdstream_FOUND FALSE)
        set(fdstream_NOT_FOUND_MESSAGE "there is no component ${component}")
    endif()
endforeach()
