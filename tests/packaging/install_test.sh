#!/usr/bin/env bash
# Installs the library, moves the installation elsewhere, and builds and runs programs that find it there.
# Arguments: build folder, scratch folder, public header folder, version. The environment names the compilers (CC,
# CXX) with their flags (CFLAGS, CXXFLAGS).
set -euo pipefail
build=$1 scratch=$2 headers=$3 version=$4
consumer=$(cd "$(dirname "$0")" && pwd)/consumer

fail() {
    printf 'FAILED: %s\n' "$1" >&2
    exit 1
}

# Which libvekmsg a program loads, if any.
loaded_library() {
    readelf --dynamic --wide "$1" | sed -n 's/.*(NEEDED).*\[\(libvekmsg[^]]*\)\].*/\1/p'
}

check_loads() {
    [ "$(loaded_library "$1")" = "$2" ] || fail "$1 loads \"$(loaded_library "$1")\" and not \"$2\""
}

build_with_cmake() {
    local target=$1 folder=$2
    cmake -S "$consumer" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$place" \
        -DVERSION="$version" -DTARGET="$target"
    cmake --build "$folder"
    "$folder/consumer"
    "$folder/c_consumer"
}

rm -rf "$scratch"
mkdir -p "$scratch"
place=$scratch/moved/place
mkdir -p "$scratch/moved"
cmake --install "$build" --prefix "$scratch/first"
mv "$scratch/first" "$place"

printf '%s\n' "--- every public header is installed, and nothing else"
diff <(cd "$headers" && find . -type f | sort) <(cd "$place/include" && find . -type f | sort)

printf '%s\n' "--- no file says where it was built or installed first"
if grep --recursive --files-with-matches --fixed-strings -e "$scratch" -e "$headers" "$place" \
    --include='*.cmake' --include='*.pc' --include='*.h'; then
    fail "these files carry a path of the build"
fi

if [ -e "$build/tools/vekmsg" ]; then
    printf '%s\n' "--- the command, and what belongs to it"
    [ "$("$place/bin/vekmsg" --version)" = "vekmsg $version" ] || fail "the command is not of version $version"
    check_loads "$place/bin/vekmsg" ""
    files=(share/vekmsg/vekmsg.schema.json lib/systemd/system/vekmsg-relay@.service
        share/bash-completion/completions/vekmsg share/zsh/site-functions/_vekmsg)
    if command -v scdoc >/dev/null; then files+=(share/man/man1/vekmsg.1 share/man/man5/vek.names.directory.5); fi
    for file in "${files[@]}"; do
        [ -s "$place/$file" ] || fail "no $file"
    done
fi

printf '%s\n' "--- find_package, shared"
build_with_cmake vekmsg::vekmsg "$scratch/shared"
check_loads "$scratch/shared/consumer" libvekmsg.so.1
check_loads "$scratch/shared/c_consumer" libvekmsg.so.1

printf '%s\n' "--- find_package, static"
build_with_cmake vekmsg::vekmsg_static "$scratch/static"
check_loads "$scratch/static/consumer" ""
check_loads "$scratch/static/c_consumer" ""

printf '%s\n' "--- pkg-config"
pc=$(find "$place" -name vekmsg.pc)
[ -n "$pc" ] || fail "no vekmsg.pc"
export PKG_CONFIG_LIBDIR=${pc%/*}
export LD_LIBRARY_PATH=${PKG_CONFIG_LIBDIR%/*}
[ "$(pkg-config --modversion vekmsg)" = "$version" ] || fail "vekmsg.pc is not of version $version"
read -r -a flags <<<"$(pkg-config --cflags --libs vekmsg)"
# shellcheck disable=SC2086 # several flags in one variable
${CXX} ${CXXFLAGS-} -std=c++17 "$consumer/main.cpp" -o "$scratch/consumer" "${flags[@]}"
# shellcheck disable=SC2086
${CC} ${CFLAGS-} -std=c11 "$consumer/main.c" -o "$scratch/c_consumer" "${flags[@]}"
"$scratch/consumer"
"$scratch/c_consumer"
check_loads "$scratch/consumer" libvekmsg.so.1
check_loads "$scratch/c_consumer" libvekmsg.so.1
printf '%s\n' "all programs found the installed library"
