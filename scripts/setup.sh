#!/usr/bin/env bash
# One-time (and idempotent) machine set-up for building and testing Kestrune on Debian bookworm.
#  1. installs the Debian packages the builds and tests need (skipped when all are present);
#  2. fetches the pinned source packages of Zydis and Zycore into a cache outside git
#     (skipped when already unpacked).
# The deb-src entry for the source packages is derived from the machine's own apt sources, through a
# private apt configuration, so the system's package lists are left as they are.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cache=${KTRN_DEPS_DIR:-$root/.deps}

packages=(
  cmake ninja-build clang-14 clang-tools-14 lld-14 llvm-14 libclang-rt-14-dev
  mingw-w64-x86-64-dev g++-mingw-w64-x86-64-posix gcc-mingw-w64-i686-posix
  wine64 wine xvfb xauth xdotool imagemagick googletest libgtest-dev
  python3 ca-certificates
)

# name=version for `apt-get source`, and the directory each unpacks to.
sources=(
  "zydis=4.1.1-1"
  "zycore-c=1.5.2-1"
)

sudo_cmd=()
[ "$(id -u)" = 0 ] || sudo_cmd=(sudo)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The archive's base URI, taken from the machine's own sources (deb822 or one-line format).
archive_uri() {
  local f uri
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    uri=$(awk '/^URIs:/ {print $2; exit}' "$f")
    case "$uri" in *security*|"") ;; *debian*) echo "$uri"; return 0;; esac
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    uri=$(awk '$1=="deb" && $0 !~ /security/ { for (i=2;i<=NF;i++) if ($i ~ /^[a-z]+:\/\//) {print $i; exit} }' "$f")
    [ -n "$uri" ] && { echo "$uri"; return 0; }
  done
  return 1
}

need_fetch=0
for s in "${sources[@]}"; do
  name=${s%%=*}
  [ -f "$cache/$name/.unpacked" ] || need_fetch=1
done

if [ $need_fetch = 1 ]; then
  uri=$(archive_uri) || { echo "setup: no Debian archive found in /etc/apt sources" >&2; exit 1; }
  apt_dir="$cache/apt"
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/archives/partial" "$cache/tarballs"
  printf 'deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s trixie main\n' "$uri" > "$apt_dir/sources.list"
  apt_opts=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=/dev/null"
            -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir" -o "APT::Sandbox::User=root")
  echo "setup: fetching source packages"
  apt-get "${apt_opts[@]}" update -qq
  for s in "${sources[@]}"; do
    name=${s%%=*}
    [ -f "$cache/$name/.unpacked" ] && continue
    (cd "$cache/tarballs" && apt-get "${apt_opts[@]}" source --download-only --tar-only -qq "$s")
    orig=$(ls "$cache/tarballs/${name}_"*.orig.tar.* | head -n 1)
    rm -rf "$cache/$name"
    mkdir -p "$cache/$name"
    tar -xf "$orig" -C "$cache/$name" --strip-components=1
    touch "$cache/$name/.unpacked"
  done
fi
echo "setup: ready (dependencies in $cache)"
