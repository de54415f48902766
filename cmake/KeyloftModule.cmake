# keyloft_module(<name> [DEPENDS <targets>...])
# Builds every .cpp of the calling folder into the static library keyloft_<name>.
# Sources are globbed so that adding a file needs no edit here.
function(keyloft_module name)
    cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    if(sources)
        add_library(keyloft_${name} STATIC ${sources})
        target_link_libraries(keyloft_${name} PUBLIC keyloft_common ${ARG_DEPENDS})
    else()
        add_library(keyloft_${name} INTERFACE)
        target_link_libraries(keyloft_${name} INTERFACE keyloft_common ${ARG_DEPENDS})
    endif()
endfunction()
