#!/bin/bash
# use_packages.sh PACKAGES: installs the packages of the folder on a system without them and works with what they bring,
# as a user would: a recorded stream traced by the installed plugin, read by the tools, by Python and by a C program.
set -euo pipefail
packages=$1 project=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}
expect() { # what, found, wanted
    [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"
}

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "$packages"/*.deb python3-zstandard >/dev/null
cd "$work"

plugin=$(dpkg -L qtrace-plugin | grep '/plugin_qtbin\.so$')
cat >console <<SCRIPT
plugin load $plugin
plugin signal plugin_qtbin.so start trace txt text
run
plugin signal plugin_qtbin.so stop
SCRIPT
replay -e "$project/streams/sample.jsonl" console >/dev/null
qtrace info --json trace0 | grep -q '"records":2000' || fail 'qtrace info'
qtrace check trace --text text >/dev/null || fail 'qtrace check'
expect 'records by Python' "$(python3 -m qtrace.plain trace0 | grep -c '"record":')" 2000

apt-get install -y -qq --no-install-recommends gcc libc6-dev pkg-config >/dev/null
# shellcheck disable=SC2046 # several words
gcc "$project/tests/install/count_records.c" $(pkg-config --cflags --libs qtrace) -o count_records
expect 'records by a C program' "$(./count_records trace0)" '1 headers, 2000 records, 0 discontinuities'
ldd count_records | grep -q 'libqtrace\.so\.0 => /usr/lib' || fail 'the program is not bound to the installed library'

for page in man1/qtrace.1 man1/replay.1 man5/qtrace-trace.5; do
    dpkg -L qtrace | grep -q "/$page.gz$" || fail "no manual page $page"
done
completed=$(bash -c 'source /usr/share/bash-completion/completions/qtrace; COMP_WORDS=(qtrace rec); COMP_CWORD=1
    _qtrace; echo "${COMPREPLY[*]}"')
expect 'completion' "$completed" recover

apt-get remove -y -qq qtrace libqtrace0 libqtrace-dev qtrace-plugin >/dev/null
[ -z "$(find /usr -name '*qtrace*' -not -path '/usr/share/doc/*')" ] || fail 'removing leaves files'
echo 'The packages install, work and vanish.'
