# The other scripts source this file. It installs the Debian packages that are missing.

build_packages="ca-certificates cmake g++ ninja-build qtbase5-dev"
demo_packages="fonts-dejavu-core python3 tshark"
test_packages="$demo_packages clang iproute2 mount openbox pkg-config python3-scipy qt5-gtk-platformtheme strace
    util-linux xdotool xvfb"
check_packages="black clang-format clang-tidy clazy mypy"

as_root()
{
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "root or sudo is needed to run: $*" >&2
        return 1
    fi
}

is_installed()
{
    [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# install_packages PACKAGE...: installs what is missing, without asking. Does nothing when all are there.
install_packages()
{
    missing=""
    for package in "$@"; do
        is_installed "$package" || missing="$missing $package"
    done
    [ -z "$missing" ] && return 0

    echo "Installing:$missing"
    as_root apt-get update -q
    # shellcheck disable=SC2086  # one word a package
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
}
