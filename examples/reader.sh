#!/bin/sh
# reader.sh ID SECONDS FILE...
#
# Prints files of a database while holding off their replacement, waiting up to so many seconds for one that is running:
# the command after "--" runs under the lock, so whatever it reads belongs to one version. The exit status is the
# command's, or 75 when the lock was not obtained, and when the last replacement was not finished, after which the files
# may be of two versions: "tarndbudctl read" looks for that by itself. "tarndbudctl status" shows the directory of each
# database.
set -eu
if [ $# -lt 3 ]; then
	echo 'usage: reader.sh ID SECONDS FILE...' >&2
	exit 2
fi
id=$1
seconds=$2
shift 2
exec tarndbudctl read "$id" --timeout "$seconds" -- cat -- "$@"
