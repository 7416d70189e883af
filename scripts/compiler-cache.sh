# shellcheck shell=bash
# For scripts that build what has been built before, by another preset or in another clone: ccache keeps what compilers
# made of the same source with the same options. Sourced.

# Prints the settings, a line each, for a checkout and a directory of results. Paths below the checkout count from
# there, so that a fresh clone finds what an earlier one has left.
compiler_cache_settings() { # CHECKOUT CACHE
	printf '%s\n' CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache "CCACHE_DIR=$2" \
		"CCACHE_BASEDIR=$1" CCACHE_NOHASHDIR=true CCACHE_MAXSIZE=3G
}

compiler_cache_directory() {
	printf '%s\n' "${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/tarndbud/compiled"
}

# Has this script's builds of a checkout go through the cache, where there is ccache.
use_compiler_cache() { # CHECKOUT
	local setting
	command -v ccache >/dev/null || return 0
	while read -r setting; do
		# shellcheck disable=SC2163 # the line holds name and value
		export "$setting"
	done < <(compiler_cache_settings "$1" "$(compiler_cache_directory)")
}
