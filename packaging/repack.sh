#!/bin/sh
# Makes PACKAGE anew from its own members, without what cpack lets in of the machine it runs on: the packer's user mask,
# and an installed size that counts directories as big as this file system makes them.
#   repack.sh PACKAGE
set -eu
package=$1
members=$(mktemp -d)
trap 'rm -rf "$members"' EXIT
cd "$members"

ar x "$package"
size=$(tar -tvzf data.tar.gz | awk '{ bytes += $3 } END { print int((bytes + 1023) / 1024) }')
mkdir control
tar -xzf control.tar.gz -C control
sed -i "s/^Installed-Size:.*/Installed-Size: $size/" control/control
tar -C control --format=gnu --sort=name --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX \
  --mtime="@$SOURCE_DATE_EPOCH" -cf - . | gzip -9n >control.tar.gz
rm "$package"
ar rcD "$package" debian-binary control.tar.gz data.tar.gz
