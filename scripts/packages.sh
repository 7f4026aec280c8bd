#!/usr/bin/env bash
# Debian packages of libznpdk, into build/packages/:
#   host architecture  libznpdk1, libznpdk-dev, libznpdk-sim1, libznpdk-sim-dev, znpdk-sim
#   armhf              libznpdk1, libznpdk-dev (cross toolchain)
# Each package is the install component of the same role, installed from the release
# trees build/release-host and build/release-armhf (shared with ci-install.sh) and
# assembled with dpkg's own tools from packaging/deb/; lintian must report no error.
# The version is the project's; CHANGELOG.md must have its section, whose date
# dates the packages.
#   scripts/packages.sh           build the packages, run lintian
#   scripts/packages.sh --check   also unpack them into scratch roots and build and run the
#                                 consumer examples against those roots alone
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

check_roots=0
[[ ${1:-} == --check ]] && check_roots=1
out=build/packages
meta=packaging/deb
revision=1 # of the packaging; back to 1 with each new version

declare -A component=([libznpdk1]=znpdk [libznpdk-dev]=znpdk_dev [libznpdk-sim1]=znpdk_sim
  [libznpdk-sim-dev]=znpdk_sim_dev [znpdk-sim]=znpdk_sim_cmd)
declare -A soname_base=([libznpdk1]=libznpdk [libznpdk-sim1]=libznpdk_sim)
host_arch=$(dpkg --print-architecture)
declare -A packages=([$host_arch]="libznpdk1 libznpdk-dev libznpdk-sim1 libznpdk-sim-dev znpdk-sim"
  [armhf]="libznpdk1 libznpdk-dev")
declare -A tree=([$host_arch]=build/release-host [armhf]=build/release-armhf)

echo "=== packages: release trees"
configure_release_tree host
configure_release_tree armhf
cmake --build build/release-host -j2 --target znpdk znpdk_sim znpdk-sim
# The simulated platform for ARM serves only the check: the target's platform is the BMC's.
arm_targets=(znpdk)
((check_roots)) && arm_targets+=(znpdk_sim)
cmake --build build/release-armhf -j2 --target "${arm_targets[@]}"

declare -A strip
for arch in "$host_arch" armhf; do
  strip[$arch]=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "${tree[$arch]}/CMakeCache.txt")
done
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/release-host/CMakeCache.txt)
date=$(sed -n "s/^## \[${version//./\\.}\] - \([0-9]\{4\}-[0-9]\{2\}-[0-9]\{2\}\)\$/\1/p" CHANGELOG.md)
if [[ -z $date ]]; then
  echo "packages: CHANGELOG.md has no section \"## [$version] - YYYY-MM-DD\"" >&2
  exit 1
fi
SOURCE_DATE_EPOCH=$(date -u -d "$date" +%s)
export SOURCE_DATE_EPOCH
maintainer=$(sed -n 's/^Maintainer: //p' "$meta/control")
rm -rf "$out"
mkdir -p "$out"

debian_changelog() {
  printf 'znpdk (%s-%s) unstable; urgency=medium\n\n' "$version" "$revision"
  printf '  * Release %s; its changes are listed in changelog.gz beside this file.\n\n' "$version"
  printf ' -- %s  %s\n' "$maintainer" "$(date -u -R -d "@$SOURCE_DATE_EPOCH")"
}

# debian/PKG of the work folder: the component below /usr, stripped, with its
# documents, and for a shared library its shlibs entry and ldconfig trigger.
stage() { # work, arch, package
  local dir=$1/debian/$3 doc=$1/debian/$3/usr/share/doc/$3
  DESTDIR=$dir cmake --install "${tree[$2]}" --prefix /usr --component "${component[$3]}" >/dev/null
  # Stripped as dh_strip does.
  find "$dir" -type f \( -name '*.so.*' -o -path '*/bin/*' \) -exec "${strip[$2]}" \
    --remove-section=.comment --remove-section=.note --strip-unneeded {} +
  mkdir -p "$doc" "$dir/DEBIAN"
  cp "$meta/copyright" "$doc/"
  gzip -9n <CHANGELOG.md >"$doc/changelog.gz"
  gzip -9n <"$1/debian/changelog" >"$doc/changelog.Debian.gz"
  # A program's manual page is its --help and --version, run against the libraries staged beside it.
  for prog in "$dir"/usr/bin/*; do
    [[ -f $prog ]] || continue
    mkdir -p "$dir/usr/share/man/man1"
    LD_LIBRARY_PATH=$(printf '%s:' "$1"/debian/*/usr/lib/*) help2man --no-info \
      --name="$(sed -n "/^Package: ${prog##*/}\$/,/^Description:/s/^Description: //p" "$meta/control")" \
      "$prog" | gzip -9n >"$dir/usr/share/man/man1/${prog##*/}.1.gz"
  done
  if [[ -n ${soname_base[$3]:-} ]]; then
    echo "${soname_base[$3]} ${version%%.*} $3 (>= $version)" >"$dir/DEBIAN/shlibs"
    echo "activate-noawait ldconfig" >"$dir/DEBIAN/triggers"
  fi
  chmod -R u=rwX,go=rX "$dir"
}

