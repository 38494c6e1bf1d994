#!/usr/bin/env bash
# Runs the workflow's Slurm profile on the bundled sample against a real
# single-node Slurm that this script starts and stops itself. Everything it
# writes (munge key and socket, slurm.conf, state, spool, logs, ports chosen
# free) lives in one temporary folder: SLURM_CONF and munged's --key-file and
# --socket point there, nothing in /etc is read or written. It refuses to start
# when a slurmctld is already running, and stops its own daemons by process id.
#
# usage: scripts/slurm-test.sh [--install] [--ctest] [kSieve run directory]
#   --install   install slurm-wlm and munge from Debian when missing
#   --ctest     as run by CTest: with CI=true, install when missing and fail on any
#               problem; elsewhere exit 77 (skipped) when Slurm cannot be had here,
#               printing why (the daemon's own error when one fails to start)
# The run directory holds kSieve and its companions (default build/release/bin).
set -euo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"

install=0 ctest=0 bin="build/release/bin"
for arg in "$@"; do
  case "$arg" in
    --install) install=1 ;;
    --ctest) ctest=1 ;;
    -*) echo "usage: $0 [--install] [--ctest] [kSieve run directory]" >&2; exit 2 ;;
    *) bin="$arg" ;;
  esac
done
bin="$(cd "$bin" && pwd)"
in_ci=0
if [ "${CI:-}" = "true" ]; then in_ci=1; fi
if [ "$ctest" = 1 ] && [ "$in_ci" = 1 ]; then install=1; fi

# Cannot test here: in CI that is a failure, elsewhere under CTest a skip.
cannot() {
  echo "slurm-test: $*" >&2
  if [ "$ctest" = 1 ] && [ "$in_ci" = 0 ]; then
    echo "slurm-test: skipped (outside CI)" >&2
    exit 77
  fi
  exit 1
}

if [ "$(id -u)" -ne 0 ]; then cannot "slurmd must run as root to start jobs"; fi
if ! command -v slurmctld >/dev/null || ! command -v munged >/dev/null; then
  if [ "$install" = 0 ]; then cannot "slurm-wlm and munge are not installed (--install installs them)"; fi
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends slurm-wlm munge
fi
if pgrep -x slurmctld >/dev/null; then
  cannot "a slurmctld is already running (pid $(pgrep -x slurmctld | tr '\n' ' ')); not starting another"
fi

tmp="$(mktemp -d /tmp/ksieve-slurm.XXXXXX)"
pids=()
stop_daemons() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$tmp"
}
trap stop_daemons EXIT

free_port() {
  /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

# The daemon's own last words, for a daemon that did not come up.
daemon_error() {
  echo "slurm-test: $1 did not start; it said:" >&2
  tail -n 15 "$tmp/$1.console" "$tmp/$1.log" >&2 2>/dev/null || true
  cannot "$1 failed to start"
}

mkdir -p "$tmp/munge" "$tmp/state" "$tmp/spool" "$tmp/out"
chmod 700 "$tmp/munge"
head -c 1024 /dev/urandom > "$tmp/munge/munge.key"
chmod 400 "$tmp/munge/munge.key"
socket="$tmp/munge/munge.socket"
munged --foreground --force --key-file="$tmp/munge/munge.key" --socket="$socket" \
  --pid-file="$tmp/munge/munged.pid" --log-file="$tmp/munged.log" \
  --seed-file="$tmp/munge/munged.seed" > "$tmp/munged.console" 2>&1 &
pids+=("$!")
for _ in $(seq 50); do [ -S "$socket" ] && break; sleep 0.1; done
[ -S "$socket" ] || daemon_error munged

cpus="$(nproc)"
memory_mb=$(( $(awk '/MemTotal/ {print $2}' /proc/meminfo) / 1024 - 1024 ))
cat > "$tmp/slurm.conf" <<EOF
ClusterName=ksievetest
SlurmctldHost=localhost(127.0.0.1)
SlurmctldPort=$(free_port)
SlurmdPort=$(free_port)
AuthType=auth/munge
AuthInfo=socket=$socket
CredType=cred/munge
SlurmUser=root
SlurmdUser=root
StateSaveLocation=$tmp/state
SlurmdSpoolDir=$tmp/spool
SlurmctldPidFile=$tmp/slurmctld.pid
SlurmdPidFile=$tmp/slurmd.pid
SlurmctldLogFile=$tmp/slurmctld.log
SlurmdLogFile=$tmp/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=none
ReturnToService=2
MailProg=/bin/true
NodeName=ksnode NodeAddr=127.0.0.1 CPUs=$cpus RealMemory=$memory_mb State=UNKNOWN
PartitionName=test Nodes=ksnode Default=YES MaxTime=INFINITE State=UP
EOF
export SLURM_CONF="$tmp/slurm.conf"

slurmctld -D -i > "$tmp/slurmctld.console" 2>&1 &
pids+=("$!")
slurmd -D -N ksnode > "$tmp/slurmd.console" 2>&1 &
pids+=("$!")
ready=0
for _ in $(seq 60); do
  if sinfo -h -n ksnode -o '%T' 2>/dev/null | grep -qE '^(idle|mixed|allocated)'; then ready=1; break; fi
  sleep 1
done
if [ "$ready" = 0 ]; then
  scontrol ping >&2 || daemon_error slurmctld
  daemon_error slurmd
fi
echo "slurm-test: Slurm is up ($(sinfo -h -o '%P %D %c %T'))"

input="$tmp/input"
mkdir -p "$input"
cp data/demo/bsa_demo.mzML "$input/"
status=0
snakemake -s "$root/workflow/Snakefile" --directory "$tmp/out" \
  --profile "$root/workflow/profiles/slurm" --cores 2 --latency-wait 5 \
  --config input="$input" fasta="$root/data/demo/bsa_demo.fasta" out="$tmp/out" \
  ksieve_bin="$bin" > "$tmp/snakemake.log" 2>&1 || status=$?
if [ "$status" -ne 0 ]; then
  tail -n 40 "$tmp/snakemake.log" >&2
  echo "slurm-test: the workflow failed under Slurm (exit $status)" >&2
  exit 1
fi

# The jobs really went through Slurm: one job log each, and the controller saw them.
jobs_run="$(find "$tmp/out/logs/slurm" -name '*.out' | wc -l)"
allocated="$(grep -c 'Allocate JobId' "$tmp/slurmctld.log" || true)"
if [ "$jobs_run" -lt 6 ] || [ "$allocated" -lt 6 ]; then
  echo "slurm-test: expected at least 6 Slurm jobs, saw $jobs_run job logs and $allocated allocations" >&2
  exit 1
fi
if ! diff -u tests/workflow/expected/bsa_demo_summary.tsv "$tmp/out/summary.tsv"; then
  echo "slurm-test: summary.tsv under Slurm differs from the expectation" >&2
  exit 1
fi
echo "slurm-test: passed ($jobs_run Slurm jobs, summary as expected)"
