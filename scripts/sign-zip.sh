#!/usr/bin/env bash
# Signs the Windows programs inside a release zip in place (Authenticode, with osslsigncode), so
# that Windows and virus scanners see who made the download:
#   SARNLINK_SIGN_CERT       the code-signing certificate with its chain (PEM)       required
#   SARNLINK_SIGN_KEY        its private key (PEM)                                    required
#   SARNLINK_SIGN_PASSWORD   the key's password, when it has one
#   SARNLINK_SIGN_TIMESTAMP  URL of an RFC 3161 time-stamping service: the signature then stays
#                            valid after the certificate expires
# scripts/release.sh runs it when the certificate and key are given; scripts/check-packages.sh
# runs it on a copy with a certificate of its own making.
#
#   scripts/sign-zip.sh ZIP
set -euo pipefail
zip=$(realpath "$1")
: "${SARNLINK_SIGN_CERT:?names the certificate file}" "${SARNLINK_SIGN_KEY:?names the private key file}"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/tree"
(cd "$work/tree" && cmake -E tar xf "$zip")

args=(-certs "$SARNLINK_SIGN_CERT" -key "$SARNLINK_SIGN_KEY" -n sarnlink -h sha256)
if [ -n "${SARNLINK_SIGN_PASSWORD:-}" ]; then
  # From a file, not the command line, where any user's process list would show it.
  printf '%s' "$SARNLINK_SIGN_PASSWORD" > "$work/password"
  args+=(-readpass "$work/password")
fi
if [ -n "${SARNLINK_SIGN_TIMESTAMP:-}" ]; then args+=(-ts "$SARNLINK_SIGN_TIMESTAMP"); fi

shopt -s nullglob
exes=("$work"/tree/*.exe)
[ ${#exes[@]} -gt 0 ] || { echo "sign-zip: no .exe in $zip"; exit 1; }
for exe in "${exes[@]}"; do
  osslsigncode sign "${args[@]}" -in "$exe" -out "$exe.signed" >"$work/sign.log" 2>&1 ||
    { cat "$work/sign.log"; echo "sign-zip: signing $(basename "$exe") failed"; exit 1; }
  mv "$exe.signed" "$exe"
  echo "sign-zip: signed $(basename "$exe")"
done
(cd "$work/tree" && cmake -E tar cf "$work/signed.zip" --format=zip -- *)
mv "$work/signed.zip" "$zip"
