#!/bin/sh
# Checks that the given Debian packages are installed; installs the missing
# ones with apt-get when run as root, otherwise prints the command to run.
missing=""
for p in "$@"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" = 0 ]; then
  echo "Installing missing packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq $missing >/dev/null || {
    echo "apt-get could not install:$missing" >&2; exit 1; }
else
  echo "Missing build dependencies. Please run:" >&2
  echo "  sudo apt-get update && sudo apt-get install -y$missing" >&2
  exit 1
fi
