#!/usr/bin/env bash
# Installs everything the project needs to build, run and test, from Debian 12's archive.
set -euo pipefail

packages=(
    # toolchain
    g++ cmake ninja-build pkg-config git
    # packages (scripts/package.sh): icons drawn from the SVG, dependencies read by dpkg-shlibdeps;
    # tests/packaging/check-packages.sh validates the desktop entry
    librsvg2-bin dpkg-dev file desktop-file-utils
    # libraries
    qt6-base-dev qt6-websockets-dev qt6-multimedia-dev qt6-declarative-dev
    qcoro-qt6-dev qtkeychain-qt6-dev libpoppler-cpp-dev libpulse-dev libsamplerate0-dev
    libxi-dev libxtst-dev libxcb-xinput-dev
    # the server: HTTP and WebSocket, storage, password hashing
    qt6-httpserver-dev libsodium-dev libqt6sql6-sqlite libqt6sql6-psql
    # the server's built-in recogniser and speech
    libpocketsphinx-dev libsphinxbase-dev pocketsphinx-en-us libespeak-ng-dev
    # practice interviews: the server speaks questions through the espeak-ng program; Qt
    # Multimedia's GStreamer backend decodes that speech (WAV) and a vendor's (MP3) with the
    # "good" plugins (wavparse, mpg123); the meeting window's camera tile needs the QML module;
    # the player's test makes its MP3 with gst-launch-1.0 and lamemp3enc
    espeak-ng gstreamer1.0-plugins-good qml6-module-qtmultimedia gstreamer1.0-tools
    # QML modules for the windows (they do not pull each other in)
    qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-templates
    qml6-module-qtquick-layouts qml6-module-qtquick-window qml6-module-qtqml
    qml6-module-qtqml-models qml6-module-qtqml-workerscript qml6-module-qtquick-shapes
    # the file dialog of the resume page; its own drawing, where the desktop has no portal, lists folders
    qml6-module-qtquick-dialogs qml6-module-qt-labs-folderlistmodel
    # the icon font of the windows and the tray; xdg-utils registers the ravlet:// handler
    fonts-materialdesignicons-webfont xdg-utils
    # tests and benchmarks
    libgtest-dev libgmock-dev libbenchmark-dev
    xvfb x11-utils pulseaudio pulseaudio-utils sox
    gnome-keyring libsecret-tools dbus dbus-x11
    curl python3-websockets postgresql chromium
    # fuzzing (scripts/fuzz.sh): clang with its libFuzzer and sanitizer runtimes
    clang-14 libclang-rt-14-dev
    # a tray on the test display, clicks on its windows, and a window manager for the tests
    # of focus
    trayer xdotool openbox
    # the whole-product test: buttons pressed through their accessible names, and screenshots
    python3-pyatspi at-spi2-core scrot
    # GNOME's keyboard-shortcut schemas, which the custom shortcuts are written in and checked against
    gnome-settings-daemon-common mutter-common
    # the Wayland compositor runs (tests/e2e/wayland_desktops_test.py): sway with its key presser
    # and screenshots and a native terminal; KWin with the real shortcut portal, and what its
    # fake-input helper is built from. About 170 packages, 45 MB to fetch, and under 2 minutes
    # of test time
    sway wtype grim foot kwin-wayland xdg-desktop-portal xdg-desktop-portal-kde qtwayland5
    plasma-wayland-protocols libwayland-dev
    # fonts for the screenshots in every language of the string tables (Latin, Arabic, CJK)
    fonts-noto-core fonts-noto-cjk
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    sudo=(sudo)
fi

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq "${missing[@]}"
