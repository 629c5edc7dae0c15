# Installs, on Debian/Ubuntu, whichever of the named packages are missing. Sourced by the other scripts.
install_missing_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if ! command -v apt-get >/dev/null 2>&1; then
        echo "Missing packages: ${missing[*]} (install them with your system's package manager)" >&2
        return 1
    fi
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "Installing: ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(cmake g++ make qtbase5-dev qtbase5-dev-tools libxxhash-dev)
TEST_PACKAGES=(ffmpeg xauth strace exfatprogs exfat-fuse fuse3 dosfstools fusefat
    gstreamer1.0-tools gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good gstreamer1.0-libav mediainfo
    mkvtoolnix xvfb xxhash btrfs-progs mount)
