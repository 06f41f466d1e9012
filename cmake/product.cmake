# The product: four folders of objects, and what is linked from them.
#
# The shared library exports what product.map lists and nothing else: hidden visibility alone would
# leave unique symbols of the standard library in it, which keep it from being unloaded. Tests that
# need an internal function link the same objects statically.

set(product_objects
    $<TARGET_OBJECTS:fdstream_helper> $<TARGET_OBJECTS:fdstream_util>
    $<TARGET_OBJECTS:fdstream_session> $<TARGET_OBJECTS:fdstream_framesource>
    $<TARGET_OBJECTS:fdstream_test_input>)

add_library(fdstream SHARED ${product_objects})
set_target_properties(fdstream PROPERTIES
    OUTPUT_NAME vendor.zoru.zoruprovider.fdstream@1.0-impl
    PREFIX ""
    LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/product.map)
target_link_options(fdstream PRIVATE
    -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/product.map)
if(NOT FDSTREAM_SANITIZE)
    target_link_options(fdstream PRIVATE -Wl,--no-undefined)
endif()

add_library(fdstream_static STATIC ${product_objects})

foreach(library fdstream fdstream_static)
    target_include_directories(${library} INTERFACE
        $<BUILD_INTERFACE:${fdstream_SOURCE_DIR}/session>
        $<BUILD_INTERFACE:${fdstream_SOURCE_DIR}/util>
        $<BUILD_INTERFACE:${fdstream_SOURCE_DIR}/framesource>)
    target_link_libraries(${library} PUBLIC fdstream_interfaces)
endforeach()
target_include_directories(fdstream_static INTERFACE ${fdstream_SOURCE_DIR}/helper)
