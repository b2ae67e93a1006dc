#!/bin/bash
# use_packages.sh PACKAGES: installs the packages of the folder on a system without them, lets a new user work with them,
# and removes them.
set -euo pipefail
packages=$1 here=$(dirname "$0")

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "$packages"/*.deb python3-numpy python3-pandas python3-zstandard zstd \
    gcc libc6-dev pkg-config man-db zsh >/dev/null
useradd --create-home newcomer
cp "$here/first_hour.sh" /home/newcomer
runuser -u newcomer -- env HOME=/home/newcomer bash -c 'cd && ./first_hour.sh'

apt-get remove -y -qq qtrace libqtrace0 libqtrace-dev qtrace-plugin >/dev/null
left=$(find /usr -name '*qtrace*' -not -path '/usr/share/doc/*')
[ -z "$left" ] || {
    printf 'FAILED: removing leaves files: %s\n' "$left" >&2
    exit 1
}
echo 'The packages install, work and vanish.'
