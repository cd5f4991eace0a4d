#!/usr/bin/env bash
# A host project builds against an installed copy: install into a temporary
# prefix, then compile and run a C program with the flags pkg-config gives.
set -eu
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name sensors_orlune.pc)")
cat > "$prefix/host.c" <<'C'
#include <stdio.h>
#include <string.h>
#include <sensors/sensors.h>

int main(void)
{
	struct sensors_data data;
	memset(&data, 0, sizeof data);
	printf("%s %zu\n", sensors_driver.name, sizeof data);
	return strcmp(sensors_driver.name, "sensors_orlune") != 0;
}
C
cc -std=c11 -Wall -Werror $(pkg-config --cflags sensors_orlune) "$prefix/host.c" -o "$prefix/host" \
  $(pkg-config --libs sensors_orlune) -Wl,-rpath,"$(pkg-config --variable=libdir sensors_orlune)"
"$prefix/host"
