# shellcheck shell=bash
# For scripts that try this project on a bare Debian 12: makes such a root and runs programs in it. Sourced; whoever
# does so defines die MESSAGE [STATUS].
#
# What debootstrap makes is kept in a cache, below $XDG_CACHE_HOME (~/.cache, or build/ where that cannot be written),
# for a week: it holds Debian's smallest variant and nothing else. Every root is a copy.

readonly codename=bookworm
readonly cache_days=7

archive() {
	# shellcheck disable=SC2016 # apt expands these
	apt-get indextargets --format '$(CREATED_BY) $(CODENAME) $(COMPONENT) $(REPO_URI)' |
		awk -v codename="$codename" '$1 == "Packages" && $2 == codename && $3 == "main" { print $4; exit }'
}

# Mounts end with the command, and so does every process that it starts, also when this script is killed.
in_namespaces() { # [UNSHARE-OPTION...] COMMAND...
	setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child "$@"
}

cache_directory() {
	local place
	for place in "${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/tarndbud" "${BASH_SOURCE[0]%/*}/../build/cache"; do
		if mkdir -p "$place" 2>/dev/null && [[ -w $place ]]; then
			(cd "$place" && pwd)
			return
		fi
	done
	die 'no directory for the cache of the bare Debian can be written' 69
}

# Debootstrap's smallest variant, from an archive.
bootstrap() { # DIRECTORY URI
	local options=(--variant=minbase) log="$1.log"
	[[ $2 != https:* ]] || options+=(--include=ca-certificates)
	command -v debootstrap >/dev/null || die 'this needs the package debootstrap' 69
	rm -rf --one-file-system "$1"
	mkdir -p "$1"
	in_namespaces debootstrap "${options[@]}" "$codename" "$1" "$2" >"$log" 2>&1 ||
		die "debootstrap failed, see $log" 69
	rm "$log"
}

# Prints the cached root's path, after making it where there is none, an old one, or one from another archive. The mark
# is written last, so that nothing a killed run has left is taken for whole; two scripts take turns.
cached_root() {
	local uri cache bare mark
	uri=$(archive)
	[[ -n $uri ]] || die "no archive of $codename among the sources of this machine's apt" 69
	cache=$(cache_directory) || exit
	bare="$cache/$codename"
	mark="$bare.made"
	(
		flock 9
		if [[ $(cat "$mark" 2>/dev/null) != "$uri" || -z $(find "$mark" -mtime "-$cache_days") ]]; then
			rm -f "$mark"
			bootstrap "$bare" "$uri" >&2
			printf '%s\n' "$uri" >"$mark"
		fi
	) 9>"$cache/lock" || exit
	printf '%s\n' "$bare"
}

# A copy of the bare Debian, with this machine's way to the network. A directory that was not made here is left alone.
make_bare_root() { # DIRECTORY
	local mark="$1/.bare-root" cached
	if [[ -e $mark && $(<"$mark") == made ]]; then
		reach_network "$1"
		return
	fi
	if [[ -e $mark ]]; then
		rm -rf --one-file-system "$1"
	fi
	mkdir -p "$1"
	rmdir "$1" 2>/dev/null || die "$1 is not empty"
	cached=$(cached_root) || exit
	mkdir -p "$1"
	echo unfinished >"$mark"
	cp -a --reflink=auto "$cached/." "$1"
	# Nobody needs it after the power is cut.
	echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/unsafe-io"
	reach_network "$1"
	echo made >"$mark"
}

reach_network() { # DIRECTORY
	apt-config dump | grep -i '^Acquire::http.*::proxy ' >"$1/etc/apt/apt.conf.d/proxy" || true
	cp -L /etc/resolv.conf "$1/etc/resolv.conf"
}

# For a mount namespace of its own, so nothing has to be taken down.
mount_devices() { # DIRECTORY
	local dev="$1/dev" node
	mount -t proc proc "$1/proc"
	mount -t sysfs sysfs "$1/sys"
	mount -t tmpfs -o mode=755 tmpfs "$dev"
	for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0 loop-control:10:237 \
		fuse:10:229 btrfs-control:10:234; do
		mknod -m 666 "$dev/${node%%:*}" c "$(cut -d: -f2 <<<"$node")" "${node##*:}"
	done
	mkdir -m 1777 "$dev/shm"
	mkdir "$dev/pts"
	mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts "$dev/pts"
	ln -s pts/ptmx "$dev/ptmx"
	ln -s /proc/self/fd "$dev/fd"
}

# Runs a command in a directory of the root, through the given words in front of chroot.
enter_root() { # DIRECTORY HOME-DIRECTORY [PREFIX...] -- COMMAND...
	local directory=$1 home=$2 prefix=()
	shift 2
	while [[ $1 != -- ]]; do
		prefix+=("$1")
		shift
	done
	shift
	# shellcheck disable=SC2016 # expanded inside
	env --ignore-environment PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
		TERM="${TERM:-dumb}" "${prefix[@]}" chroot "$directory" \
		/bin/bash -c 'cd "$1"; shift; exec "$@"' try "$home" "$@" </dev/null
}
