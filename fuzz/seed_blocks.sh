#!/usr/bin/env bash
# Writes the seed corpora of the control-area, record, name and board fuzz targets from blocks
# and boards that vmsim publishes, so that the fuzzers start from what a real VM lays out.
#   fuzz/seed_blocks.sh build/release/tools/vmsim/vmsim
# Each seed of control_block and vm_records is one selector byte followed by the block (the
# control-area file without its 8-byte lead-in): for control_block bit 0 chooses the cluster type
# (0 process, 1 instance), for vm_records the width (0 32-bit, 1 64-bit).
set -euo pipefail
vmsim=$(realpath "${1:?usage: $0 path/to/vmsim}")
cd "$(dirname "$0")"
mkdir -p corpus/control_block corpus/vm_records corpus/tmp_names corpus/board_file

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

# Starts vmsim with the given arguments and puts its READY line into $ready.
ready=
start() {
  local fifo
  fifo=$(mktemp -u /tmp/nox-seed-XXXXXX)
  mkfifo "$fifo"
  "$vmsim" "$@" >"$fifo" &
  pids+=($!)
  read -r ready <"$fifo"
  rm -f "$fifo"
}

field() { sed -n "s/.* $2=\([^ ]*\).*/\1/p" <<<"$1"; }

seed() {  # name, selector byte (octal), width, then vmsim arguments
  local name=$1 selector=$2 width=$3
  shift 3
  local file
  start --type process --width "$width" --board 256 "$@"
  file=$(field "$ready" file)
  { printf "\\$selector"; tail -c +9 "$file"; } >"corpus/control_block/$name"
  { printf "\\$([ "$width" = 64 ] && echo 1 || echo 0)"; tail -c +9 "$file"; } >"corpus/vm_records/$name"
  local board
  board=$(field "$ready" boards)
  [ -n "$board" ] && [ "$board" != "-" ] && cp "${board%%,*}" "corpus/board_file/$name"
  basename "$file" >"corpus/tmp_names/$name-control"
  echo "$file" >"corpus/tmp_names/$name-control-path"
  [ -n "$board" ] && [ "$board" != "-" ] && echo "${board%%,*}" >"corpus/tmp_names/$name-board"
  return 0
}

seed process64 0 64 --set vm_version=17.0.9 --set jar_main_class=demo.Main --set vm_args=-Xmx64m
seed process32 0 32 --set vm_version=1.4.2 --set jar_main_class=demo.Main --set vm_work_dir=/tmp
seed instance64x3 1 64 --slots 3 --max-vm-nr 3 --set vm_tag=three
seed instance32x2 1 32 --slots 2 --max-vm-nr 2 --fill vm_args=x:4096
seed shortslot64 0 64 --ca-size 1024 --set vm_version=17-short
echo "/tmp/nox_jvm_profiling_server_1000_4711" >corpus/tmp_names/profiling
echo "/tmp/nox_jvm_2147483647_2147483648" >corpus/tmp_names/overflow
ls corpus/control_block corpus/vm_records corpus/board_file corpus/tmp_names | wc -l
