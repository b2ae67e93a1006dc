#!/bin/sh
# check_recorded_stream.sh REPLAY PLUGIN QTRACE STREAM: traces the stream in a folder of its own; the traces keep every
# rule, say the same as the text traces, and are equal to themselves; each subcommand succeeds on them.
set -eu
replay=$1 plugin=$2 qtrace=$3 stream=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
cat > commands <<END
plugin load "$plugin"
plugin signal plugin_qtbin.so start trace txt text
run
plugin signal plugin_qtbin.so stop
END
"$replay" "$stream" commands > /dev/null
"$qtrace" info trace
"$qtrace" check --deep trace --text text
"$qtrace" stats trace > /dev/null
"$qtrace" diff trace trace > /dev/null
lines=$("$qtrace" dump trace | grep -c '^ *[0-9]')
records=$("$qtrace" info --json trace | sed 's/.*"records":\([0-9]*\).*/\1/' | awk '{ sum += $1 } END { print sum }')
echo "$lines lines for $records records"
test "$lines" -eq "$records"
test "$("$qtrace" dump --json trace | grep -c '"record":')" -eq "$records"
