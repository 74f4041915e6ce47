# Steps that ./run, ./test and .ci/run share; sourced by bash with `project` set to the project's folder.

jobs=${TARNWELL_JOBS:-$(nproc)}

say() { printf '%s\n' "$*" >&2; }
die() { say "$*"; exit 1; }

# The packages of the named sections of packaging/build-depends.txt, as lines "name reason".
packages_of() {
    local section wanted=" $* " current='' line
    while read -r line; do
        case $line in
            '' | '#'*) ;;
            '['*) current=${line//[\[\]]/} ;;
            *) if [[ $wanted == *" $current "* ]]; then printf '%s\n' "$line"; fi ;;
        esac
    done <"$project/packaging/build-depends.txt"
}

# Installs what is missing of the named sections, and says which and why.
need_packages() {
    command -v dpkg-query >/dev/null || return 0  # not Debian: CMake says what is missing
    local name reason missing=() installed
    installed=$(packages_of "$@" | cut -d' ' -f1 |
        xargs dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' 2>/dev/null | sed -n 's/^ii *//p') || true
    while read -r name reason; do
        grep -qxF -- "$name" <<<"$installed" && continue
        ((${#missing[@]})) || say "Installing Debian packages that are missing:"
        say "  $name ($reason)"
        missing+=("$name")
    done < <(packages_of "$@")
    ((${#missing[@]})) || return 0

    local as_root=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            die "Please install them as root: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    local log
    log=$(mktemp)
    if ! "${as_root[@]}" bash -c 'apt-get update && DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "$@"' packages "${missing[@]}" >"$log" 2>&1 </dev/null; then
        tail -n 40 "$log" >&2
        rm -f "$log"
        die "The packages could not be installed: ${missing[*]}"
    fi
    rm -f "$log"
}

# Configures a preset if that was never done or the preset file changed since. Further arguments go to cmake.
configure() {
    local preset=$1 build=$project/build/$1
    shift
    [[ -e $build/build.ninja && ! $project/CMakePresets.json -nt $build/build.ninja && $# == 0 ]] && return 0
    mkdir -p "$build"
    if ! (cd "$project" && cmake --preset "$preset" "$@") >"$build/configure.log" 2>&1; then
        cat "$build/configure.log" >&2
        die "Configuring preset $preset failed."
    fi
    touch "$build/build.ninja"
}

# Builds targets of a configured preset ("all" for everything). Quiet unless it fails; on a terminal it shows progress.
build() {
    local preset=$1 folder=$project/build/$1
    shift
    if [[ -t 2 ]]; then
        if ! ninja -C "$folder" -n "$@" 2>/dev/null | grep -q '^ninja: no work to do'; then
            say "Building $preset"
            NINJA_STATUS='[%f/%t] ' ninja -C "$folder" -j "$jobs" "$@" >&2 || die "Building preset $preset failed."
        fi
    elif ! ninja -C "$folder" -j "$jobs" "$@" >"$folder/build.log" 2>&1; then
        grep -v '^\[[0-9]*/[0-9]*\] [^F]' "$folder/build.log" | tail -n 200 >&2
        die "Building preset $preset failed; the whole output is in build/$preset/build.log."
    fi
}
