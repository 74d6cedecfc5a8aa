#!/usr/bin/env bash
# Runs a test program again as an ordinary user: half of the permission rules cannot fail for root.
# Exit 77 tells CTest that it was skipped, since the suite is not running as root anyway.
set -euo pipefail
program=$1
[ "$(id -u)" -eq 0 ] || exit 77
user=65534
as_user() {
  setpriv --reuid=$user --regid=$user --clear-groups env HOME="$home" TMPDIR="$home" "$@"
}

home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
chown $user:$user "$home"
# A build folder below somebody's private home cannot be reached: then a copy is run.
if ! as_user test -x "$program"; then
  mkdir -m 755 "$home/bin"
  find "$(dirname "$program")" -maxdepth 1 \
    \( -name 'tavro-*' -o -name 'example-*' -o -name 'ill-behaved-*' -o -name '*.so' \) -exec cp -t "$home/bin" {} +
  cp "$program" "$home/bin/"
  program=$home/bin/$(basename "$program")
fi
cd "$home"
as_user "$program" --gtest_brief=1 </dev/null
