#!/usr/bin/env bash
# Checks that every program the build, the tests and the packaging call is there, and that it
# comes from a package that scripts/install-deps.sh installs. A tool that is present only
# because someone installed it by hand (or that sits in a user's own PATH) passes here and
# fails on a fresh machine, so it counts as missing: the search uses the PATH of a fresh root
# shell, and the file found must belong to the named package or to one of its dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."

# command                       package that provides it
tools=(
  "cmake                          cmake"
  "ctest                          cmake"
  "cpack                          cmake"
  "ninja                          ninja-build"
  "ccache                         ccache"
  "g++                            g++"
  "x86_64-w64-mingw32-g++-posix   g++-mingw-w64-x86-64-posix"
  "x86_64-w64-mingw32-objdump     binutils-mingw-w64-x86-64"
  "x86_64-w64-mingw32-windres     binutils-mingw-w64-x86-64"
  "wine                           wine"
  "wineserver                     wine"
  "wineboot                       wine"
  "clang++                        clang"
  "curl                           curl"
  "openssl                        openssl"
  "osslsigncode                   osslsigncode"
  "python3                        python3"
  "turnserver                     coturn"
  "ip                             iproute2"
  "nft                            nftables"
  "miniupnpd                      miniupnpd-nftables"
  "conntrack                      conntrack"
  "dpkg-shlibdeps                 dpkg-dev"
  "file                           file"
  "chromium                       chromium"
)

fresh_path=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
mapfile -t installed_by_us < <(scripts/install-deps.sh --list)

# The package that owns a file, following its symbolic links one hop at a time (alternatives
# such as /usr/bin/wine -> /etc/alternatives/wine -> /usr/bin/wine-stable are owned only at
# the end) and trying the merged-/usr twin of each hop (/usr/sbin/ip is /sbin/ip to dpkg).
owner_of() {
  local path=$1 hop
  for hop in 1 2 3 4 5 6; do
    local candidate
    for candidate in "$path" "${path#/usr}"; do
      local found
      found=$(dpkg-query -S "$candidate" 2>/dev/null | head -n1 | cut -d: -f1) || true
      if [ -n "$found" ]; then echo "$found"; return; fi
    done
    [ -L "$path" ] || return 0
    local next
    next=$(readlink "$path")
    case $next in /*) path=$next ;; *) path=$(dirname "$path")/$next ;; esac
  done
}

# The package itself and what it depends on directly, alternatives included.
package_and_depends() {
  echo "$1"
  dpkg-query -W -f='${Depends}, ${Pre-Depends}\n' "$1" 2>/dev/null |
    tr ',|' '\n\n' | sed -e 's/(.*)//' -e 's/:any//' -e 's/[[:space:]]//g' | grep -v '^$' || true
}

problems=0
for entry in "${tools[@]}"; do
  read -r tool package <<<"$entry"
  if ! printf '%s\n' "${installed_by_us[@]}" | grep -qx "$package"; then
    echo "check-tools: $tool comes from the package $package, which scripts/install-deps.sh does not install (add it to its list)"
    problems=$((problems + 1))
    continue
  fi
  path=$(PATH=$fresh_path command -v "$tool" || true)
  if [ -z "$path" ]; then
    echo "check-tools: $tool is missing: install the package $package (scripts/install-deps.sh does)"
    problems=$((problems + 1))
    continue
  fi
  owner=$(owner_of "$path")
  if ! package_and_depends "$package" | grep -qx "${owner:-none}"; then
    echo "check-tools: $tool at $path comes from ${owner:-no package}, not from $package: a fresh machine would not have it"
    problems=$((problems + 1))
  fi
done

if [ "$problems" -ne 0 ]; then
  echo "check-tools: $problems problem(s); the build and the tests need every tool above"
  exit 1
fi
echo "check-tools: all ${#tools[@]} tools present, each from a package that scripts/install-deps.sh installs"
