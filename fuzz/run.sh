#!/usr/bin/env bash
# Fuzzes one target: run.sh TARGET SECONDS. Inputs that end the program are left in build/fuzz/findings/TARGET, and
# the exit status is then 1. New inputs worth keeping stay in build/fuzz/corpus/TARGET for the next run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

fail() {
    echo "fuzz: $*" >&2
    exit 2
}

targets() {
    local folder
    for folder in fuzz/corpus/*/; do
        basename "$folder"
    done
}

[[ $# -eq 2 ]] || fail "usage: fuzz/run.sh TARGET SECONDS; targets are: $(targets | xargs)"
target=$1 seconds=$2
[[ " $(targets | xargs) " == *" $target "* ]] || fail "there is no target '$target'; there are: $(targets | xargs)"
[[ $seconds =~ ^[1-9][0-9]*$ ]] || fail "'$seconds' is no number of seconds"

program=build/fuzz/bin/fuzz-$target
[[ -x $program ]] || fail "there is no $program; build the preset fuzz first, as ./dev fuzz does"
findings=build/fuzz/findings/$target
grown=build/fuzz/corpus/$target
mkdir -p "$findings" "$grown"

options=(-max_total_time="$seconds" -timeout=10 -max_len=8192 -print_final_stats=1 -artifact_prefix="$findings/")
[[ -f fuzz/$target.dict ]] && options+=(-dict="fuzz/$target.dict")
if [[ -f fuzz/$target.supp ]]; then # It names functions of libraries, which the fast way of unwinding does not find.
    export LSAN_OPTIONS=suppressions=$PWD/fuzz/$target.supp:print_suppressions=0
    export ASAN_OPTIONS=fast_unwind_on_malloc=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}
fi
status=0
"$program" "${options[@]}" "$grown" "fuzz/corpus/$target" || status=$?

if [[ $status -eq 0 ]]; then
    echo "fuzz: nothing found in $seconds s"
    exit 0
fi
[[ -n $(ls -A "$findings") ]] || fail "$program ended with status $status without leaving a finding"
echo "fuzz: inputs that end the program are in $findings; run one again with: $program FILE" >&2
ls "$findings" >&2
exit 1
