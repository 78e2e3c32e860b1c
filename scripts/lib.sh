# Shared by scripts/run, scripts/test and scripts/bench: install what is
# missing, then configure and build into build/.
set -euo pipefail

DICTORA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
DICTORA_BUILD=${DICTORA_BUILD:-$DICTORA_ROOT/build}

# What building and running Dictora need. whisper.cpp's Vulkan back-end needs
# glslc and the Vulkan headers to build; the loader comes with libvulkan-dev.
# The Wayland backends need libwayland-client and its scanner.
DICTORA_PACKAGES=(
  build-essential cmake ninja-build pkg-config git nodejs npm ccache
  qt6-base-dev qt6-base-dev-tools qt6-qpa-plugins libgl-dev
  libpulse-dev libsoxr-dev libsndfile1-dev libx11-dev libxtst-dev libxext-dev libxi-dev libxkbcommon-dev
  libxcb1-dev libxcb-shape0-dev
  glslc libvulkan-dev spirv-headers
  libwayland-dev wayland-protocols
)
# What the tests stand up (scripts/test): an X server with a window manager, a
# PulseAudio server, key and speech generators, real applications to paste
# into, a headless Sway with a native terminal, clang's fuzzing runtime,
# Mesa's software Vulkan driver (the GPU path runs and falls back to the
# CPU), and the Debian tools the package is checked with.
DICTORA_TEST_PACKAGES=(
  xvfb xauth openbox x11-utils x11-xserver-utils xdotool xterm l3afpad trayer
  pulseaudio pulseaudio-utils espeak-ng sox
  python3
  sway foot xwayland
  # Portals: a fake one on a private bus (python3-dbus), GNOME's keybinding
  # schema, and headless KWin and Mutter with the real portal and their backends.
  dbus python3-dbus python3-gi libglib2.0-bin gnome-settings-daemon-common libcap2-bin
  kwin-wayland xdg-desktop-portal xdg-desktop-portal-kde qtwayland5
  mutter xdg-desktop-portal-gnome xdg-desktop-portal-gtk
  clang libclang-rt-14-dev
  mesa-vulkan-drivers
  dpkg-dev lintian appstream desktop-file-utils librsvg2-bin man-db
)
# What scripts/package needs on top of the build.
DICTORA_PACKAGING_PACKAGES=(
  dpkg-dev lintian appstream desktop-file-utils librsvg2-bin
)

dictora_sudo() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# dictora_install_dependencies [test] [package]: the build packages, plus the
# test rig and/or the packaging tools when asked.
dictora_install_dependencies() {
  local wanted=("${DICTORA_PACKAGES[@]}")
  local extra
  for extra in "$@"; do
    case "$extra" in
      test) wanted+=("${DICTORA_TEST_PACKAGES[@]}") ;;
      package) wanted+=("${DICTORA_PACKAGING_PACKAGES[@]}") ;;
    esac
  done
  local missing=()
  for pkg in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  # nodejs/npm from another source (nvm, NodeSource) count as present.
  if command -v npm >/dev/null 2>&1; then
    local kept=()
    for pkg in "${missing[@]}"; do
      case "$pkg" in nodejs|npm) ;; *) kept+=("$pkg") ;; esac
    done
    missing=("${kept[@]+"${kept[@]}"}")
  fi
  if [ ${#missing[@]} -gt 0 ]; then
    echo "==> Installing: ${missing[*]}"
    dictora_sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive dictora_sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

dictora_build() {
  local generator=()
  local launcher=()
  [ -f "$DICTORA_BUILD/CMakeCache.txt" ] || generator=(-G Ninja)
  # A rebuild in a fresh clone (CI, a second worktree) reuses earlier objects:
  # paths inside the tree are hashed relative to it, and not the build folder.
  if command -v ccache >/dev/null 2>&1; then
    export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$DICTORA_ROOT} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S "$DICTORA_ROOT" -B "$DICTORA_BUILD" "${generator[@]}" "${launcher[@]}" ${DICTORA_CMAKE_ARGS:-}
  cmake --build "$DICTORA_BUILD" --parallel "$(nproc)"
}
