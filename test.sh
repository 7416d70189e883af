#!/usr/bin/env bash
# test.sh [--quick]
#
# Installs the Debian packages that are missing, builds, and runs all tests: unit tests, and whole programs over real
# parts inside a throwaway copy of this machine's files (scripts/sandbox). --quick leaves it at the unit tests.
# The last line is "tests: N passed, N failed, N skipped". Exit status: 0 all passed, 1 not, 2 usage.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}"

readonly results="$PWD/build/release/results"
quick=false
rings=()

say() {
	printf '\n== %s\n' "$1"
}

build() {
	say 'Building'
	cmake --preset release -DTARN_TESTS=ON
	cmake --build --preset release --parallel "$(nproc)"
}

# Runs one ring, whose results stand in NAME.xml afterwards; whether it passed is told by the summary.
run_ring() { # NAME COMMAND...
	local name=$1 status=0
	shift
	say "Running the $name tests"
	scripts/sandbox --or-plain -- "$@" || status=$?
	rings+=("$name=$results/$name.xml:$status")
}

run_unit() {
	run_ring unit ctest --preset release --parallel "$(nproc)" --timeout 300 --no-tests=error \
		--output-junit "$results/unit.xml"
}

# The system tests share fixed paths, so they run one after the other.
run_system() {
	run_ring system /usr/bin/python3 -B -m pytest tests/system "--build-dir=$PWD/build/release" \
		--junitxml "$results/system.xml"
}

main() {
	case ${1-} in
	'') ;;
	--quick) quick=true ;;
	*)
		echo 'usage: test.sh [--quick]' >&2
		exit 2
		;;
	esac
	scripts/install-packages build run test
	build
	rm -rf "$results"
	mkdir -p "$results"
	run_unit
	$quick || run_system
	say 'Result'
	/usr/bin/python3 -B scripts/summarise-tests "${rings[@]}"
}

main "$@"
