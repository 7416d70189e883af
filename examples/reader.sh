#!/bin/sh
# reader.sh ID DIRECTORY
#
# Copies a database while holding off its replacement, so that the copy is one version's: the command after "--" runs
# under the lock. The exit status is the command's, or 75 when the lock was not had within ten seconds.
set -eu
exec tarndbudctl read "$1" --timeout 10 -- cp -a "/volume1/@database/autoupdate/$1/." "$2"
