# The formats whose code is generated from a schema or lies in a packaged library.
# Static libraries where the package has them: calls into them are direct.

# Runs a schema compiler; what it generates is not held to the project's warnings.
set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)
function(generate outputs schema)
    list(TRANSFORM outputs PREPEND ${generated}/)
    add_custom_command(OUTPUT ${outputs}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${generated}
        COMMAND ${ARGN} ${schema}
        WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/schemas
        DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/schemas/${schema})
    set_source_files_properties(${outputs} PROPERTIES COMPILE_OPTIONS -w)
    target_sources(zel_bench PRIVATE ${outputs})
endfunction()
target_include_directories(zel_bench SYSTEM PRIVATE ${generated})

generate("policy.pb.cc;policy.pb.h" policy.proto protoc --cpp_out=${generated})
generate("policy.pb-c.c;policy.pb-c.h" policy.proto protoc-c --c_out=${generated})
generate(policy_generated.h policy.fbs flatc --cpp -o ${generated})
generate("policy.capnp.c++;policy.capnp.h" policy.capnp capnp compile -oc++:${generated})

foreach(library libprotobuf.a libprotobuf-c.a libcapnp.a libkj.a mnl)
    find_library(path_of_${library} ${library} REQUIRED)
    target_link_libraries(zel_bench PRIVATE ${path_of_${library}})
endforeach()

# Without it, the headers of msgpack look for Boost.
target_compile_definitions(zel_bench PRIVATE MSGPACK_NO_BOOST)
target_sources(zel_bench PRIVATE
    contenders/protobuf.cpp
    contenders/protobuf_c.cpp
    contenders/flatbuffers.cpp
    contenders/capnproto.cpp
    contenders/msgpack.cpp
    contenders/libmnl.cpp)
