# shellcheck shell=bash disable=SC2034
# Sourced by the scripts beside it: which Debian packages are needed, and how what is missing is installed.

# To compile the daemon and its client.
build_packages=(cmake ninja-build g++ libpam0g-dev libcli11-dev nlohmann-json3-dev)
# Besides these: to check the format, compile the tests and run them (ksh is the interactive form's shell).
test_packages=(clang-format libgtest-dev libgmock-dev ksh passwd procps strace util-linux
               # the tools that drive remote machines through ruvelsh
               ansible-core clustershell git openssh-client openssh-server parallel pdsh rsync tar)

is_installed() {
    [ "$(dpkg-query --show --showformat '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# To build and run the fuzzers.
fuzz_packages=(clang libclang-rt-14-dev)

# To look for errors of memory besides those that the sanitizers find.
memcheck_packages=(libc6-dbg valgrind)

# To build the Debian packages and try them in a clean root.
package_packages=(debootstrap dpkg-dev file iproute2 lintian mandoc socat util-linux)

# To measure: the libraries and servers that RuvelServer is compared with. Nothing of theirs is left running,
# and none of them is configured outside a temporary folder.
bench_packages=(libisal-dev openssh-client openssh-server python3 rsync socat util-linux vsftpd zlib1g-dev)

# install_packages PACKAGE...: installs those that are missing and says so; does nothing when none is.
install_packages() {
    local missing=() as_root=() package
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Missing packages: ${missing[*]}. Install them as root, or run this with sudo." >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing missing packages: ${missing[*]}"
    # One at a time, so that two clones that start together wait for each other instead of failing.
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive flock /var/lib/apt
               apt-get -o DPkg::Lock::Timeout=600)
    "${apt[@]}" update --quiet=2
    "${apt[@]}" install --quiet=2 --yes --no-install-recommends "${missing[@]}"
}
