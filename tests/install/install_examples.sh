#!/usr/bin/env bash
# install_examples.sh BUILD_DIR [CFLAGS]: what a newcomer does with the README and docs/, checked.
set -euo pipefail
build=$1
flags=${2:-}
work=$(mktemp -d /tmp/mgmt-install-XXXXXX)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
    wait || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
examples=$prefix/share/libmgmt/examples
if nm -D --defined-only "$prefix/lib/libplatform.so" | grep -q ' [TDB] strlcpy$'; then
    fail "the stand-in's strlcpy is a strong symbol"
fi

# The two ways to build against the installed tree.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
mkdir "$work/pc"
for program in ntp_daemon ntp_frontend; do
    # shellcheck disable=SC2046,SC2086
    cc $flags -Wall -Wextra -Werror -o "$work/pc/$program" "$examples/$program.c" \
        $(pkg-config --cflags --libs libmgmt) -Wl,-rpath,"$(pkg-config --variable=libdir libmgmt)"
done
cmake -S "$examples" -B "$work/cm" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$flags -Wall -Wextra -Werror" >/dev/null
cmake --build "$work/cm" >/dev/null

for program in "$prefix"/bin/* "$work"/pc/*; do
    "$program" --help >/dev/null || fail "$program --help"
    "$program" --version | grep -q ' (libmgmt) ' || fail "$program --version"
done

# Daemons in a runtime directory of their own; each is waited for through its first line.
export MGMT_IPC_DIR=$work/run
start() { # name, first line, command...
    mkfifo "$work/$1.out"
    "${@:3}" >"$work/$1.out" 2>&1 &
    pids+=($!)
    local fd line
    exec {fd}<"$work/$1.out"
    read -r -t 30 -u "$fd" line || fail "$1 wrote nothing"
    [[ $line == *"$2"* ]] || fail "$1 began with: $line"
    cat <&"$fd" >"$work/$1.log" &
}
start mgd "mgd: serving in $MGMT_IPC_DIR" "$prefix/bin/mgd"
mgd_pid=${pids[0]}
start ntp_daemon ready "$work/pc/ntp_daemon" --page-rows 2

if second=$("$prefix/bin/mgd" 2>&1); then fail "a second mgd started"; fi
[[ $second == *"another mgd (pid $mgd_pid) serves $MGMT_IPC_DIR"* ]] || fail "second mgd: $second"
if second=$(MGMT_IPC_DIR=/proc/none/run "$work/pc/ntp_daemon" 2>&1); then fail "ntp_daemon served in /proc"; fi
[[ $second == *"the runtime directory /proc/none/run cannot be used: No such file or directory"* ]] ||
    fail "ntp_daemon without a runtime directory: $second"

for frontend in "$work/pc/ntp_frontend" "$work/cm/ntp_frontend"; do
    out=$(timeout 60 "$frontend") || fail "$frontend: $out"
    [[ $out == *"5 servers in 3 answers"* ]] || fail "$frontend: $out"
done

for i in "${!pids[@]}"; do
    kill -TERM "${pids[$i]}"
    wait "${pids[$i]}" || fail "daemon ${pids[$i]} ended with status $?"
done
pids=()
