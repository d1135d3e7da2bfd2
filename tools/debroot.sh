#!/usr/bin/env bash
# debroot.sh ROOT ARCH SUITE PACKAGE..: unpacks Debian packages of any architecture or suite into ROOT, through
# a private apt state; the machine's own package database and lists stay untouched. NODEPS=1 takes the
# named packages only.
set -eu
root=$1 arch=$2 suite=$3
shift 3
mirror=$(awk '/^URIs/{print $2; exit}' /etc/apt/sources.list.d/debian.sources)
state=${TMPDIR:-/var/tmp}/debroot/$suite-$arch
mkdir -p "$state"/etc/apt/{apt.conf.d,preferences.d,sources.list.d} "$state"/var/lib/apt/lists/partial \
  "$state"/var/cache/apt/archives/partial "$state"/var/lib/dpkg
: >"$state/var/lib/dpkg/status"
printf 'Types: deb\nURIs: %s\nSuites: %s\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
  "$mirror" "$suite" >"$state/etc/apt/sources.list.d/debian.sources"
cat >"$state/apt.conf" <<CONF
Dir "$state"; Dir::State::status "$state/var/lib/dpkg/status";
APT::Architecture "$arch"; APT::Architectures { "$arch"; };
APT::Install-Recommends "0"; APT::Sandbox::User "root"; Acquire::Languages "none";
Acquire::Check-Valid-Until "false";
CONF
cp /etc/apt/apt.conf.d/*proxy* "$state/etc/apt/apt.conf.d/" 2>/dev/null || true
export APT_CONFIG=$state/apt.conf
apt-get update -q >/dev/null
rm -f "$state"/var/cache/apt/archives/*.deb
if [ -n "${NODEPS:-}" ]; then
  (cd "$state/var/cache/apt/archives" && apt-get download -q "$@" >/dev/null)
else
  apt-get install -q -y --download-only "$@" >/dev/null
fi
mkdir -p "$root"
for package in "$state"/var/cache/apt/archives/*.deb; do dpkg-deb -x "$package" "$root"; done
# Absolute links would point into this machine.
find "$root" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -snf "$(realpath -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
done
