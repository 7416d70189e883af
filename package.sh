#!/usr/bin/env bash
# package.sh [DIRECTORY]
# package.sh --source DIRECTORY
#
# Installs what is missing and builds the Debian packages from this checkout, into DIRECTORY (build/packages), with the
# list of what they are made from (scripts/make-bill).
# --source only makes DIRECTORY the source of the packages, as dpkg-buildpackage wants it.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}"

readonly work=$PWD/build/debian

build_dependencies() {
	awk '!/^#/ && ($1 == "build" || $1 == "reference") { printf "%s%s", separator, $2; separator = ", " }' scripts/packages.txt
}

make_source() { # DIRECTORY
	mkdir -p "$1"
	tar --create --exclude=./build --exclude=./.git --exclude='*.pyc' . | tar --extract --directory "$1"
	mv "$1/packaging/debian" "$1/debian"
	sed --in-place "s/@BUILD_DEPENDS@/debhelper-compat (= 13), $(build_dependencies)/" "$1/debian/control"
}

build() { # DIRECTORY
	scripts/install-packages build reference package
	rm -rf "$work"
	make_source "$work/tarndbud"
	(cd "$work/tarndbud" && dpkg-buildpackage --build=binary --no-sign)
	mkdir -p "$1"
	rm -f "$1"/*.deb "$1"/*.buildinfo
	mv "$work"/*.deb "$work"/*.buildinfo "$1"
	scripts/make-bill "$1"
	printf '\nBuilt:\n'
	ls -l "$1"
}

if [[ ${1-} == --source ]]; then
	make_source "$2"
else
	build "${1:-$PWD/build/packages}"
fi
