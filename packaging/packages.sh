# Debian packages that this project needs, and the functions that get them. Sourced by ./run, ./test
# and bench/run (bash), never executed.

# To build and to try it out.
build_packages=(
    g++ cmake ninja-build pkg-config libsqlite3-dev libjansson-dev libcli11-dev libfmt-dev
    libsmartcols-dev libpam0g-dev bubblewrap sqlite3 python3 iproute2
)
# What the tests, the benchmarks and the checks of the source need besides.
test_packages=(
    clang clang-format clang-tidy libclang-rt-14-dev libgtest-dev mandoc
    binutils abigail-tools systemd valgrind strace pamtester libpam-wrapper mypy
)
# What bench/run compares with.
bench_packages=(libsystemd-dev)
# What ./run openvpn and the tests of real OpenVPN servers need besides.
openvpn_packages=(openvpn openssl)
# What packaging/build-packages needs besides.
packaging_packages=(abigail-tools debhelper dh-python dpkg-dev fakeroot lintian mmdebstrap)
# The browser that looks at ravoctl's report in the tests. Without it they say so and go on.
browser_packages=(chromium fonts-dejavu-core)
# What ./test --coverage needs besides.
coverage_packages=(gcovr)

# Programs that bench/run compares with. They are unpacked, never installed: most are services, which an
# installation would start, now or at the next start of the machine. The parts of FreeRADIUS are named
# one by one, so that they come even if the machine has some of them.
peer_packages=(freeradius freeradius-common freeradius-config rsyslog fail2ban python3-pyinotify)

# announce WORDS...: a heading, so that a long step is never a silent one.
announce() { printf '\n==> %s\n' "$*"; }

# die WORDS...: ends the script with a message and status 1.
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# as_root COMMAND...: runs it as it is for root, through sudo for anybody else.
as_root() {
    if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

can_become_root() { [[ $(id -u) == 0 ]] || command -v sudo >/dev/null; }

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends "$@"
}

# True when apt-get can resolve the packages from the lists that it has now.
are_known() { apt-get install --simulate --no-install-recommends "$@" >/dev/null 2>&1; }

# install_missing_packages PACKAGE...: installs those that are not there. Does nothing, and needs no
# rights, when all of them are. Ends the script when it cannot install.
install_missing_packages() {
    local package missing=()
    command -v dpkg-query >/dev/null || die "needs Debian's package tools (dpkg-query is missing)"
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    announce "Installing packages: ${missing[*]}"
    can_become_root || die "not root and no sudo here; as root, please run:
    apt-get update && apt-get install ${missing[*]}"
    are_known "${missing[@]}" || as_root apt-get update || die "apt-get update failed"
    # The lists may name versions that the mirror has dropped since, so a failure is tried once more
    # with fresh ones.
    apt_install "${missing[@]}" ||
        { as_root apt-get update && apt_install "${missing[@]}"; } ||
        die "could not install: ${missing[*]}"
}

# with_dependencies PACKAGE...: the names, and those of what else would have to be installed.
with_dependencies() {
    local names
    names=$(apt-get install --simulate --no-install-recommends "$@" | sed -n 's/^Inst \([^ ]*\).*/\1/p')
    printf '%s\n' "$@" "$names" | sort --unique | sed '/^$/d'
}

# unpack_packages FOLDER PACKAGE...: puts the files of packages, and of what they need besides the
# system's, into a folder of their own. Needs no rights unless the package lists are to be fetched.
# False when it cannot.
unpack_packages() {
    local folder=$1 names archive
    shift
    [[ ! -e $folder/complete ]] || return 0
    announce "Unpacking packages: $*"
    command -v apt-get >/dev/null || return 1
    are_known "$@" || { can_become_root && as_root apt-get update && are_known "$@"; } || return 1
    mapfile -t names < <(with_dependencies "$@")
    rm -rf "$folder"
    mkdir -p "$folder/archives"
    (cd "$folder/archives" && apt-get download --quiet=2 "${names[@]}") || return 1
    for archive in "$folder"/archives/*.deb; do dpkg-deb --extract "$archive" "$folder"; done
    rm -r "$folder/archives"
    touch "$folder/complete"
}
