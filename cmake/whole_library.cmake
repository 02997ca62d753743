# The library and the reference platform as one object, optimised as a whole here: who links
# it needs no option and no particular compiler.  libzel.a itself is plain, because a program
# may put functions of its own between library and platform.
#
# Builds for sanitizers and fuzzers have the same code as ordinary objects.
#
# Symbols that the version scripts do not name are local to the object.
function(add_whole_library name)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND ZEL_IS_PRODUCT)
        set(options -O3 -fPIC -flto -fno-gnu-unique) # unique symbols cannot become local
    endif()
    foreach(library zel_objects zel_platform)
        add_inlined_objects(${name}_${library} ${library} ${ARGN})
        target_compile_options(${name}_${library} PRIVATE ${options})
        list(APPEND objects $<TARGET_OBJECTS:${name}_${library}>)
    endforeach()

    if(options)
        link_whole_object(${name} "${options}" "${objects}")
        set(objects ${CMAKE_CURRENT_BINARY_DIR}/${name}.o)
    endif()
    add_library(${name} STATIC ${objects})
    set_target_properties(${name} PROPERTIES LINKER_LANGUAGE C)
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/reference/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# Makes the object NAME.o of others.
function(link_whole_object name options objects)
    set(exported ${CMAKE_CURRENT_BINARY_DIR}/${name}.symbols)
    set(names)
    foreach(map src/libzel.map reference/libzel-platform.map)
        file(STRINGS ${PROJECT_SOURCE_DIR}/${map} lines REGEX "^ *[a-z_0-9]+;$")
        string(REGEX MATCHALL "[a-z_0-9]+" lines "${lines}")
        list(APPEND names ${lines})
    endforeach()
    list(JOIN names "\n" names)
    file(WRITE ${exported} "${names}\n")

    separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
    set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}.o)
    # One partition: GCC 12 fails on several.  No section groups: a linker keeps one of several
    # groups with the same name, and that one would have local symbols.
    add_custom_command(OUTPUT ${object}
        COMMAND ${CMAKE_CXX_COMPILER} ${flags} ${options} -r -nostdlib -flinker-output=nolto-rel -flto-partition=one
            -Wl,--force-group-allocation -o ${object} ${objects}
        COMMAND ${CMAKE_OBJCOPY} --keep-global-symbols=${exported} --strip-debug ${object}
        DEPENDS ${objects}
        COMMAND_EXPAND_LISTS
        COMMENT "Optimising ${name} as a whole"
        VERBATIM)
    set_source_files_properties(${object} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
endfunction()

# The objects of a library, which take the platform's inline functions instead of calling it for every
# element.  Further arguments are definitions.
function(add_inlined_objects name library)
    get_target_property(sources ${library} SOURCES)
    get_target_property(folder ${library} SOURCE_DIR)
    list(TRANSFORM sources PREPEND ${folder}/)
    add_library(${name} OBJECT ${sources})
    target_include_directories(${name} PRIVATE
        ${PROJECT_SOURCE_DIR}/reference/include $<TARGET_PROPERTY:${library},INCLUDE_DIRECTORIES>)
    target_link_libraries(${name} PRIVATE zel_wire)
    target_compile_options(${name} PRIVATE $<TARGET_PROPERTY:${library},COMPILE_OPTIONS>)
    target_compile_definitions(${name} PRIVATE ZEL_INLINE_ELEMENTS="reference/tlv/array.hpp" ${ARGN})
    set_target_properties(${name} PROPERTIES
        UNITY_BUILD OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
endfunction()
