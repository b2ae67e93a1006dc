#!/bin/bash
# first_hour.sh: what a new user does with the installed packages and nothing else, in an empty folder. A recorded stream
# traced and looked at, a stream of one's own written in C and in Python, checked, traced and looked at.
set -euo pipefail

examples=/usr/share/doc/qtrace/examples development=/usr/share/doc/libqtrace-dev/examples
plugin=$(echo /usr/lib/*/qtrace/plugin_qtbin.so)

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}
expect() { # what, found, wanted
    [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"
}
part() {
    printf '== %s\n' "$*"
}
script() { # base name of the trace: prints the console's commands
    printf 'plugin load %s\n' "$plugin"
    printf 'plugin signal plugin_qtbin.so %s\n' "start $1 txt $1-text pte $1-pte"
    printf 'run\nplugin signal plugin_qtbin.so stop\n'
}

part 'A recorded stream'
script trace >console
replay -e "$examples/sample.jsonl" console
qtrace info trace
qtrace info --json trace | grep -E '"records":2000' >/dev/null || fail 'qtrace info'
qtrace check trace --text trace-text
qtrace stats trace >stats.txt
grep -q '^instructions  *2000$' stats.txt || fail 'qtrace stats'
qtrace tlb trace >tlb.txt
qtrace dump --kind store --count 5 trace
qtrace dump --pte trace-pte --kind radix --count 5
qtrace report -o report.html trace
grep -q '</html>' report.html || fail 'qtrace report'
qtrace export --format csv -o trace.csv trace
expect 'lines of the table' "$(wc -l <trace.csv)" 2001

part 'Python'
expect 'records in a data frame' "$(python3 -c 'import qtrace; print(len(qtrace.frame("trace0")))')" 2000
expect 'records by plain Python' "$(python3 -m qtrace.plain trace0 | grep -c '"record":')" 2000
python3 "$examples/hottest_pages.py" trace0 >pages

part 'A stream of one'\''s own, in C'
read -ra flags < <(pkg-config --cflags --libs qtrace)
gcc "$development/live_stream.c" "${flags[@]}" -o live_stream
./live_stream 1000 >own.jsonl
replay --check own.jsonl
script own >console
replay -e own.jsonl console
qtrace check own
qtrace dump --count 3 own0
expect 'records' "$(qtrace dump --json own0 | grep -c '"record":')" 3000
script live >console
./live_stream 1000 | replay -e - console
qtrace diff own live

part 'A stream of one'\''s own, from a text log'
printf '%s\n' '1 1000 e8640008 ld r3,8(r4) ; read 2008 ; r4=2000 ; r3:2a' '2 1004 4800000c b 0x1010 ; taken' >log
python3 "$examples/convert_commit_log.py" log log.jsonl.zst
replay --check log.jsonl.zst
script log >console
replay -e log.jsonl.zst console
qtrace dump log0

part 'A reader of one'\''s own'
gcc "$development/count_records.c" "${flags[@]}" -o count_records
expect 'records by a C program' "$(./count_records trace0)" '1 headers, 2000 records, 0 discontinuities'
ldd count_records | grep -E 'libqtrace\.so\.0 => (/usr)?/lib/' >/dev/null || fail 'the program is not bound to the installed library'

part 'Manual pages and completions'
for page in 'qtrace 1' 'replay 1' 'qtrace-trace 5'; do
    read -r name section <<<"$page"
    man "$section" "$name" | grep -E '^NAME' >/dev/null || fail "no manual page $page"
done
completed=$(bash -c 'source /usr/share/bash-completion/completions/qtrace; COMP_WORDS=(qtrace rec); COMP_CWORD=1
    _qtrace; echo "${COMPREPLY[*]}"')
expect 'completion by bash' "$completed" recover
# shellcheck disable=SC2016
expect 'completion by zsh' "$(zsh -c 'autoload -Uz compinit; compinit -D; print $_comps[qtrace] $_comps[replay]')" '_qtrace _replay'
echo 'A new user gets there.'
