# shellcheck shell=bash disable=SC2154,SC2053  # two variables are the caller's; a pattern is meant as one
# steps.sh: what the scripts from Tests/Commands/parse are made of. $private is the folder of the run,
# $background_seconds how long output is awaited from a program in the background.

steps=0
failed() { printf '%s\n' "$@" "FAILED"; exit 1; }
begin() { : >"$private/printed"; compared=true in_background=false; }
begin  # for output that stands before any command
not_run() {
    printf '  not run: %s (%s)\n' "$1" "$2"
    compared=false
}
step() {
    printf '  $ %s\n' "${2//$'\n'/$'\n  > '}"
    local step_begun=$SECONDS step_status=0
    case $2 in *'&') in_background=true ;; esac
    eval "$2" >>"$private/printed" 2>&1 </dev/null || step_status=$?
    [ "$step_status" -eq 0 ] || failed "$(cat "$private/printed")" "$1: exit status $step_status"
    steps=$((steps + 1))
    [ $((SECONDS - step_begun)) -lt 2 ] || printf '    (%d s)\n' $((SECONDS - step_begun))
}
same() {
    local expected actual pattern
    exec 8<<<"$1" 9<"$private/printed"
    while IFS= read -r expected <&8; do
        IFS= read -r actual <&9 || return 1
        pattern=$(printf '%s' "$expected" | sed 's/[][\\*?]/\\&/g; s/…/*/g')
        [[ $actual == $pattern ]] || return 1
    done
    ! IFS= read -r actual <&9
}
printed() {
    $compared || return 0
    local tries=1
    ! $in_background || tries=$((background_seconds * 10))
    while ! same "$2"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || failed "$1: expected" "$2" "but it printed" "$(cat "$private/printed")"
        sleep 0.1
    done
}
finish() { printf '%s\n' "$steps" >>"$private/counts"; }
