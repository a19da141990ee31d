#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if any is missing.
set -euo pipefail
packages=(cmake ninja-build make g++ binutils pkg-config libpcap-dev libcap-dev libcap2-bin libgtest-dev tcpdump tshark tcpreplay iproute2 ethtool jq time bash-completion "$@")
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
# One index that fails (a mirror in the middle of a sync, a foreign architecture's index out of
# step) leaves the others usable; the install below says whether what we need is there.
$sudo apt-get update -qq || echo "apt-get update failed in part; going on with what it fetched"
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