# ${shlibs:Depends} from dpkg-shlibdeps on the host; for another architecture,
# whose libraries dpkg-shlibdeps cannot look up here, from packaging/deb/PKG.ARCH.substvars.
substvars() { # work, arch, package
  local dir=debian/$3 elf=()
  mapfile -t elf < <(cd "$1" && find "$dir" -type f \( -name '*.so.*' -o -path '*/bin/*' \))
  if [[ -f $meta/$3.$2.substvars ]]; then
    cp "$meta/$3.$2.substvars" "$1/$dir.substvars"
    libc_covers "$1/$dir.substvars" "${elf[@]/#/$1/}"
  elif ((${#elf[@]} == 0)); then
    : >"$1/$dir.substvars"
  elif [[ $2 == "$host_arch" ]]; then
    # Own libraries come from the packages being built (their DEBIAN/shlibs). No
    # warnings: the library leaves the platform's symbols to the process that
    # loads it, and znpdk-sim reaches the library by name (dlsym).
    (cd "$1" && dpkg-shlibdeps --warnings=0 -T"$dir.substvars" -ldebian/libznpdk1/usr/lib/"$(c++ -print-multiarch)" \
      -ldebian/libznpdk-sim1/usr/lib/"$(c++ -print-multiarch)" "${elf[@]}")
  else
    echo "packages: $3 for $2 holds programs or libraries: declare its dependencies in $meta/$3.$2.substvars" >&2
    exit 1
  fi
}

# A hand-declared libc6 version must cover the newest GLIBC_ version the files need.
libc_covers() { # substvars, ELF files...
  local declared needed
  declared=$(sed -n 's/.*libc6 (>= \([0-9.]*\)).*/\1/p' "$1")
  needed=$(readelf -V --wide "${@:2}" | grep -o 'Name: GLIBC_[0-9.]*' | sed 's/.*_//' | sort -V | tail -1)
  dpkg --compare-versions "$declared" ge "$needed" ||
    { echo "packages: $1 declares libc6 (>= $declared), the files need GLIBC_$needed" >&2; exit 1; }
}

for arch in "$host_arch" armhf; do
  work=$out/work-$arch
  mkdir -p "$work/debian"
  cp "$meta/control" "$work/debian/control"
  debian_changelog >"$work/debian/changelog"
  read -ra pkgs <<<"${packages[$arch]}"
  for pkg in "${pkgs[@]}"; do
    stage "$work" "$arch" "$pkg"
  done
  for pkg in "${pkgs[@]}"; do
    substvars "$work" "$arch" "$pkg"
    (cd "$work" && DEB_HOST_ARCH=$arch dpkg-gencontrol -p"$pkg" -P"debian/$pkg" \
      -T"debian/$pkg.substvars" -fdebian/files)
    (cd "$work/debian/$pkg" && find usr -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum >DEBIAN/md5sums)
    dpkg-deb --root-owner-group -Zxz --build "$work/debian/$pkg" \
      "$out/${pkg}_$version-${revision}_$arch.deb" >/dev/null
  done
done

echo "=== packages: $out"
for deb in "$out"/*.deb; do
  printf '%-40s %7s bytes  %s\n' "${deb##*/}" "$(stat -c %s "$deb")" \
    "$(dpkg-deb -f "$deb" Multi-Arch Depends | tr '\n' ' ')"
done
echo "=== packages: lintian"
# initial-upload-closes-no-bugs: Debian's archive wants an ITP bug closed by a first upload;
# these packages go to no Debian archive.
lintian --fail-on error --allow-root --suppress-tags initial-upload-closes-no-bugs "$out"/*.deb | tee "$out/lintian.txt"
echo "lintian: $(grep -c '^E: ' "$out/lintian.txt" || true) errors, $(grep -c '^W: ' "$out/lintian.txt" || true) warnings"

if ((!check_roots)); then
  exit 0
fi
tmp=$(mktemp -d /tmp/znpdk-packages-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
for arch in "$host_arch" armhf; do
  for deb in "$out"/*_"$arch".deb; do
    dpkg-deb -x "$deb" "$tmp/root-$arch"
  done
done
echo "=== packages: $host_arch packages unpacked into $tmp/root-$host_arch"
sim=$tmp/root-$host_arch/usr/bin/znpdk-sim
check "packaged znpdk-sim names the version" expect_output "znpdk-sim $version" "$sim" --version
check "packaged znpdk-sim runs the demo" bash -c "'$sim' demo >/dev/null"
check "consumers against the $host_arch packages" scripts/check-consumer.sh "$tmp/root-$host_arch/usr"
echo "=== packages: armhf packages unpacked into $tmp/root-armhf"
for c in znpdk_sim znpdk_sim_dev; do
  cmake --install build/release-armhf --prefix "$tmp/armhf-platform" --component "$c" >/dev/null
done
check "consumers against the armhf packages" \
  scripts/check-consumer.sh --armhf "$tmp/armhf-platform" "$tmp/root-armhf/usr"
checks_summary packages
