#!/usr/bin/env bash
# Fault injection over a scratch copy of the committed tree; see mutate.py for the options.
#   tests/mutation/run.sh [--only NAME[,NAME...]] [--list] [--table FILE]
exec nice python3 "$(dirname "$0")/mutate.py" "$@"
