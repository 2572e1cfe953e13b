# What ./run, ./test and .ci/run share: the package lists and the way they install, configure and build.
# Sourced by them, never run. Expects ROOT to name the checkout.
# shellcheck shell=bash

# Debian packages. googletest's headers and archives come with libgtest-dev and libgmock-dev.
PACKAGES_BUILD=(g++ cmake ninja-build libssl-dev)
# The second line: servers and clients that the tests of the networking layer talk to, each in a namespace or on a free
# port of its own; ./test starts them.
PACKAGES_TEST=(libgtest-dev libgmock-dev
  iproute2 dnsmasq-base redis-server netcat-openbsd socat tshark openssl gnutls-bin nsd bind9 bind9-dnsutils)
PACKAGES_EXAMPLES=(libcli11-dev nlohmann-json3-dev libfmt-dev libcsv-dev libboost-dev openssl)
# What a foreign build finds in its sysroot, and the compilers and emulators of its own machine.
PACKAGES_SYSROOT=(libssl-dev libcli11-dev nlohmann-json3-dev libfmt-dev libcsv-dev libboost-dev)
PACKAGES_armhf=(g++-arm-linux-gnueabihf qemu-user googletest)
PACKAGES_i686=(g++-i686-linux-gnu googletest)
PACKAGES_arm64=(g++-aarch64-linux-gnu qemu-user googletest)
PACKAGES_BENCH=(libbenchmark-dev libboost-dev libuv1-dev libevent-dev libc-ares-dev libldns-dev)
PACKAGES_CHECK=(git clang-format clang-tidy python3 doxygen)
PACKAGES_PACKAGING=(debhelper dpkg-dev lintian pkgconf make libcli11-dev nlohmann-json3-dev libfmt-dev)
PACKAGES_FUZZ=(clang libclang-rt-14-dev)

say() { printf '%s\n' "$*"; }
fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# A whole script run through sudo would leave a build directory that its user cannot use afterwards.
give_build_back() {
  if ((EUID == 0)) && [[ -n "${SUDO_UID:-}" && -d "$ROOT/build" && $(stat -c %u "$ROOT") == "$SUDO_UID" ]]; then
    chown -R "$SUDO_UID:${SUDO_GID:-$SUDO_UID}" "$ROOT/build"
  fi
}
trap give_build_back EXIT

package_installed() {
  [[ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" == installed ]]
}

# need_packages NAME...: installs those that are missing. Touches neither network nor package database when
# none is.
need_packages() {
  if [[ "${OSKERNEL_NO_INSTALL:-0}" == 1 ]]; then return 0; fi
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    say "This system has no apt-get. Install what these Debian packages hold, then start again with"
    say "OSKERNEL_NO_INSTALL=1 in the environment: $*"
    exit 1
  fi
  local missing=() name
  for name in "$@"; do
    package_installed "$name" || missing+=("$name")
  done
  if ((${#missing[@]} == 0)); then return 0; fi

  local as_root=()
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      fail "these packages are missing and there is no sudo: as root, run  apt-get install ${missing[*]}"
    as_root=(sudo)
    say "Installing with sudo apt-get (only that runs as root): ${missing[*]}"
  else
    say "Installing with apt-get: ${missing[*]}"
  fi
  local options=(-qq -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0)
  say "  reading the package lists ..."
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${options[@]}" update ||
    fail "apt-get update failed: is there a network?"
  # A server that is installed for a test is started by that test, not by its package.
  local policy=/usr/sbin/policy-rc.d held=0
  if [[ ! -e $policy ]]; then
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
    "${as_root[@]}" chmod 755 "$policy"
    held=1
  fi
  say "  downloading and unpacking ..."
  local status=0
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${options[@]}" \
    install -y --no-install-recommends "${missing[@]}" >/dev/null || status=$?
  if ((held)); then "${as_root[@]}" rm -f "$policy"; fi
  ((status == 0)) || fail "apt-get could not install: ${missing[*]}"
  say "  installed."
}

# configure_and_build DIRECTORY CMAKE_ARGUMENT...: DIRECTORY lies under build/ and belongs to the caller.
configure_and_build() {
  local directory=$1 log=$1/configure.log generator=()
  shift
  mkdir -p "$directory" 2>/dev/null && [[ -w "$directory" ]] ||
    fail "cannot write to ${directory#"$ROOT"/}: a run as another user (root?) made it; remove it or run as that user"
  # A checkout that was moved or copied brings a cache with the paths of its old place.
  if [[ -f "$directory/CMakeCache.txt" ]] &&
    ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$ROOT" "$directory/CMakeCache.txt"; then
    say "The checkout has moved: starting ${directory#"$ROOT"/} anew."
    rm -rf "$directory"
    mkdir -p "$directory"
  fi
  if [[ ! -f "$directory/CMakeCache.txt" ]] && command -v ninja >/dev/null; then generator=(-G Ninja); fi
  if ! cmake -S "$ROOT" -B "$directory" "${generator[@]}" "$@" >"$log" 2>&1; then
    cat "$log" >&2
    say "cmake could not configure the build; its words stand above and in ${log#"$ROOT"/}." >&2
    return 1
  fi
  if ! cmake --build "$directory" --parallel "$(nproc)"; then
    say "The build failed; the first error stands above." >&2
    return 1
  fi
}
