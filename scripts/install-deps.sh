#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only when one is
# missing, and SQLite's amalgamation for the Windows build (below).
set -euo pipefail

packages=(
  cmake g++ make
  libspdlog-dev libfmt-dev
  googletest libgtest-dev
  libcli11-dev nlohmann-json3-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  wine wine64
  umockdev libumockdev-dev pkg-config
  clang libclang-rt-14-dev
  dpkg-dev file lintian
  libsqlite3-dev tcl8.6
  tmux
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# korvtool keeps its update history in SQLite. Debian has no SQLite built
# for mingw-w64, so the Windows build compiles SQLite's amalgamation (one
# sqlite3.c) into korvtool.exe. It is made from Debian's own source package
# of the SQLite the system has (libsqlite3-dev's version): fetched through a
# temporary deb-src list, with apt's lists and caches in a temporary folder,
# so that the system's sources and package lists stay as they are.
amalgamation=/usr/local/share/korvsdk/sqlite3-amalgamation
if [ ! -f "$amalgamation/sqlite3.c" ] || [ ! -f "$amalgamation/sqlite3.h" ]; then
  read -r source version < <(dpkg-query -W -f='${source:Package} ${source:Version}\n' libsqlite3-dev)
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  # The system's binary sources as source sources: the same archives, suites
  # and keys.
  {
    for f in /etc/apt/sources.list.d/*.sources; do
      [ -f "$f" ] && sed 's/^Types:.*/Types: deb-src/' "$f" && echo
    done
    if [ -f /etc/apt/sources.list ]; then
      # One-line entries become entries of their own.
      sed -n 's/^deb \(\[[^]]*\] \)\{0,1\}\([^ ]*\) \([^ ]*\) \(.*\)$/Types: deb-src\nURIs: \2\nSuites: \3\nComponents: \4\n/p' \
        /etc/apt/sources.list
    fi
  } > "$work/korvsdk-src.sources"
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
  apt_options=(-o "Dir::Etc::sourcelist=$work/korvsdk-src.sources" -o "Dir::Etc::sourceparts=-"
    -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache" -o "APT::Sandbox::User=root")
  echo "Fetching the source of $source $version for SQLite's amalgamation"
  apt-get "${apt_options[@]}" update -qq
  (cd "$work" && apt-get "${apt_options[@]}" source --download-only -qq "$source=$version")
  (cd "$work" && dpkg-source --no-check -x ./*.dsc tree >/dev/null)
  (cd "$work/tree" && ./configure >/dev/null && make sqlite3.c >/dev/null)
  $SUDO mkdir -p "$amalgamation"
  $SUDO install -m 0644 "$work/tree/sqlite3.c" "$work/tree/sqlite3.h" "$amalgamation/"
  $SUDO install -m 0644 "$work/tree/debian/copyright" "$amalgamation/copyright"
  echo "$source $version" | $SUDO tee "$amalgamation/VERSION" >/dev/null
fi
