# Completion for tarndbudctl, tarndbudpub, tarndbudpub-mirror and tarndbudvcdiff. Offers the databases' ids where python3 is
# installed.

# The ids of the configured databases; the machine's own list replaces the shipped one.
_tarndbud_ids() {
	local file
	for file in /usr/tarn/etc/data_update/databases.conf /usr/share/data_update/databases.conf; do
		if [[ -r $file ]]; then
			python3 -c 'import json, sys; print(*json.load(open(sys.argv[1])))' "$file" 2>/dev/null
			return
		fi
	done
}

# _tarndbud_offer WORDS: those that begin like the word at the cursor.
_tarndbud_offer() {
	mapfile -t COMPREPLY < <(compgen -W "$1" -- "${COMP_WORDS[COMP_CWORD]}")
}

_tarndbud_offer_files() { # [COMPGEN OPTION]
	compopt -o filenames 2>/dev/null
	mapfile -t COMPREPLY < <(compgen "${1:--f}" -- "${COMP_WORDS[COMP_CWORD]}")
}

# The Nth word that is no option (from 1), before the cursor.
_tarndbud_word() {
	local word seen=0
	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		if [[ $word != -* ]] && ((++seen == $1)); then
			printf '%s' "$word"
			return
		fi
	done
}

_tarndbudctl_command() {
	local word
	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		if [[ $word == -- ]]; then
			_tarndbud_offer_files -c
			return
		fi
	done
	case ${COMP_WORDS[COMP_CWORD - 1]} in
	--output) _tarndbud_offer_files ;;
	--timeout) COMPREPLY=() ;;
	*) _tarndbud_offer "--timeout --even-unfinished -- --verbose --help $(_tarndbud_ids)" ;;
	esac
}

_tarndbudctl() {
	local command
	command=$(_tarndbud_word 1)
	case $command in
	'') _tarndbud_offer "init status plan update check fix force-install import hold unhold read refresh metrics schedule volume --verbose --version --help" ;;
	init | refresh) _tarndbud_offer '--json --verbose --help' ;;
	status) _tarndbud_offer "--watch --json --verbose --help $(_tarndbud_ids)" ;;
	plan) _tarndbud_offer "--json --verbose --help $(_tarndbud_ids)" ;;
	update) _tarndbud_offer "--max-bytes --no-wait --retry-refused --json --verbose --help $(_tarndbud_ids)" ;;
	fix) _tarndbud_offer "--no-wait --json --verbose --help $(_tarndbud_ids)" ;;
	check) _tarndbud_offer "--timeout --json --verbose --help $(_tarndbud_ids)" ;;
	hold | unhold) _tarndbud_offer "--timeout --json --verbose --help $(_tarndbud_ids)" ;;
	force-install) _tarndbud_offer "--even-held --no-wait --json --verbose --help $(_tarndbud_ids)" ;;
	import)
		if [[ ${COMP_WORDS[COMP_CWORD]} == -* ]]; then
			_tarndbud_offer '--force --retry-refused --no-wait --json --verbose --help'
		elif [[ -n $(_tarndbud_word 2) ]]; then
			_tarndbud_offer "$(_tarndbud_ids)"
		else
			_tarndbud_offer_files
		fi
		;;
	read) _tarndbudctl_command ;;
	metrics)
		if [[ ${COMP_WORDS[COMP_CWORD - 1]} == --output ]]; then
			_tarndbud_offer_files
		else
			_tarndbud_offer '--output --verbose --help'
		fi
		;;
	schedule)
		if [[ -n $(_tarndbud_word 2) ]]; then
			_tarndbud_offer 'on off --json --verbose --help'
		else
			_tarndbud_offer "--json --verbose --help $(_tarndbud_ids)"
		fi
		;;
	volume) _tarndbudctl_volume ;;
	esac
}

_tarndbudctl_volume() {
	case $(_tarndbud_word 2) in
	'') _tarndbud_offer 'show mounted unmounting --help' ;;
	show) _tarndbud_offer '--json --verbose --help' ;;
	*)
		if [[ ${COMP_WORDS[COMP_CWORD]} == -* ]]; then
			local timeout=
			[[ $(_tarndbud_word 2) == mounted ]] || timeout=--timeout
			_tarndbud_offer "$timeout --json --verbose --help"
		else
			_tarndbud_offer_files -d
		fi
		;;
	esac
}

_tarndbudpub() {
	if [[ ${COMP_WORDS[COMP_CWORD]} != -* && -n $(_tarndbud_word 1) ]]; then
		_tarndbud_offer_files
		return
	fi
	case $(_tarndbud_word 1) in
	'') _tarndbud_offer 'keygen fingerprint publish withdraw restore export changes verify extract inspect promote rollout prune check-repo site --version --help' ;;
	keygen) _tarndbud_offer '--help' ;;
	fingerprint) _tarndbud_offer '--json --help' ;;
	publish) _tarndbud_offer '--repo --id --key --url --data-version --format-version --db-version --channel --level --memory --keep-diffs --old-key --continue --if-changed --even-withdrawn --notes --json --help' ;;
	withdraw) _tarndbud_offer '--repo --key --to --url --data-version --db-version --channel --level --keep-diffs --old-key --notes --json --help' ;;
	restore) _tarndbud_offer '--repo --key --old-key --url --id --db-version --channel --format-version --data-version --keep-diffs --force --help' ;;
	export) _tarndbud_offer '--repo --key --from --with-full --also --db-version --channel --json --help' ;;
	changes) _tarndbud_offer '--repo --key --db-version --channel --examples --limit --json --help' ;;
	verify | extract) _tarndbud_offer '--key --help' ;;
	inspect) _tarndbud_offer '--json --help' ;;
	promote) _tarndbud_offer '--repo --from --to --key --old-key --json --help' ;;
	rollout) _tarndbud_offer '--conf --document --repo --json --help' ;;
	prune) _tarndbud_offer '--repo --dry-run --json --help' ;;
	check-repo) _tarndbud_offer '--repo --key --old-key --document --json --help' ;;
	site) _tarndbud_offer '--repo --out --key --old-key --url --title --changes --examples --json --help' ;;
	esac
}

# The remotes that rclone's configuration names.
_tarndbudpub-mirror() {
	case ${COMP_WORDS[COMP_CWORD]} in
	-*) _tarndbud_offer '--repo --no-delete --force --compare --dry-run --json --version --help' ;;
	*)
		if [[ ${COMP_WORDS[COMP_CWORD - 1]} == --repo ]]; then
			_tarndbud_offer_files -d
		else
			_tarndbud_offer "$(rclone listremotes 2>/dev/null)"
		fi
		;;
	esac
}

_tarndbudvcdiff() {
	if [[ ${COMP_WORDS[COMP_CWORD]} != -* && -n $(_tarndbud_word 1) ]]; then
		_tarndbud_offer_files
		return
	fi
	case $(_tarndbud_word 1) in
	'') _tarndbud_offer 'decode --version --help' ;;
	decode) _tarndbud_offer '--max-output --help' ;;
	esac
}

complete -F _tarndbudctl tarndbudctl
complete -F _tarndbudpub tarndbudpub
complete -o nospace -F _tarndbudpub-mirror tarndbudpub-mirror
complete -F _tarndbudvcdiff tarndbudvcdiff
