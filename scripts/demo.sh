#!/bin/bash
# Builds the examples and shows them at work: a server and its clients over TCP and over a socket in the file system, with
# the sources of this repository as their text, and a client whose server never answers. The demo compares every answer with
# what awk makes of the same text. Then it shows the other examples. Fails when a byte differs, or when a program ends otherwise than it
# should. Everything happens on this machine, in a temporary directory.
set -euo pipefail
export LC_ALL=C
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

work=$(mktemp -d /tmp/kest-demo.XXXXXX) # not TMPDIR: the path of a socket has room for 107 bytes
declare -A processes=() # the ids of those that run in the background
finish() {
    local status=$?
    trap - EXIT
    ((${#processes[@]} == 0)) || kill "${!processes[@]}" 2>/dev/null || true
    wait 2>/dev/null # else the shell would report each process that a signal ended
    rm -rf "$work"
    ((status == 0)) || echo "demo: FAILED" >&2
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
    echo "demo: $*" >&2
    exit 1
}

headline() {
    printf '\n== %s\n' "$*"
}

wait_until() { # WHAT COMMAND...: for ten seconds at most
    local what=$1 round
    shift
    for ((round = 0; round < 500; round++)); do
        ! "$@" || return 0
        sleep 0.02
    done
    fail "waited in vain: $what"
}

elapsed_since() { # a moment in EPOCHREALTIME
    awk -v begin="$1" -v end="$EPOCHREALTIME" 'BEGIN { printf "%.3f", end - begin }'
}

start_server() { # NAME DOMAIN ADDRESS: sets server (the process) and address (where it listens)
    "$examples/line_server" "$2" "$3" 30 >"$work/$1.ready" 2>"$work/$1.errors" &
    server=$!
    processes[$server]=$1
    wait_until "$1 listens" grep -q '^listening on ' "$work/$1.ready"
    address=$(sed 's/^listening on //' "$work/$1.ready")
    echo "$1: process $server, listening on $address"
}

stop_server() { # NAME PROCESS SIGNAL
    local status=0
    kill -s "$3" "$2"
    wait "$2" || status=$?
    unset "processes[$2]"
    [[ $status == 0 && ! -s $work/$1.errors ]] || fail "$1 ended with status $status: $(cat "$work/$1.errors")"
    echo "$1: ended by SIG$3, status 0"
}

talk() { # NAME DOMAIN ADDRESS: a client sends NAME.text; its time goes to NAME.seconds
    local begin=$EPOCHREALTIME status=0
    "$examples/line_client" "$2" "$3" 10 <"$work/$1.text" >"$work/$1.answers" 2>"$work/$1.errors" || status=$?
    elapsed_since "$begin" >"$work/$1.seconds"
    [[ $status == 0 && ! -s $work/$1.errors ]] || fail "client $1 ended with status $status: $(cat "$work/$1.errors")"
}

total_lines=0 total_bytes=0
check() { # NAME: compares the answers of a client with what awk says
    awk '{ print length($0) " " $0 }' "$work/$1.text" >"$work/$1.expected"
    cmp "$work/$1.answers" "$work/$1.expected" || fail "the answers to client $1 are not what they should be"
    local lines bytes
    lines=$(wc -l <"$work/$1.answers") bytes=$(wc -c <"$work/$1.answers")
    printf '%-8s %8d lines %10d bytes %8s s   every byte as expected\n' "$1" "$lines" "$bytes" "$(cat "$work/$1.seconds")"
    total_lines=$((total_lines + lines)) total_bytes=$((total_bytes + bytes))
}

headline "Building"
"$root/scripts/setup.sh"
logged demo-build build_preset release line_server line_client find_files move_file plugin_host plugin work_queue || fail "the build failed"
examples=$root/build/release/examples
echo "the programs are in build/release/examples"

# The clients' texts: all sources, all sources from the last line to the first, and the headers.
find kest examples tests \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z | xargs -0 cat >"$work/tcp-1.text"
tac "$work/tcp-1.text" >"$work/tcp-2.text"
find kest -name '*.h' -print0 | sort -z | xargs -0 cat >"$work/fs.text"
(($(wc -l <"$work/fs.text") >= 1000)) || fail "there is no text of a thousand lines"

headline "A server for TCP, a server in the file system, three clients at once"
start_server tcp-server inet 127.0.0.1:0
tcp_server=$server tcp_address=$address
start_server fs-server fs "$work/socket"
fs_server=$server
clients=()
talk tcp-1 inet "$tcp_address" &
clients+=($!)
talk tcp-2 inet "$tcp_address" &
clients+=($!)
talk fs fs "$work/socket" &
clients+=($!)
for client in "${clients[@]}"; do
    wait "$client" || exit 1 # talk() has said why
done
echo
echo "the first answers to client tcp-1:"
head -n 5 "$work/tcp-1.answers" | cut -c 1-110
echo
for name in tcp-1 tcp-2 fs; do
    check "$name"
done
stop_server tcp-server "$tcp_server" INT
stop_server fs-server "$fs_server" TERM
[[ ! -e $work/socket ]] || fail "the server left its socket behind"

headline "A client with a limit of one second, and netcat, which never answers"
nc -l -U "$work/silent" </dev/null >"$work/heard" &
processes[$!]=netcat
wait_until "netcat listens" test -S "$work/silent"
begin=$EPOCHREALTIME status=0
echo "is anybody there?" | "$examples/line_client" fs "$work/silent" 1 >"$work/answers" 2>"$work/errors" || status=$?
seconds=$(elapsed_since "$begin")
cat "$work/errors"
echo "status $status after $seconds s; netcat heard \"$(cat "$work/heard")\""
[[ $status == 3 && ! -s $work/answers ]] || fail "this should have been a time-out, status 3"
awk -v seconds="$seconds" 'BEGIN { exit !(seconds >= 0.95 && seconds < 10) }' || fail "the limit was not kept"

headline "A tour through the other examples"
show() { # COMMAND...: printed, then run in the folder of the examples
    printf '$ %s\n' "$*"
    (cd "$examples" && "$@")
}
show ./find_files "$root/kest" 'socket*.h'
found=$(cd "$examples" && ./find_files "$root/kest" 'socket*.h' | wc -l)
[[ $found == $(find "$root/kest" -mindepth 1 -name 'socket*.h' | wc -l) ]] || fail "find finds something else"
echo "a file to be moved" >"$work/here"
show ./move_file "$work/here" "$work/there"
[[ ! -e $work/here && $(cat "$work/there") == "a file to be moved" ]] || fail "the file was not moved"
status=0
show ./move_file "$work/here" "$work/nowhere" 2>&1 || status=$?
[[ $status == 1 ]] || fail "moving what does not exist should have failed with status 1"
show ./plugin_host ./plugin Square 12
show ./plugin_host libm.so.6 cos 1
show ./work_queue "$work/tcp-1.text" 4

printf '\ndemo: 3 clients, %d lines, %d bytes, no byte differs; 1 time-out, as expected\n' "$total_lines" "$total_bytes"
