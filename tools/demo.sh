#!/usr/bin/env bash
# The demo of libnoxjvm_inspector: starts simulated VMs (tools/vmsim) - a process cluster in the
# 32-bit layout and an instance cluster of three VMs in the 64-bit layout - and two real JDK VMs
# (one started with nox-agent.jar, one that gets it through `noxinspect attach`), and shows what
# the command-line inspector tools/noxinspect sees of them and how it asks them to act.
#   tools/demo.sh [BUILD_DIR]     (default build/release; ./run.sh demo builds it first)
set -euo pipefail

root=$(cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")/.." && pwd)
build=$(readlink -f -- "${1:-$root/build/release}")
vmsim=$build/tools/vmsim/vmsim
agent=$build/java/nox-agent.jar
noxinspect=$root/tools/noxinspect
export NOX_BUILD_DIR=$build

if [ ! -x "$vmsim" ]; then
  echo "demo: no vmsim in $build (build first: ./run.sh demo does)" >&2
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/noxdemo.XXXXXX")
sims=()
cleanup() {
  local pid
  for pid in "${sims[@]}"; do
    kill "$pid" 2>/dev/null || true   # SIGTERM: vmsim removes its files, segment and semaphores
  done
  for pid in "${sims[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

heading() { printf '\n\033[1m== %s ==\033[0m\n' "$*"; }
[ -t 1 ] || heading() { printf '\n== %s ==\n' "$*"; }
note() { printf '%s\n' "$*"; }

# Runs the inspector as a user would, showing the command line first.
inspect() {
  printf '$ noxinspect %s\n' "$*"
  "$noxinspect" "$@"
}

# Waits (up to 10 s) until the output file of a vmsim holds a line starting with $2; prints it.
wait_line() {
  local file=$1 prefix=$2 i
  for i in $(seq 100); do
    if grep -q "^$prefix" "$file" 2>/dev/null; then
      grep "^$prefix" "$file" | tail -n 1
      return 0
    fi
    sleep 0.1
  done
  echo "demo: vmsim printed no '$prefix' line:" >&2
  cat "$file" >&2
  return 1
}

# Starts vmsim in the background with its output in $work/$1.out; fails if it reports no READY.
start_vmsim() {
  local name=$1
  shift
  "$vmsim" "$@" >"$work/$name.out" 2>"$work/$name.err" &
  local pid=$!
  sims+=("$pid")
  local i
  for i in $(seq 100); do
    grep -q '^READY' "$work/$name.out" 2>/dev/null && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  return 1
}

# One field of a vmsim READY line: field FILE KEY.
field() { grep '^READY' "$1" | tr ' ' '\n' | sed -n "s/^$2=//p"; }

# Boards are published only by a vmsim that knows --board.
board_opts=()
if "$vmsim" --help 2>&1 | grep -q -- '--board'; then
  board_opts=(--board 4096)
fi

heading "Starting simulated VMs"
start_vmsim process --type process --width 32 \
  --set 'vm_version=17.0.9+9 (32-bit server)' \
  --set jar_main_class=org.example.inventory.Server \
  --set 'vm_args=-Xmx512m -XX:+UseSerialGC' \
  --set 'vm_java_args=org.example.inventory.Server --port 7070' \
  --set committed_java_heap_size=402653184 --set number_of_gcs=17 "${board_opts[@]}" || {
  echo "demo: vmsim (process cluster) did not start:" >&2; cat "$work/process.err" >&2; exit 1; }
proc_pid=$(field "$work/process.out" id)

# An instance cluster needs a System V segment id that nobody else uses right now.
cluster=
for id in 42 43 44 45 46 47 48 49; do
  if start_vmsim instance --type instance --id "$id" --slots 3 --width 64 \
      --set 'vm_version=17.0.9+9 (64-bit server)' \
      --set 0:jar_main_class=com.shop.web.Frontend --set '0:vm_args=-Xmx2g -Dshop.port=8080' \
      --set 0:committed_java_heap_size=1610612736 --set 0:number_of_gcs=112 \
      --set 1:jar_main_class=com.shop.orders.Worker --set '1:vm_args=-Xmx1g -Dqueue=orders' \
      --set 1:committed_java_heap_size=805306368 --set 1:number_of_gcs=40 \
      --set 2:jar_main_class=com.shop.billing.NightlyBatch --set '2:vm_args=-Xmx768m' \
      --set 2:committed_java_heap_size=536870912 --set 2:number_of_gcs=3 \
      --set 0:system_time=1200 --set 0:user_time=5400 "${board_opts[@]}"; then
    cluster=$id
    break
  fi
  unset 'sims[${#sims[@]}-1]'
done
if [ -z "$cluster" ]; then
  echo "demo: no free instance-cluster id among 42-49:" >&2
  cat "$work/instance.err" >&2
  exit 1
fi
IFS=, read -r -a inst_pids <<<"$(field "$work/instance.out" pids)"
note "process cluster (32-bit layout): one VM, pid $proc_pid"
note "instance cluster $cluster (64-bit layout): three VMs, pids ${inst_pids[*]}"

# Real VMs: the JDK that runs the inspector, a small program compiled here.
java=java
if [ -n "${JAVA_HOME:-}" ] && [ -x "$JAVA_HOME/bin/java" ]; then java=$JAVA_HOME/bin/java; fi
real_pid=
plain_pid=
if [ -f "$agent" ] && "${java%java}javac" -d "$work/classes" "$root/tools/demo/OrderService.java" 2>"$work/javac.err"; then
  heading "Starting real JDK VMs"
  "$java" -Xmx256m -XX:+UseSerialGC -javaagent:"$agent"=tag=orders -cp "$work/classes" \
    org.example.orders.OrderService --region eu >"$work/real.out" 2>&1 &
  real_pid=$!
  sims+=("$real_pid")
  "$java" -Xmx128m -cp "$work/classes" org.example.orders.OrderService --region us >"$work/plain.out" 2>&1 &
  plain_pid=$!
  sims+=("$plain_pid")
  note "a JDK VM started with -javaagent:nox-agent.jar: pid $real_pid"
  sleep 1
  note "a JDK VM started without it: pid $plain_pid. The inspector already reads its performance"
  note "data (CLUSTER hotspot), but that takes no requests:"
  inspect list
  note "so the inspector loads the agent into it:"
  inspect attach "$plain_pid"
else
  note "(no nox-agent.jar in $build or no javac: the demo shows simulated VMs only)"
fi
sleep 1   # so that the uptimes below are not all 0s

heading "Every Java VM on this host"
inspect list

heading "One VM in detail"
inspect info "instance:$cluster:0"

if [ -n "$real_pid" ]; then
  heading "A real JDK VM in detail (figures from its MXBeans, refreshed every second)"
  inspect info "$real_pid"
  heading "A stock VM cannot start a debugger later: the request is cleared, nothing changes"
  inspect debug start "$real_pid"
  sleep 0.3
  inspect info "$real_pid" | sed -n '/^Debugging/,$p'
fi

heading "Asking a VM to start debugging"
inspect debug start "${inst_pids[1]}" --suspend 0
note "vmsim: $(wait_line "$work/instance.out" 'REQUEST slot=1')"
inspect list | sed -n "1,2p;/ ${inst_pids[1]} /p"

if [ ${#board_opts[@]} -gt 0 ]; then
  heading "Monitoring boards of the VMs"
  inspect boards
fi

heading "Asking a VM to exit"
inspect exit "instance:$cluster:2" 3
note "vmsim: $(wait_line "$work/instance.out" 'EXITED slot=2')"
note "The VM in slot 2 (pid ${inst_pids[2]}) is gone:"
inspect list

if [ -n "$plain_pid" ]; then
  heading "Asking the real VM that got the agent late to exit"
  inspect exit "$plain_pid" 5
  wait "$plain_pid" && code=0 || code=$?
  if compgen -G "/tmp/nox_jvm_*_$plain_pid" >/dev/null; then
    note "the JDK VM (pid $plain_pid) ended with exit code $code; files left: $(echo /tmp/nox_jvm_*_"$plain_pid")"
  else
    note "the JDK VM (pid $plain_pid) ended with exit code $code and removed its control area and socket"
  fi
fi

heading "The same in JSON, for scripts"
inspect exit "$proc_pid" 0 --json
wait "$proc_pid" && code=0 || code=$?
note "the process cluster (pid $proc_pid) ended with exit code $code"

heading "Errors are messages and exit codes, not stack traces"
code=0
inspect info "$proc_pid" 2>&1 || code=$?
note "(exit code $code)"
code=0
inspect info "instance:$cluster:7" 2>&1 || code=$?
note "(exit code $code)"
code=0
printf '$ noxinspect exit %s\n' "${inst_pids[0]}"
out=$("$noxinspect" exit "${inst_pids[0]}" 2>&1) || code=$?
printf '%s\n' "$out" | head -n 2
note "   ... (the usage text follows; exit code $code)"

heading "Cleaning up"
note "the remaining simulated VMs end now and remove their segment, semaphores and files"
