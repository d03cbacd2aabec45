#!/bin/sh
# examples/host.c, compiled against the installed header with the flags of pkg-config, gets a value from the installed
# plug-in; with an emulator, under every page size that AArch64 kernels have.
#   example.sh ROOT TRIPLET COMPILER [EMULATOR...]
set -eu
root=$1
triplet=$2
cc=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

export PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_LIBDIR="$root/usr/lib/$triplet/pkgconfig"
plugin=$(pkg-config --variable=plugin ip6dns)
# shellcheck disable=SC2046 # one word per flag
"$cc" -Wall -Wextra -Werror -o "$scratch/host" "$root/usr/share/doc/ip6dns/examples/host.c" \
  $(pkg-config --cflags ip6dns)
echo 'hostname = packaged.example' >"$scratch/my.conf"

# value COMMAND...: what the host prints under the command.
value() {
  out=$("$@" "$scratch/host" "$plugin" "$scratch/my.conf" 2>&1) || true
  case $out in
    *"packaged.example = "?*) ;;
    *)
      printf 'no value%s:\n%s\n' "${1+ under $*}" "$out"
      exit 1
      ;;
  esac
}

if [ $# -eq 0 ]; then
  value
  exit
fi
for page in 4096 16384 65536; do
  value "$@" -p "$page"
done
