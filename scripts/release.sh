#!/usr/bin/env bash
# Builds the release packages into build/packages/, with SHA256SUMS beside them:
#   sarnlink-<version>-windows-x64.zip     the static .exe, README.txt, the example
#                                          configuration and the licences
#   sarnlink_<version>_amd64.deb           sarnlink-cli in /usr/bin, dependencies declared
#   sarnlink-<version>-linux-x86_64.tar.gz the same files as the .deb, to unpack anywhere
# Installs what is missing first, like the other scripts. scripts/check-packages.sh then checks
# the packages as a player gets them (test-all runs both).
#
# The Windows programs in the zip are signed when SARNLINK_SIGN_CERT and SARNLINK_SIGN_KEY name
# a code-signing certificate and its key (scripts/sign-zip.sh tells the rest); without them the
# release is built unsigned, and says so.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

if [ -n "${SARNLINK_SIGN_CERT:-}" ] && [ -n "${SARNLINK_SIGN_KEY:-}" ]; then
  signed=1
elif [ -n "${SARNLINK_SIGN_CERT:-}${SARNLINK_SIGN_KEY:-}" ]; then
  echo "release: SARNLINK_SIGN_CERT and SARNLINK_SIGN_KEY go together; only one of them is set"
  exit 1
else
  signed=0
  echo "release: no certificate given (SARNLINK_SIGN_CERT, SARNLINK_SIGN_KEY): the Windows programs will be unsigned"
fi

jobs=$(nproc)
out=build/packages
rm -rf "$out"
mkdir -p "$out"

if grep -q '\.example"' src/shell/deployment.h; then
  echo "release: note: src/shell/deployment.h still names placeholder hosts (.example); these packages cannot reach a real service"
fi

# The .deb names its maintainer with an address that is given at release time.
contact="The sarnlink authors"
if [ -n "${SARNLINK_MAINTAINER_EMAIL:-}" ]; then
  contact="$contact <$SARNLINK_MAINTAINER_EMAIL>"
else
  echo "release: note: no SARNLINK_MAINTAINER_EMAIL given; the .deb names its maintainer without an address"
fi

for preset in windows-release linux-release; do
  echo "== release: $preset"
  cmake --preset "$preset" -DSARNLINK_PACKAGE_CONTACT="$contact" >/dev/null
  # Only the programs a player gets: the install step does not ask for more.
  cmake --build --preset "$preset" --target player-programs -j "$jobs"
  rm -rf "build/$preset/packages"
  cpack --config "build/$preset/CPackConfig.cmake" -B "build/$preset/packages" >/dev/null
  find "build/$preset/packages" -maxdepth 1 -type f \( -name '*.zip' -o -name '*.deb' -o -name '*.tar.gz' \) \
    -exec cp {} "$out/" \;
done

if [ "$signed" = 1 ]; then
  echo "== release: signing the Windows programs with $SARNLINK_SIGN_CERT"
  scripts/sign-zip.sh "$out"/*-windows-x64.zip
fi

(cd "$out" && sha256sum -- *.zip *.deb *.tar.gz > SHA256SUMS)
echo "== release: packages in $out"
(cd "$out" && ls -l -- *.zip *.deb *.tar.gz SHA256SUMS)
if [ "$signed" = 0 ]; then
  echo "release: unsigned: the .exe files in the zip carry no signature, so Windows SmartScreen will warn players"
fi
