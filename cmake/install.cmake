# What is installed: components runtime, development, tools, python and docs.
#
# libzel.so and libzel-platform.so do not need each other by name: a program links both, or
# libzel and a platform of its own.

# ---- Libraries and headers

# Names of the targets for users, in this build and installed: zel::static and so on.
set(libraries zel zel_shared zel_whole zel_platform zel_platform_shared)
set(exported static shared whole platform_static platform)
foreach(library name IN ZIP_LISTS libraries exported)
    add_library(zel::${name} ALIAS ${library})
    set_target_properties(${library} PROPERTIES EXPORT_NAME ${name})
endforeach()

install(TARGETS ${libraries} EXPORT zel
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
option(ZEL_INSTALL_COMMON "Install what is the same for every ABI, too: headers, pages" ON)
if(ZEL_INSTALL_COMMON)
    install(DIRECTORY include/ reference/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
endif()
if(TARGET zel_platform_check)
    install(TARGETS zel_platform_check ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    if(ZEL_INSTALL_COMMON)
        install(TARGETS zel_platform_check_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT development)
    endif()
endif()

# ---- CMake package and pkg-config

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zel)
set(package_build ${PROJECT_BINARY_DIR}/package)
install(EXPORT zel NAMESPACE zel:: FILE zel-targets.cmake DESTINATION ${package_dir} COMPONENT development)
file(WRITE ${package_build}/zel-config.cmake "include(\"\${CMAKE_CURRENT_LIST_DIR}/zel-targets.cmake\")\n")
write_basic_package_version_file(${package_build}/zel-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${package_build}/zel-config.cmake ${package_build}/zel-config-version.cmake
    DESTINATION ${package_dir} COMPONENT development)

# add_pkg_config(NAME DESCRIPTION LIBS [REQUIRES])
function(add_pkg_config name description libs)
    file(WRITE ${package_build}/${name}.pc "prefix=${CMAKE_INSTALL_PREFIX}
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}

Name: ${name}
Description: ${description}
Version: ${PROJECT_VERSION}
Requires: ${ARGN}
Libs: -L\${libdir} ${libs}
Cflags: -I\${includedir}
")
    install(FILES ${package_build}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
add_pkg_config(zel "Codec and client library of the zel policy service" -lzel)
add_pkg_config(zel-platform "Platform of libzel for ordinary Linux" -lzel-platform zel)
add_pkg_config(zel-whole "libzel and its platform as one object" -lzel-whole)

if(TARGET zel_nats)
    install(TARGETS zel_nats ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(DIRECTORY nats/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    add_pkg_config(zel-nats "NATS addresses for the platform of libzel" "-lzel-nats -lzel-platform -lnats" zel)
endif()

# ---- Tools

set(tools)
foreach(tool zelctl zeld zelagent)
    if(TARGET ${tool})
        list(APPEND tools ${tool})
    endif()
endforeach()
if(tools)
    install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES packaging/systemd/zeld.service packaging/systemd/zelagent.service
        DESTINATION lib/systemd/system COMPONENT tools)
    install(FILES packaging/systemd/zel.conf DESTINATION lib/sysusers.d COMPONENT tools)
endif()

# ---- For other programs: the dissector, where Wireshark looks for plugins, and the Python package

if(ZEL_INSTALL_COMMON)
    install(FILES wireshark/zel.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)
    install(DIRECTORY python/zel DESTINATION lib/python3/dist-packages COMPONENT python
        PATTERN __pycache__ EXCLUDE)
endif()

# ---- Completion, printed by the tools

set(completions ${PROJECT_BINARY_DIR}/completions)
# add_completion(TOOL SHELL FILE FOLDER)
function(add_completion tool shell file folder)
    add_custom_command(OUTPUT ${completions}/${shell}/${file}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${completions}/${shell}
        COMMAND ${tool} --completion ${shell} > ${completions}/${shell}/${file}
        DEPENDS ${tool})
    set_property(GLOBAL APPEND PROPERTY ZEL_COMPLETIONS ${completions}/${shell}/${file})
    install(FILES ${completions}/${shell}/${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder} COMPONENT tools)
endfunction()
foreach(tool IN LISTS tools)
    add_completion(${tool} bash ${tool} bash-completion/completions)
    add_completion(${tool} zsh _${tool} zsh/vendor-completions)
    add_completion(${tool} fish ${tool}.fish fish/vendor_completions.d)
endforeach()
if(tools)
    get_property(files GLOBAL PROPERTY ZEL_COMPLETIONS)
    add_custom_target(zel_completions ALL DEPENDS ${files})
endif()

# ---- Pages for reading

find_program(ZEL_PYTHON python3)
if(ZEL_PYTHON AND ZEL_INSTALL_COMMON)
    set(manual ${PROJECT_BINARY_DIR}/manual)
    set(documented ${tools})
    if(TARGET zel_platform_check_program)
        list(APPEND documented zel_platform_check_program)
    endif()
    set(tool_files)
    foreach(tool IN LISTS documented)
        list(APPEND tool_files $<TARGET_FILE:${tool}>)
    endforeach()
    add_custom_command(OUTPUT ${manual}/written
        COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual}
        COMMAND ${ZEL_PYTHON} ${PROJECT_SOURCE_DIR}/scripts/man-pages ${manual} ${PROJECT_VERSION} ${tool_files}
        COMMAND ${CMAKE_COMMAND} -E touch ${manual}/written
        DEPENDS scripts/man-pages include/zel.h include/zel/protocol.h include/zel/service.h
            reference/include/zel-platform/kob.h reference/include/zel-platform/kob_client.h
            reference/include/zel-platform/kob_service.h ${documented}
        COMMENT "Writing the manual pages")
    add_custom_target(zel_manual ALL DEPENDS ${manual}/written)
    install(DIRECTORY ${manual}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
    if(TARGET zel_platform_check_program)
        install(FILES ${manual}/man1/zel-platform-check.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT development)
    endif()
    if(tools)
        install(FILES ${manual}/man1/zelctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
        install(DIRECTORY ${manual}/man8 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
    endif()
endif()

install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT docs)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT docs PATTERN CMakeLists.txt EXCLUDE)
