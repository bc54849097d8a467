# shellcheck shell=bash
# common.sh: what the scripts share. A script begins with
#
#     set -euo pipefail
#     . "$(dirname "$0")/Support/common.sh"
#     take_arguments 1 "--check --seed=" "$@"
#     cd "$checkout"
#
# and everything here works with bash 3.2, which macOS has, as well as 5.

checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
script=$(cd "$(dirname "$0")" && pwd -P)/${0##*/}
script=${script#"$checkout/"}  # as messages name it
processors=$(getconf _NPROCESSORS_ONLN)

# --- saying ------------------------------------------------------------------------------------------------------

# fail REASON…: ends the script; refuse: the same for a wrong command line.
fail() { echo "$script: $*" >&2; exit 1; }
refuse() { echo "$script: $*. For help: $script --help" >&2; exit 2; }

# The head comment of the script, which is its help text.
print_help() { awk 'NR == 1 || /^# shellcheck/ { next } !/^#/ { exit } { sub(/^# ?/, ""); print }' "$0"; }

# linux_only REASON
linux_only() { [ "$(uname -s)" = Linux ] || { echo "$script: this needs Linux: $*" >&2; exit 2; }; }

# --- arguments ---------------------------------------------------------------------------------------------------

arguments=()  # what is no option
taken=()      # the options: name, value, name, value…

# take_arguments MOST OPTIONS ARGUMENT…: answers --help and -h, and refuses unknown options and more than MOST ("any":
# no limit) other arguments. OPTIONS are separated by blanks; one that ends in "=" takes the next argument as value.
take_arguments() {
    local most=$1 known=" $2 "
    shift 2
    while [ $# -gt 0 ]; do
        case $1 in
        -h | --help) print_help; exit 0 ;;
        --) shift; arguments+=("$@"); break ;;
        -?*)
            case $known in
            *" $1 "*) taken+=("$1" '') ;;
            *" $1= "*)
                [ $# -ge 2 ] || refuse "$1 needs a value"
                taken+=("$1" "$2")
                shift
                ;;
            *) refuse "there is no option $1" ;;
            esac
            ;;
        *) arguments+=("$1") ;;
        esac
        shift
    done
    if [ "$most" != any ] && [ "${#arguments[@]}" -gt "$most" ]; then
        refuse "this is one argument too many: ${arguments[$most]}"
    fi
}

