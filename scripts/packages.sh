# Debian packages that this project is built, tested and analysed with; sourced by the other scripts.

packages_build="g++ cmake ninja-build pkgconf libace-dev libini-config-dev libspdlog-dev libssl-dev"
packages_examples="libtasn1-6-dev libcli11-dev libmodbus-dev"
packages_elements="snmpd snmp stunnel4 socat openssl"
packages_test="libgtest-dev libbenchmark-dev $packages_examples $packages_elements"
packages_analysis="clang libclang-rt-dev"

# Makes sure that the named packages are installed. Installs what is missing as root or through sudo; otherwise prints
# the line that does it and ends with exit code 3.
require_packages() {
    missing=""
    for package in "$@"; do
        status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
        [ "$status" = installed ] || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0

    line="apt-get update && apt-get install -y --no-install-recommends$missing"
    if [ "$(id -u)" -eq 0 ]; then
        run=""
    elif command -v sudo >/dev/null 2>&1 && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
        run="sudo"
    else
        echo "These packages are missing, and this user may not install them. Run as root, then try again:" >&2
        echo "    $line" >&2
        exit 3
    fi
    echo "Installing:$missing"
    # shellcheck disable=SC2086 # the words of $run and $missing are separate arguments
    $run apt-get update -qq && $run env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
}
