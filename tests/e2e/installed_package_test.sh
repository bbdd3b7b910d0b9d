#!/usr/bin/env bash
# A plugin author's path outside the source tree: builds the plugin in
# out_of_tree/ (copied to a temporary folder) against an installed Lumokit,
# once with find_package(Lumokit) and once with pkg-config, and runs each
# build through one task against the installed lumokitd.
#
#   installed_package_test.sh (--build-dir DIR | --prefix DIR) --key PEM [--sanitize LIST]
#
# --build-dir installs that build into a temporary prefix first
# (cmake --install --prefix); --prefix uses what is installed there, for
# example /usr from the .deb files. --key signs the plugin's token; exit 77
# (skipped) when it has no private half. --sanitize builds the plugin with
# the sanitizers the installed libraries were built with.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
source_root=$(cd "$here/../.." && pwd)
build="" prefix="" key="" sanitize=""
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build=$(cd "${2:?}" && pwd); shift ;;
    --prefix) prefix=${2:?}; shift ;;
    --key) key=${2:?}; shift ;;
    --sanitize) sanitize=${2-}; shift ;;
    *) echo "installed_package_test: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
[ -n "$key" ] && { [ -n "$build" ] || [ -n "$prefix" ]; } || { sed -n '7p' "$0" >&2; exit 2; }
grep -q "PRIVATE KEY" "$key" || { echo "no private key to sign with: skipped"; exit 77; }

work=$(mktemp -d /tmp/lumokit-installed.XXXXXX)
daemon_pid="" plugin_pid=""
cleanup() {
  for pid in $plugin_pid $daemon_pid; do kill -KILL "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "installed_package_test: $*" >&2
  for log in "$work"/*.log; do [ -f "$log" ] && sed "s|^|${log##*/}: |" "$log" >&2; done
  exit 1
}
wait_for() {  # TEXT FILE: up to 10 s
  for _ in $(seq 200); do grep -qF -- "$1" "$2" 2>/dev/null && return 0; sleep 0.05; done
  return 1
}

if [ -n "$build" ]; then
  prefix="$work/prefix"
  cmake --install "$build" --prefix "$prefix" > "$work/install.log" || fail "cmake --install failed"
  # Nothing installed may name the tree it came from.
  if grep -rIlF -e "$source_root" -e "$build" "$prefix"; then fail "installed files name the source or build tree"; fi
fi
bin="$prefix/bin"
api="$prefix/share/lumokit/examples/api/calculator.json"
flags=""
[ -z "$sanitize" ] || flags="-fsanitize=$sanitize -fno-omit-frame-pointer"

mkdir "$work/src"
cp "$here"/out_of_tree/* "$work/src/"

# ---- find_package(Lumokit) ----
cmake -S "$work/src" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" > "$work/cmake.log" 2>&1 || fail "configuring with find_package failed"
grep -q "^Lumokit_DIR:PATH=$prefix/" "$work/cmake/CMakeCache.txt" || fail "Lumokit was not found in $prefix"
cmake --build "$work/cmake" >> "$work/cmake.log" 2>&1 || fail "building with find_package failed"
if grep -rqF "$source_root" "$work/cmake"; then fail "the find_package build used the source tree"; fi

# ---- pkg-config ----
pc=$(find "$prefix/lib" -maxdepth 3 -name lumokit-plugin.pc -print -quit)
export PKG_CONFIG_PATH="${pc%/*}"
[ "$(pkg-config --variable=prefix lumokit-plugin)" = "$prefix" ] || fail "lumokit-plugin.pc names another prefix"
[ "$(pkg-config --variable=prefix lumokit)" = "$prefix" ] || fail "lumokit.pc names another prefix"
mkdir "$work/pkg-config"
for pair in adder:lumokit-plugin host_check:lumokit; do
  program=${pair%%:*} package=${pair#*:}
  # shellcheck disable=SC2046,SC2086
  c++ -std=c++17 $flags -o "$work/pkg-config/$program" "$work/src/$program.cc" \
    $(pkg-config --cflags --libs "$package") -Wl,-rpath,"$(pkg-config --variable=libdir "$package")" \
    >> "$work/pkg-config.log" 2>&1 || fail "building $program with pkg-config $package failed"
done

# ---- run both builds ----
"$bin/lumokit-token" sign --key "$key" --opcode 0x1001 --api-def "$api" > "$work/calculator.token" \
  || fail "lumokit-token failed"
for way in cmake pkg-config; do
  env -u ANDROID_SOCKET_lumo "$work/$way/host_check" > "$work/host_check.log" 2>&1 \
    || fail "host_check of the $way build failed"
  run="$work/run-$way"
  "$bin/lumokitd" --runtime-dir "$run" --sys-policy "$prefix/share/lumokit/examples/demo-policy.json" \
    --log-file "$work/lumokitd.log" &
  daemon_pid=$!
  for _ in $(seq 200); do
    "$bin/lumokit" --runtime-dir "$run" status > /dev/null 2>&1 && break
    sleep 0.05
  done
  "$bin/lumokit" --runtime-dir "$run" status > /dev/null || fail "lumokitd did not come up"
  "$work/$way/adder" "$run/lumo" "$api" "$work/calculator.token" > "$work/adder.log" 2>&1 &
  plugin_pid=$!
  wait_for "REDY" "$work/adder.log" || fail "the $way build of the plugin did not register"
  answer=$("$bin/lumokit" --runtime-dir "$run" --timeout 5 task 0x1001 1 add int:40 int:2) \
    || fail "no answer to the task: $answer"
  grep -q "return 42" <<< "$answer" || fail "unexpected answer from the $way build: $answer"
  echo "$way build: $answer"
  # The daemon stops cleanly and the plugin, its connection closed, too.
  kill -TERM "$daemon_pid"
  wait "$daemon_pid" || fail "lumokitd did not stop cleanly"
  daemon_pid=""
  wait "$plugin_pid" || fail "the plugin did not end cleanly when the manager went away"
  plugin_pid=""
done
