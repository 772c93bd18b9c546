# Sourced by ./demo and ./test: installs what they need on Debian 12 and builds a preset. Quiet when all is there.

need_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "$1 makes network namespaces and needs root: sudo $1" >&2
        exit 1
    fi
}

build_packages="g++ cmake ninja-build pkg-config libmnl-dev libsqlite3-dev libsystemd-dev libedit-dev libcap-ng-dev
    nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev"
lab_packages="python3 iproute2 iputils-ping iperf3 smcroute"
test_packages="systemd dpkg-dev dnsmasq-base busybox nginx-light avahi-daemon ndisc6 arping curl bash-completion"
# Of these packages only the programs are wanted: none may make this machine a router, a web server or a responder.
quiet_services="smcroute nginx avahi-daemon"

# install_packages NAME...: those of the packages that are missing, with apt.
install_packages() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local log policy=/usr/sbin/policy-rc.d hold=no service new=()
    log=$(mktemp)
    for service in $quiet_services; do
        dpkg-query -W "$service" >/dev/null 2>&1 || new+=("$service.service")
    done
    # Debian's own way to keep what is installed from being started.
    [ -e $policy ] || hold=yes
    if ! (
        if [ $hold = yes ]; then
            trap 'rm -f $policy' EXIT
            printf '#!/bin/sh\nexit 101\n' >$policy && chmod 755 $policy
        fi
        apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
    ) >"$log" 2>&1 </dev/null; then
        tail -n 30 "$log" >&2
        echo "apt could not install: ${missing[*]}" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
    if [ -d /run/systemd/system ] && [ ${#new[@]} -ne 0 ]; then
        systemctl disable --quiet "${new[@]}" 2>/dev/null
    fi
    return 0
}

# build_preset PRESET [TARGET...]: configures and builds; the whole output only when something fails.
build_preset() {
    local preset=$1 log="build/$1.log" started=$SECONDS
    shift
    mkdir -p build
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1 </dev/null; then
        grep -E -A12 'FAILED|[Ee]rror' "$log" | head -n 80 >&2
        echo "the $preset build failed; all of its output: $log" >&2
        return 1
    fi
    echo "built $preset in $((SECONDS - started)) s"
}
