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

# Whether tests passed is told by the summary of the results.
run_unit() {
	local status=0
	say 'Running the unit tests'
	scripts/sandbox --or-plain -- ctest --preset release --parallel "$(nproc)" --timeout 300 --no-tests=error \
		--output-junit "$results/unit.xml" || status=$?
	rings+=("unit=$results/unit.xml:$status")
}

# The system tests share fixed paths. Where each file of them can have a throwaway root of its own, several run side by
# side; else all run one after the other.
run_system() {
	say 'Running the system tests'
	if scripts/sandbox -- true 2>/dev/null; then
		run_system_files
	else
		local status=0
		run_pytest tests/system system || status=$?
		rings+=("system=$results/system.xml:$status")
	fi
}

run_pytest() { # PATH NAME
	scripts/sandbox --or-plain -- /usr/bin/python3 -B -m pytest "$1" "--build-dir=$PWD/build/release" \
		--junitxml "$results/$2.xml"
}

run_system_files() {
	local file name status
	export -f run_system_file run_pytest
	export results
	# Those that take longest begin.
	# shellcheck disable=SC2016 # expanded by each shell
	printf '%s\n' tests/system/test_{volume_events,fault_sweep,memory,diff_property,diff_interruption}.py \
		tests/system/test_*.py | awk '!seen[$0]++' |
		xargs -n 1 -P "$(nproc)" bash -c 'run_system_file "$1"' run || true
	for file in tests/system/test_*.py; do
		name=$(basename "$file" .py)
		status=$(cat "$results/$name.status") || status=unknown
		rings+=("$name=$results/$name.xml:$status")
	done
}

# What the tests of a file print is shown when they have ended, so that it is not mixed up with that of others.
run_system_file() { # FILE
	local name status=0
	name=$(basename "$1" .py)
	run_pytest "$1" "$name" >"$results/$name.log" 2>&1 || status=$?
	echo "$status" >"$results/$name.status"
	flock "$results" cat "$results/$name.log"
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