# given OPTION: succeeds if it was; prints its value if it has one.
given() {
    local at
    for ((at = 0; at < ${#taken[@]}; at += 2)); do
        if [ "${taken[$at]}" = "$1" ]; then
            [ -z "${taken[$((at + 1))]}" ] || printf '%s\n' "${taken[$((at + 1))]}"
            return 0
        fi
    done
    return 1
}

# The options of ctest that a script passes on.
# shellcheck disable=SC2034  # for the scripts
ctest_options="-R= --tests-regex= -E= --exclude-regex= -L= --label-regex= -LE= --label-exclude= -I= -N --show-only \
-V --verbose -VV --extra-verbose -j= --parallel= --rerun-failed --output-on-failure --stop-on-failure --repeat= \
--timeout= --schedule-random"

# --- what is removed and ended with the script -------------------------------------------------------------------

private=''    # a folder of the script's own, once make_private has made it
ticker=''     # shows signs of life while a command runs
processes=()  # programs that it started in the background

# A script that has more to do defines clean_up.
# shellcheck disable=SC2317  # the trap calls it
end_script() {
    trap '' INT TERM HUP  # a second Ctrl-C does not stop the cleaning
    [ -z "$ticker" ] || kill -USR1 "$ticker" 2>/dev/null || true
    if [ "${#processes[@]}" -gt 0 ]; then
        kill "${processes[@]}" 2>/dev/null || true
        wait "${processes[@]}" 2>/dev/null || true
    fi
    if declare -F clean_up >/dev/null; then clean_up || true; fi
    [ -z "$private" ] || rm -rf "$private"
}
trap end_script EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# make_private NAME: in /tmp and with a short name, because sockets in it have a limit of about 100 bytes.
make_private() { private=$(mktemp -d "/tmp/tidewell-$1.XXXXXX"); }

# --- running -----------------------------------------------------------------------------------------------------

# with_signs_of_life LOG COMMAND…: its output goes to LOG; every 20 seconds LOG's name and last line are shown. The
# command stays in the foreground, so that Ctrl-C reaches it.
with_signs_of_life() {
    local log=$1 name status=0
    name=$(basename "$1" .log)
    shift
    # Its output is shown, not captured: a caller's $(…) must not wait for it. It ends with a signal that this script
    # does not trap: one that it does is lost when it arrives while the new process still has the script's trap.
    (
        seconds=0 sleeping=''
        trap 'kill $sleeping 2>/dev/null; exit' USR1
        while :; do
            sleep 20 3>&- &
            sleeping=$!
            wait "$sleeping"
            seconds=$((seconds + 20))
            printf '   … %s, %d s: %s\n' "$name" "$seconds" \
                "$(tail -n 1 "$log" 2>/dev/null | cut -c 1-90)" >&3
        done
    ) 3>&2 >/dev/null 2>&1 &
    ticker=$!
    "$@" >"$log" 2>&1 </dev/null || status=$?
    kill -USR1 "$ticker" 2>/dev/null || true
    wait "$ticker" 2>/dev/null || true
    ticker=''
    return "$status"
}

# quietly NAME COMMAND…: what it prints goes to build/logs/NAME.log, and is shown only if it fails; that
# ends the script.
quietly() {
    local log=$checkout/build/logs/$1.log
    shift
    mkdir -p "${log%/*}"
    with_signs_of_life "$log" "$@" || {
        tail -n 60 "$log" >&2
        fail "this failed: $*. All of its output: ${log#"$checkout/"}"
    }
}

# make_build PRESET [-B FOLDER] [-DNAME=VALUE…] [TARGET…]: configures and builds; build: the same, quietly.
make_build() {
    local preset=$1 folder=build/$1 settings=() targets=()
    shift
    while [ $# -gt 0 ]; do
        case $1 in
        -B) folder=$2; shift ;;
        -*) settings+=("$1") ;;
        *) targets+=(--target "$1") ;;
        esac
        shift
    done
    cmake --preset "$preset" -B "$folder" ${settings[@]+"${settings[@]}"} &&
        cmake --build "$folder" --parallel "$processors" ${targets[@]+"${targets[@]}"}
}
build() {
    local name=build-$1
    [ "${2:-}" != -B ] || name=build-${3##*/}
    quietly "$name" make_build "$@"
}

# npm_install FROM INTO: what FROM's lock file names, again only when that file has changed. The stamp comes last, so
# that an interrupted install is repeated.
npm_install() {
    local from=$1 into=$2 stamp=$2/installed-lock.json
    ! cmp -s "$from/package-lock.json" "$stamp" || return 0
    mkdir -p "$into"
    rm -f "$stamp"
    cp "$from/package.json" "$from/package-lock.json" "$into"
    [ ! -e "$from/.npmrc" ] || cp "$from/.npmrc" "$into"
    echo "Fetching packages from npm for $from (kept in ${into#"$checkout/"})"
    mkdir -p build/logs
    with_signs_of_life "build/logs/npm-${into##*/}.log" npm ci --prefix "$into" --loglevel=error --fetch-retries=1 \
        --fetch-retry-mintimeout=1000 || {
        grep -m 6 '^npm error' "build/logs/npm-${into##*/}.log" >&2 || true
        fail "npm could not install what $from/package-lock.json names. Is its registry within reach?"
    }
    cp "$from/package-lock.json" "$stamp"
}

# clang_tool NAME PROGRAM: leaves in $tool what to run: PROGRAM where it is named, else version 14, which is installed
# where that is possible. Other versions judge otherwise.
# shellcheck disable=SC2034  # for the scripts
clang_tool() {
    local candidate
    for candidate in "$2" "$1-14" "$1"; do
        if [ -n "$candidate" ] && "$candidate" --version 2>/dev/null | grep -q 'version 14\.'; then
            tool=$candidate
            return
        fi
    done
    [ -z "$2" ] || fail "$2 is not $1 14"
    command -v apt-get >/dev/null || fail "$1 14 is missing; LLVM 14 has it"
    "$checkout/Scripts/setup" "$1-14"
    tool=$1-14
}

# Packages carry one date: SOURCE_DATE_EPOCH (seconds since 1970) where that is set, else the last commit's.
set_package_date() {
    [ -n "${SOURCE_DATE_EPOCH:-}" ] || SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null) ||
        fail "this is no git checkout: set SOURCE_DATE_EPOCH"
    export SOURCE_DATE_EPOCH
}
