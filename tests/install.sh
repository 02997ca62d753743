#!/bin/sh
# Installs into an empty root, and builds and runs the examples against it in three ways: with
# the CMake package, with pkg-config, and with the bare compiler. Then adds the source tree to
# another project.
# usage: install.sh SOURCE BUILD CC CXX FLAGS
set -eu
source=$1 build=$2 cc=$3 cxx=$4 flags=$5
work=$(mktemp -d)
service_pid=
stop() {
    [ -z "$service_pid" ] || kill "$service_pid" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap stop EXIT
trap 'exit 1' HUP INT TERM
root=$work/root
cmake --install "$build" --prefix "$root" >"$work/log"
library_folder=$(dirname "$(find "$root" -name libzel.a)")
cp "$source"/examples/minimal_*.c "$source"/examples/minimal_client.cpp "$work"

# run WHAT FOLDER: the C client and the C++ client talk to the service
run() {
    export LD_LIBRARY_PATH="$library_folder"
    mkfifo "$work/ready"
    "$2/minimal_service" "unix:$work/sock" >"$work/ready" &
    service_pid=$!
    read -r ready <"$work/ready"
    [ "$ready" = "ready unix:$work/sock" ]
    "$2/minimal_client" "unix:$work/sock" | grep -qx "0: policy 7 is set, with 1 pairs"
    "$2/minimal_client_cpp" "unix:$work/sock" | grep -qx "policy 7 is set, with 2 pairs"
    kill "$service_pid"
    wait "$service_pid" || true
    service_pid=
    rm "$work/ready"
    echo "$1: client, service and C++ client work"
}

# compile FOLDER OPTIONS...
compile() {
    folder=$work/$1
    shift
    mkdir "$folder"
    # shellcheck disable=SC2086
    {
        "$cc" $flags "$work/minimal_client.c" -o "$folder/minimal_client" "$@"
        "$cc" $flags "$work/minimal_service.c" -o "$folder/minimal_service" "$@"
        "$cxx" $flags -std=c++17 "$work/minimal_client.cpp" -o "$folder/minimal_client_cpp" "$@"
    }
}

compile bare -I"$root/include" -L"$library_folder" -lzel -lzel-platform
run "bare compiler, shared" "$work/bare"
compile whole -I"$root/include" -L"$library_folder" -lzel-whole
run "bare compiler, one object" "$work/whole"

export PKG_CONFIG_LIBDIR="$library_folder/pkgconfig"
# shellcheck disable=SC2046
compile pkgconfig $(pkg-config --define-prefix --cflags --libs zel zel-platform)
run "pkg-config" "$work/pkgconfig"

cat >"$work/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(user C CXX)
if(ZEL_SOURCE)
    add_subdirectory(${ZEL_SOURCE} zel)
else()
    find_package(zel 1.0 REQUIRED)
endif()
foreach(libraries static+platform_static shared+platform whole)
    string(REGEX REPLACE "([a-z_]+)" "zel::\\1" targets ${libraries})
    string(REPLACE + ";" targets ${targets})
    foreach(source minimal_client.c minimal_service.c minimal_client.cpp)
        string(REGEX REPLACE "\\.c$" "" program ${source})
        string(REPLACE .cpp _cpp program ${program})
        add_executable(${libraries}-${program} ${source})
        target_link_libraries(${libraries}-${program} PRIVATE ${targets})
        target_compile_features(${libraries}-${program} PRIVATE c_std_11 cxx_std_17)
        set_target_properties(${libraries}-${program} PROPERTIES OUTPUT_NAME ${program}
            RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${libraries})
    endforeach()
endforeach()
EOF
configure() {
    cmake -S "$work" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$flags" \
        -DCMAKE_CXX_FLAGS="$flags" "$@" >"$work/log"
}
configure -B "$work/installed" -DCMAKE_PREFIX_PATH="$root"
cmake --build "$work/installed" >"$work/log" || { cat "$work/log"; exit 1; }
for libraries in static+platform_static shared+platform whole; do
    run "CMake package, $libraries" "$work/installed/$libraries"
done

# Completion comes with the tools.
if [ -x "$root/bin/zelctl" ]; then
    # shellcheck disable=SC2016
    bash -c 'source "$0"; COMP_WORDS=(zelctl policy app) COMP_CWORD=2; _zelctl zelctl app policy; [ "${COMPREPLY[*]}" = apply ]
        COMP_WORDS=(zelctl --completion ""); _zelctl zelctl "" --completion; [ "${COMPREPLY[*]}" = "bash zsh fish" ]' \
        "$root/share/bash-completion/completions/zelctl"
    test -s "$root/share/zsh/vendor-completions/_zelctl"
    test -s "$root/share/fish/vendor_completions.d/zelctl.fish"
fi

# As a part of another project: the libraries only, and no warnings taken for errors.
configure -B "$work/added" -DZEL_SOURCE="$source"
if grep -qE "Werror|gtest|zelctl|bench" "$work/added/build.ninja"; then
    echo "the tree brings more than its libraries into another project" >&2
    exit 1
fi
