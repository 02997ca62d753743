# The library and the reference platform in one archive, compiled anew for programs that
# are optimised as a whole.  The objects are fat: they hold ordinary code as well, for
# linkers that do not know the compiler.  libzel.a itself is plain, because GCC optimises
# across fat objects even when a link does not ask for it, and whoever puts functions of
# his own between library and platform would not see them called.
function(add_whole_library name)
    foreach(library zel_objects zel_platform)
        get_target_property(sources ${library} SOURCES)
        get_target_property(folder ${library} SOURCE_DIR)
        list(TRANSFORM sources PREPEND ${folder}/)
        add_library(${name}_${library} OBJECT ${sources})
        target_include_directories(${name}_${library} PRIVATE
            ${PROJECT_SOURCE_DIR}/reference/include $<TARGET_PROPERTY:${library},INCLUDE_DIRECTORIES>)
        target_link_libraries(${name}_${library} PRIVATE zel_wire)
        target_compile_options(${name}_${library} PRIVATE
            $<TARGET_PROPERTY:${library},COMPILE_OPTIONS> -flto -ffat-lto-objects)
        # The library takes the platform's inline functions instead of calling it for every element.
        target_compile_definitions(${name}_${library} PRIVATE
            ZEL_INLINE_ELEMENTS="reference/tlv/array.hpp" ${ARGN})
        set_target_properties(${name}_${library} PROPERTIES
            CXX_VISIBILITY_PRESET hidden
            VISIBILITY_INLINES_HIDDEN ON)
        list(APPEND objects $<TARGET_OBJECTS:${name}_${library}>)
    endforeach()
    add_library(${name} STATIC ${objects})
    target_include_directories(${name} PUBLIC
        ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/reference/include)
    target_compile_options(${name} INTERFACE -flto)
    target_link_options(${name} INTERFACE -flto=auto)
endfunction()
