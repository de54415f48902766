# The layers, from the ground floor up. A module may use modules of lower layers, and modules of
# its own layer that were added before it; the two tops (the tool and the PKCS#11 module) use only
# lower layers. Each module sees the headers of the modules it uses and no others: its include
# path is a tree of its own holding its folder and, through linking, those of its uses.
set(KEYLOFT_LAYERS base platform formats card top)

# keyloft_module(<name> LAYER <layer> [DEPENDS <modules>...] [LIBRARIES <libraries>...]
#                [EXCLUDE <files>...])
# Builds the .cpp files of the calling folder (all but EXCLUDE) into keyloft_<name>, linked with
# keyloft_<module> for each of DEPENDS and with the third-party LIBRARIES.
function(keyloft_module name)
    cmake_parse_arguments(ARG "" "LAYER" "DEPENDS;LIBRARIES;EXCLUDE" ${ARGN})
    list(FIND KEYLOFT_LAYERS "${ARG_LAYER}" rank)
    if(rank LESS 0)
        message(FATAL_ERROR "keyloft_${name}: unknown layer '${ARG_LAYER}'")
    endif()
    list(LENGTH KEYLOFT_LAYERS layers)
    math(EXPR top "${layers} - 1")
    set(uses "")
    foreach(dependency IN LISTS ARG_DEPENDS)
        if(NOT TARGET keyloft_${dependency})
            message(FATAL_ERROR "keyloft_${name} uses ${dependency}, which is not added before it "
                "(modules are added from the ground floor up)")
        endif()
        get_target_property(used_rank keyloft_${dependency} KEYLOFT_LAYER_RANK)
        if(used_rank GREATER rank OR (used_rank EQUAL rank AND rank EQUAL top))
            list(GET KEYLOFT_LAYERS ${used_rank} used_layer)
            message(FATAL_ERROR "keyloft_${name} (layer ${ARG_LAYER}) may not use ${dependency} "
                "(layer ${used_layer})")
        endif()
        list(APPEND uses keyloft_${dependency})
    endforeach()

    # The module's own include tree: <tree>/<folder> is a link to the folder.
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    set(tree ${PROJECT_BINARY_DIR}/include/${name})
    get_filename_component(parent ${tree}/${folder} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${tree}/${folder} SYMBOLIC)

    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    foreach(excluded IN LISTS ARG_EXCLUDE)
        list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
    endforeach()
    if(sources)
        add_library(keyloft_${name} STATIC ${sources})
        target_include_directories(keyloft_${name} PUBLIC ${tree})
        target_link_libraries(keyloft_${name} PUBLIC ${uses} ${ARG_LIBRARIES})
    else()
        add_library(keyloft_${name} INTERFACE)
        target_include_directories(keyloft_${name} INTERFACE ${tree})
        target_link_libraries(keyloft_${name} INTERFACE ${uses} ${ARG_LIBRARIES})
    endif()
    set_target_properties(keyloft_${name} PROPERTIES KEYLOFT_LAYER_RANK ${rank})
endfunction()
