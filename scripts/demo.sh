#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# A minute with the library: builds tov-agent, tov-msg and tov-trace, starts the agent on a fresh
# datastore, plays one management session against it with tov-msg send (each request and its
# response printed), shows what the agent wrote into its "ME" trace ring, and stops the agent.
#   scripts/demo.sh
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

deps_log=$(mktemp)
scripts/install-deps.sh >"$deps_log" 2>&1 || { cat "$deps_log"; rm -f "$deps_log"; exit 1; }
rm -f "$deps_log"
build=${TOV_DEMO_BUILD:-build/demo}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOV_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"${TOV_JOBS:-2}" --target tov-agent tov-msg tov-trace >/dev/null

work=$(mktemp -d)
export TOV_TRACE_DIR="$work/rings" # the agent's trace rings, fresh for this run
socket="$work/agent.sock"
agent_pid=
cleanup() {
    [ -z "$agent_pid" ] || kill "$agent_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

"$build/examples/agent/tov-agent" --socket "$socket" --datastore "$work/data" --log-level debug \
    2>"$work/agent.log" &
agent_pid=$!
for _ in $(seq 50); do [ -S "$socket" ] && break; sleep 0.1; done

step=0
# send TITLE EXPECTED-EXIT: the request comes on standard input, in text format
send() {
    step=$((step + 1))
    local request rc=0
    request=$(cat)
    printf '\n=== %d. %s\n--- request\n%s\n--- response\n' "$step" "$1" "$request"
    printf '%s\n' "$request" | "$build/tools/tov-msg" send --socket "$socket" >"$work/response" || rc=$?
    cat "$work/response"
    if [ "$rc" != "$2" ]; then
        echo "demo: tov-msg send exited with $rc, expected $2" >&2
        exit 1
    fi
}

# number_3: 1 keeps the session when tov-msg's connection closes after each request.
send "start-session" 0 <<'EOF'
operation: 11
message_id: "1"
start_session { number_3: 1 }
EOF
sid=$(awk '$1 == "code:" { print $2 }' "$work/response")

send "lock candidate" 0 <<EOF
operation: 3
session_id: $sid
message_id: "2"
lock { target { name: "candidate" } }
EOF

edit() {
    cat <<EOF
operation: 1
session_id: $sid
message_id: "$1"
edit_config {
  target { name: "candidate" }
  config {
    name: "config"
    children {
      name: "interfaces"
      qualifier: "urn:ietf:params:xml:ns:yang:ietf-interfaces"
      children {
        name: "interface"
        operation: 2  # create
        attributes { name: "key" value: "name" }
        children { name: "name" value: "eth0" }
        children { name: "mtu" value: "1500" }
      }
    }
  }
}
EOF
}
send "edit-config: create interface eth0" 0 < <(edit 3)

send "get-config candidate" 0 <<EOF
operation: 0
session_id: $sid
message_id: "4"
get_config { source { name: "candidate" } }
EOF

send "edit-config: create eth0 again (fails: data-exists)" 1 < <(edit 5)

send "commit" 0 <<EOF
operation: 5
session_id: $sid
message_id: "6"
EOF

send "get (running and the agent's state)" 0 <<EOF
operation: 10
session_id: $sid
message_id: "7"
EOF

# component 1 (all), level 1 (error): the agent's debug lines stop reaching standard error
send "logging-set" 0 <<EOF
operation: 13
session_id: $sid
message_id: "8"
logging_set { value_1: 1 value_2: 1 }
EOF

send "unlock candidate" 0 <<EOF
operation: 4
session_id: $sid
message_id: "9"
unlock { target { name: "candidate" } }
EOF

send "stop-session" 0 <<EOF
operation: 12
session_id: $sid
message_id: "10"
EOF

printf '\n=== the agent'"'"'s "ME" trace ring (tov-trace show tov-agent-tov/me.trace)\n'
"$build/tools/tov-trace" show --no-time tov-agent-tov/me.trace

printf '\n=== the agent'"'"'s standard error (debug lines until logging-set)\n'
kill -TERM "$agent_pid"
wait "$agent_pid"
agent_pid=
cat "$work/agent.log"
printf '\ndemo: done\n'
