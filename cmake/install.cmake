# What the authors of clients and providers need, and no more, in a folder that may be moved:
#   cmake --install build/host --prefix FOLDER
# A project that has this one below it links the same two names, fdstream::client and
# fdstream::provider.

add_library(fdstream_client INTERFACE)
target_compile_features(fdstream_client INTERFACE cxx_std_17)
target_link_libraries(fdstream_client INTERFACE fdstream_control fdstream_transport)
add_library(fdstream_provider INTERFACE)
target_link_libraries(fdstream_provider INTERFACE fdstream fdstream_client)
foreach(side client provider)
    add_library(fdstream::${side} ALIAS fdstream_${side})
    set_target_properties(fdstream_${side} PROPERTIES EXPORT_NAME ${side})
endforeach()

# The others have their version in their names.
set_target_properties(fdstream_platform fdstream_transport fdstream_control PROPERTIES
    VERSION ${fdstream_VERSION}
    SOVERSION ${fdstream_VERSION_MAJOR})

option(FDSTREAM_INSTALL "Have rules for cmake --install" ${PROJECT_IS_TOP_LEVEL})
if(NOT FDSTREAM_INSTALL)
    return()
endif()

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/fdstream)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/fdstream)

# Debugging information names this folder and the build's, which nobody has who gets the result.
install(CODE "set(CMAKE_INSTALL_DO_STRIP ON)")

# install_library(TARGET EXPORT_NAME HEADERS)
function(install_library target name folder)
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name} INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${target} EXPORT fdstream
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${headers}/${folder})
endfunction()
install_library(fdstream_platform platform platform)
install_library(fdstream_platform_host platform-host client)
install_library(fdstream_interfaces interfaces client)
install_library(fdstream_transport transport client)
install_library(fdstream_control control client)
install_library(fdstream implementation provider)
install(TARGETS fdstream_client fdstream_provider EXPORT fdstream)

# The stand-in's headers bear the device's names, so they have a folder of their own. What of its
# registry and of the transport's inside is not for these authors stays here.
install(DIRECTORY platform/include/ DESTINATION ${headers}/platform
    PATTERN mapper EXCLUDE)
install(DIRECTORY interfaces/include/ DESTINATION ${headers}/client)
install(FILES
    platform/host/buffer.h platform/host/log.h platform/host/properties.h
    transport/host/channel.h transport/host/limits.h transport/host/served_watch.h
    DESTINATION ${headers}/client/host)
install(FILES control/IFDControl.h DESTINATION ${headers}/client)
install(FILES
    session/FDSession.h control/control_server.h framesource/FDSessionTest.h
    util/YUVFile.h util/ZoruUtil.h util/zoru_ycbcr.h
    DESTINATION ${headers}/provider)

install(EXPORT fdstream NAMESPACE fdstream:: DESTINATION ${package} FILE fdstream-targets.cmake)
write_basic_package_version_file(${fdstream_BINARY_DIR}/fdstream-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES cmake/fdstream-config.cmake ${fdstream_BINARY_DIR}/fdstream-config-version.cmake
    DESTINATION ${package})

file(RELATIVE_PATH includes ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/fdstream)
file(RELATIVE_PATH libraries ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix "${prefix}")
foreach(side client provider)
    configure_file(cmake/fdstream-${side}.pc.in ${fdstream_BINARY_DIR}/fdstream-${side}.pc @ONLY)
    install(FILES ${fdstream_BINARY_DIR}/fdstream-${side}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(TARGET fdstream-client)  # whose help names it
    install(FILES docs/client-json.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# A tool's manual page is made from its help, which only a tool that runs here can tell.
file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(pages "")
foreach(tool provider client detect ctl)
    set(name fdstream-${tool})
    if(NOT TARGET ${name})
        continue()
    endif()
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    if(NOT CMAKE_CROSSCOMPILING)
        set(page ${fdstream_BINARY_DIR}/man/${name}.1)
        add_custom_command(OUTPUT ${page}
            COMMAND sh ${fdstream_SOURCE_DIR}/cmake/man_page.sh
                $<TARGET_FILE:${name}> ${fdstream_VERSION} ${page}
            DEPENDS ${name} cmake/man_page.sh cmake/man_page.awk
            VERBATIM)
        install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
        list(APPEND pages ${page})
    endif()
endforeach()
file(MAKE_DIRECTORY ${fdstream_BINARY_DIR}/man)
add_custom_target(manual-pages ALL DEPENDS ${pages})
