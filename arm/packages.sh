# Fetching Debian's armhf packages on this (amd64) machine without installing them: sourced by
# arm/setup.sh (the build's sysroot) and arm/setup-board.sh (the emulated board).

armhf_sudo=""
[ "$(id -u)" -eq 0 ] || armhf_sudo=sudo
export DEBIAN_FRONTEND=noninteractive
apt_get() { $armhf_sudo apt-get -qq -o DPkg::Lock::Timeout=120 "$@"; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

# The packages named, and the run-time libraries they need, and theirs.
library_closure() {
    local queue=("$@") seen=" " package dep
    while [ ${#queue[@]} -gt 0 ]; do
        package=${queue[0]}
        queue=("${queue[@]:1}")
        case "$seen" in *" $package "*) continue ;; esac
        seen+="$package "
        echo "$package"
        # First choice of each dependency; only libraries matter to the dynamic loader. A name
        # in <> has no armhf package of its own: data for every architecture (libaudit-common),
        # never a library.
        for dep in $(apt-cache depends --no-recommends --no-suggests --no-conflicts --no-breaks \
                         --no-replaces --no-enhances "$package" |
                     awk '/^  (Pre)?Depends:/ && $2 !~ /^</ {print $2}'); do
            dep=${dep%:armhf}
            case "$dep" in lib* | zlib1g) queue+=("$dep:armhf") ;; esac # zlib's is the odd name
        done
    done
}

# Downloads the packages named into folder $1; apt fetches as its own user, who may not write
# into a work tree.
download_packages() {
    local into=$1; shift
    (cd "$into" && apt_get -o APT::Sandbox::User=root download "$@")
}

# Runs "$@" with the armhf architecture known to apt and its index fetched. An architecture
# added here is taken back when nothing of it got installed: otherwise every later apt-get update
# on this machine would fetch the armhf indexes, and fail with them when the mirror is out of step.
with_armhf_index() {
    local added="" status=0
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        $armhf_sudo dpkg --add-architecture armhf
        added=yes
    fi
    # A failing armhf index (a mirror in the middle of a sync) leaves the others usable.
    apt_get update || echo "apt-get update failed in part; going on with what it fetched"
    "$@" || status=$?
    if [ -n "$added" ] && ! dpkg-query -W -f='${Architecture}\n' | grep -qx armhf; then
        $armhf_sudo dpkg --remove-architecture armhf
    fi
    return $status
}
