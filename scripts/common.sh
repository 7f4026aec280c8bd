# shellcheck shell=bash
# Sourced by the check and packaging scripts: counted checks, exact output
# comparison, the compiler launcher (ccache when the machine has it; never
# required) and the release trees they share.
passed=0
failed=0
check() { # name, command...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    echo "FAILED: $name" >&2
    failed=$((failed + 1))
  fi
}
expect_output() { # expected text, command...
  local expected=$1 out
  shift
  out=$("$@" 2>&1) || { echo "$out" >&2; return 1; }
  [[ $out == "$expected" ]] || { printf 'got:\n%s\nexpected:\n%s\n' "$out" "$expected" >&2; return 1; }
}
checks_summary() { # label; fails when any check failed
  echo "$1: $passed passed, $failed failed"
  ((failed == 0))
}
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$PWD")}
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi

# build/release-host or build/release-armhf: RelWithDebInfo with the multiarch
# library directory (lib/<triplet>), as ci-install.sh checks the installed kit
# and packages.sh packages it.
configure_release_tree() { # host|armhf
  local tree=build/release-$1 cc=c++ toolchain=()
  if [[ $1 == armhf && ! -f $tree/CMakeCache.txt ]]; then
    toolchain=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake)
  fi
  [[ $1 == armhf ]] && cc=arm-linux-gnueabihf-g++
  cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_LIBDIR="lib/$($cc -print-multiarch)" "${toolchain[@]}" "${launcher[@]}" >/dev/null
}
