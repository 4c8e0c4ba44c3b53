#!/usr/bin/env bash
# Installs the library and builds the first programs outside of this tree, in both ways that the README shows. The third
# argument is the build folder.
. "$(dirname "$0")/support.sh"
build=$3

mkdir "$scratch/own"
cp "$sources/examples/hello_sender.cpp" "$sources/examples/hello_c.c" "$sources/examples/linking/CMakeLists.txt" "$scratch/own"
cmake --install "$build" --prefix "$scratch/place" >"$scratch/install.out"
cd "$scratch/own"
cmake -S . -B build -G Ninja -DCMAKE_PREFIX_PATH="$scratch/place" && cmake --build build

pc=$(find "$scratch/place" -name vekmsg.pc)
export PKG_CONFIG_PATH=${pc%/*}
export LD_LIBRARY_PATH=${PKG_CONFIG_PATH%/*}
bash -e "$sources/examples/linking/build"

use_directory "$sources/examples/hello.directory"
for sender in build/hello_sender ./hello_sender ./hello_c; do
    start hello_receiver "$scratch/hello.directory"
    receiver=$process
    wait_for_line hello_receiver "receiver is listening"
    timeout 60 "$sender" "$scratch/hello.directory" >"$scratch/sender.out" || fail "$sender ended with $?"
    end_well "$receiver" hello_receiver
    expect_output sender <<<"receiver answers: Hello yourself"
done
