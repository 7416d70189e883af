# shellcheck shell=bash
# For scripts that try this project on a bare Debian 12: makes such a root and runs programs in it. Sourced; whoever
# does so defines die MESSAGE [STATUS].

readonly codename=bookworm

archive() {
	# shellcheck disable=SC2016 # apt expands these
	apt-get indextargets --format '$(CREATED_BY) $(CODENAME) $(COMPONENT) $(REPO_URI)' |
		awk -v codename="$codename" '$1 == "Packages" && $2 == codename && $3 == "main" { print $4; exit }'
}

bootstrap() { # DIRECTORY URI MARK
	local options=(--variant=minbase) log="$1.debootstrap.log"
	[[ $2 != https:* ]] || options+=(--include=ca-certificates)
	mkdir -p "$1"
	echo unfinished >"$3"
	debootstrap "${options[@]}" "$codename" "$1" "$2" >"$log" 2>&1 || die "debootstrap failed, see $log" 69
	rm "$log"
	echo made >"$3"
}

# Debootstrap's smallest variant, from the archive that this machine's apt uses.
make_bare_root() { # DIRECTORY
	local uri mark="$1/.bare-root"
	command -v debootstrap >/dev/null || die 'this needs the package debootstrap' 69
	uri=$(archive)
	[[ -n $uri ]] || die "no archive of $codename among the sources of this machine's apt" 69
	# Only a finished one can be used again, and only what was made here is removed.
	if [[ ! -e $mark ]]; then
		mkdir -p "$1"
		rmdir "$1" 2>/dev/null || die "$1 is not empty"
	elif [[ $(<"$mark") != made ]]; then
		rm -rf --one-file-system "$1"
	fi
	[[ -e $mark ]] || bootstrap "$1" "$uri" "$mark"
	apt-config dump | grep -i '^Acquire::http.*::proxy ' >"$1/etc/apt/apt.conf.d/proxy" || true
	cp -L /etc/resolv.conf "$1/etc/resolv.conf"
}

# For a mount namespace of its own, so nothing has to be taken down.
mount_devices() { # DIRECTORY
	local dev="$1/dev" node
	mount -t proc proc "$1/proc"
	mount -t sysfs sysfs "$1/sys"
	mount -t tmpfs -o mode=755 tmpfs "$dev"
	for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0 loop-control:10:237; do
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
