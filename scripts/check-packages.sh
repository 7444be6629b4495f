#!/usr/bin/env bash
# Checks the release packages in build/packages/ (scripts/release.sh) the way a player meets them:
#   - every package matches its line in SHA256SUMS;
#   - the zip, unpacked into a folder whose name has a blank and a non-ASCII letter, holds the
#     program, README.txt, the example configuration and the licences, and its program runs
#     --version under Wine;
#   - the .exe imports only DLLs that every Windows has (no libstdc++/libgcc/winpthread DLL);
#   - the .deb declares its dependencies, installs with apt-get install ./file.deb, and puts a
#     sarnlink-cli that runs --version on the PATH (removed again afterwards if it was not
#     installed before);
#   - the .tar.gz unpacks and its program runs --version.
# Needs root or sudo for the .deb.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=$PWD/build/packages
version=$(sed -n 's/^project(sarnlink VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
expected="sarnlink $version"
failures=0
fail() { echo "check-packages: FAILED: $*"; failures=$((failures + 1)); }
ok() { echo "check-packages: ok: $*"; }

zip=$packages/sarnlink-$version-windows-x64.zip
deb=$packages/sarnlink_${version}_amd64.deb
tgz=$packages/sarnlink-$version-linux-x86_64.tar.gz
for f in "$zip" "$deb" "$tgz" "$packages/SHA256SUMS"; do
  [ -f "$f" ] || { echo "check-packages: FAILED: $f is missing; run scripts/release.sh first"; exit 1; }
done

if (cd "$packages" && sha256sum --quiet -c SHA256SUMS); then ok "SHA256SUMS"; else fail "SHA256SUMS does not match"; fi

work=$(mktemp -d)
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
deb_installed_here=0
cleanup() {
  if [ "$deb_installed_here" = 1 ]; then
    $sudo apt-get -o DPkg::Lock::Timeout=300 remove -y -q sarnlink >/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# --- Windows: the zip as a player unpacks it.
# Unpacked as Explorer's "Extract All" does: into a folder named after the zip, here inside a
# game folder whose name has a blank and a non-ASCII letter.
top="$work/Spiele für Duskhallow/sarnlink-$version-windows-x64"
mkdir -p "$top"
(cd "$top" && cmake -E tar xf "$zip")
for f in sarnlink-cli.exe README.txt sarnlink_config.example.json licenses/nlohmann-json.txt \
         licenses/mingw-w64-runtime-and-winpthreads.txt licenses/gcc-runtime-libstdc++-libgcc.txt \
         licenses/GPL-3.txt licenses/miniupnpc.txt; do
  [ -s "$top/$f" ] || fail "the zip has no $f"
done
grep -q "^## Playing with sarnlink" "$top/README.txt" || fail "README.txt in the zip is not the players' guide"
python3 -c 'import json,sys; json.load(open(sys.argv[1]))' "$top/sarnlink_config.example.json" ||
  fail "sarnlink_config.example.json is not valid JSON"
# A player's desktop has a UTF-8 locale; Wine maps the folder's name to Windows through it.
said=$(cd "$top" && LANG=C.UTF-8 WINEDEBUG=-all timeout 300 wine ./sarnlink-cli.exe --version 2>/dev/null | tr -d '\r') || true
if [ "$said" = "$expected" ]; then ok "zip unpacked into '$top' runs --version under Wine"
else fail "sarnlink-cli.exe --version under Wine said '$said', not '$expected'"; fi

# Only DLLs that come with Windows itself.
system_dlls="kernel32.dll msvcrt.dll ws2_32.dll winhttp.dll bcrypt.dll shell32.dll psapi.dll advapi32.dll user32.dll ole32.dll crypt32.dll iphlpapi.dll ntdll.dll"
for exe in "$top"/*.exe; do
  name=$(basename "$exe")
  imports=$(x86_64-w64-mingw32-objdump -p "$exe" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z')
  [ -n "$imports" ] || fail "objdump -p found no imported DLL in $name"
  for dll in $imports; do
    case " $system_dlls " in *" $dll "*) ;; *) fail "$name needs $dll, which is not part of Windows" ;; esac
  done
  ok "$name imports only system DLLs: $(echo $imports)"
done

# --- Linux: the .deb as apt installs it.
depends=$(dpkg-deb -f "$deb" Depends)
for need in libc6 libcurl4 libssl3 libminiupnpc17 libstdc++6; do
  [[ "$depends" == *"$need"* ]] || fail "the .deb does not declare $need (Depends: $depends)"
done
contents=$(dpkg-deb -c "$deb")
grep -q '\./usr/bin/sarnlink-cli$' <<<"$contents" || fail "the .deb does not install /usr/bin/sarnlink-cli"
if dpkg-query -W -f='${Status}' sarnlink 2>/dev/null | grep -q 'install ok installed'; then
  echo "check-packages: note: a sarnlink package was installed before; it is replaced and left installed"
else
  deb_installed_here=1
fi
cp "$deb" "$work/"
if DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=300 install -y -q \
     "$work/$(basename "$deb")" >"$work/apt.log" 2>&1; then
  said=$(env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin sarnlink-cli --version 2>&1) || true
  if [ "$said" = "$expected" ]; then ok ".deb installs with apt-get and sarnlink-cli --version runs from the PATH"
  else fail "the installed sarnlink-cli --version said '$said', not '$expected'"; fi
else
  fail "apt-get install of the .deb failed:"; cat "$work/apt.log"
fi

# --- Linux: the .tar.gz unpacked anywhere.
mkdir -p "$work/tgz"
tar -xzf "$tgz" -C "$work/tgz"
said=$("$work/tgz/sarnlink-$version-linux-x86_64/bin/sarnlink-cli" --version 2>&1) || true
if [ "$said" = "$expected" ]; then ok ".tar.gz unpacks and bin/sarnlink-cli --version runs"
else fail "the .tar.gz's sarnlink-cli --version said '$said', not '$expected'"; fi

if [ "$failures" -ne 0 ]; then
  echo "check-packages: $failures check(s) failed"
  exit 1
fi
echo "check-packages: all checks passed for sarnlink $version"
