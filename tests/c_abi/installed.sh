#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds and runs a C client
# with nothing but pkg-config's flags for zrconfig.
set -euo pipefail
build=$1 source=$2 extra=${3:-}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(dirname "$(find "$prefix" -name zrconfig.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs zrconfig)
# shellcheck disable=SC2086
gcc -std=c99 -Wall -Wextra -Werror -pedantic $extra "$source" $flags -o "$prefix/c_client"
libdir=$(dirname "$(find "$prefix" -name 'libzrconfig.so' | head -n 1)")
LD_LIBRARY_PATH=$libdir "$prefix/c_client"
