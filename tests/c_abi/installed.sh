#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds and runs a C client
# (and, when given, a C++ client of zrconfig.hpp) with nothing but
# pkg-config's flags for zrconfig, and checks that zrcfg, the man pages and
# the systemd unit were installed.
set -euo pipefail
build=$1 source=$2 extra=${3:-} cpp_source=${4:-}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(dirname "$(find "$prefix" -name zrconfig.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs zrconfig)
# shellcheck disable=SC2086
gcc -std=c99 -Wall -Wextra -Werror -pedantic $extra "$source" $flags -o "$prefix/c_client"
libdir=$(dirname "$(find "$prefix" -name 'libzrconfig.so' | head -n 1)")
LD_LIBRARY_PATH=$libdir "$prefix/c_client"
if [ -n "$cpp_source" ]; then
  # shellcheck disable=SC2086
  g++ -std=c++20 -Wall -Wextra -Werror $extra "$cpp_source" $flags -o "$prefix/cpp_client"
  LD_LIBRARY_PATH=$libdir "$prefix/cpp_client"
fi
for installed in bin/zrcfg sbin/zrconfigd share/man/man1/zrcfg.1 share/man/man8/zrconfigd.8 \
                 lib/systemd/system/zrconfigd.service; do
  [ -e "$prefix/$installed" ] || { echo "not installed: $installed" >&2; exit 1; }
done
"$prefix/bin/zrcfg" --help >/dev/null
