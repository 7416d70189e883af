#!/usr/bin/env bash
# package.sh [DIRECTORY]
#
# Installs what is missing and builds the Debian packages from this checkout, into DIRECTORY (build/packages).
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}"

readonly work=$PWD/build/debian
readonly source=$work/tarndbud

build_dependencies() {
	awk '!/^#/ && ($1 == "build" || $1 == "reference") { printf "%s%s", separator, $2; separator = ", " }' scripts/packages.txt
}

copy_source() {
	rm -rf "$work"
	mkdir -p "$source"
	tar --create --exclude=./build --exclude=./.git --exclude='*.pyc' . | tar --extract --directory "$source"
	mv "$source/packaging/debian" "$source/debian"
	sed --in-place "s/@BUILD_DEPENDS@/debhelper-compat (= 13), $(build_dependencies)/" "$source/debian/control"
}

main() {
	local target=${1:-$PWD/build/packages}
	scripts/install-packages build reference package
	copy_source
	(cd "$source" && dpkg-buildpackage --build=binary --no-sign)
	mkdir -p "$target"
	mv "$work"/*.deb "$target"
	printf '\nBuilt:\n'
	ls -l "$target"
}

main "$@"
