#!/usr/bin/env bash
# demo.sh [--shell]
#
# Installs the Debian packages that are missing, builds, and shows a database being published, installed, updated and
# checked: with a real web server, over a throwaway copy of this machine's files (scripts/sandbox). --shell leaves you
# in that environment afterwards.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}"

main() {
	local shell=()
	case ${1-} in
	'') ;;
	--shell) shell=(--shell) ;;
	*)
		echo 'usage: demo.sh [--shell]' >&2
		exit 2
		;;
	esac
	local begin=$SECONDS
	scripts/install-packages build run test
	printf '\n== Building\n'
	cmake --preset release -DTARN_TESTS=ON >/dev/null
	cmake --build --preset release --parallel "$(nproc)" --target product
	scripts/sandbox --or-plain -- scripts/demo-tour "$PWD/build/release" "${shell[@]}"
	printf '\nThe demo took %d seconds, installing and building included.\n' $((SECONDS - begin))
}

main "$@"
