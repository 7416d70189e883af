#!/bin/sh
# reader.sh ID FILE [SECONDS]
#
# Prints a file of a database while holding off its replacement, waiting up to so many seconds for one that is running:
# the command after "--" runs under the lock, so whatever it reads belongs to one version. The exit status is the
# command's, or 75 when the lock was not obtained. "tarndbudctl status" shows the directory of each database.
set -eu
if [ $# -ne 2 ] && [ $# -ne 3 ]; then
	echo 'usage: reader.sh ID FILE [SECONDS]' >&2
	exit 2
fi
exec tarndbudctl read "$1" --timeout "${3:-10}" -- cat -- "$2"
