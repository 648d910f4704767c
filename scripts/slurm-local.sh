#!/usr/bin/env bash
# A one-node Slurm cluster on this machine, for trying farm rendering and
# for the tests: munged, slurmctld and slurmd with their configuration and
# state under one folder, no system service involved.
#
#   scripts/slurm-local.sh start [DIR]   start it (DIR: default /tmp/drux-slurm)
#   scripts/slurm-local.sh stop [DIR]    stop it and remove DIR
#   scripts/slurm-local.sh env [DIR]     print the export line for clients
#
# Clients (sbatch, squeue, scancel, druxrender --submit) find the cluster
# through SLURM_CONF: `eval "$(scripts/slurm-local.sh env)"`.  Runs as root
# (SlurmUser=root), as on the CI machine; accounting is off, so sacct has
# nothing to say: job state comes from squeue.  DRUX_SLURM_PORT (default
# 16817) is slurmctld's port, slurmd takes the next one: a second cluster
# (the tests' own) needs other ports.
set -euo pipefail
cmd=${1:-}
dir=${2:-/tmp/drux-slurm}
port=${DRUX_SLURM_PORT:-16817}

die() { echo "slurm-local.sh: $*" >&2; exit 1; }

stop() {
  for name in slurmd slurmctld munged; do
    if [ -f "$dir/$name.pid" ]; then
      kill "$(cat "$dir/$name.pid")" 2>/dev/null || true
    fi
  done
  sleep 1
  for name in slurmd slurmctld munged; do
    if [ -f "$dir/$name.pid" ]; then
      kill -9 "$(cat "$dir/$name.pid")" 2>/dev/null || true
    fi
  done
  rm -rf "$dir"
}

start() {
  for tool in munged mungekey slurmctld slurmd sbatch squeue scontrol; do
    command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || die "$tool is missing: run scripts/setup.sh (installs slurmctld, slurmd, slurm-client and munge)"
  done
  [ "$(id -u)" -eq 0 ] || die "run as root: the local cluster runs its jobs as root (SlurmUser=root)"
  [ -e "$dir" ] && stop
  mkdir -p "$dir"/{munge,state,spool,log}
  chmod 700 "$dir/munge"
  local host cpus mem
  host=$(hostname -s)
  cpus=$(nproc)
  mem=$(awk '/MemTotal/ {print int($2 / 1024 * 0.8)}' /proc/meminfo)

  # munge: a fresh key, a private socket
  /usr/sbin/mungekey --create --keyfile="$dir/munge/munge.key" --force >/dev/null 2>&1 ||
    dd if=/dev/urandom of="$dir/munge/munge.key" bs=1024 count=1 2>/dev/null
  chmod 400 "$dir/munge/munge.key"
  /usr/sbin/munged --force --key-file="$dir/munge/munge.key" --socket="$dir/munge/munge.socket" \
    --pid-file="$dir/munged.pid" --log-file="$dir/log/munged.log" --seed-file="$dir/munge/seed" ||
    die "munged did not start: see $dir/log/munged.log"

  cat >"$dir/slurm.conf" <<CONF
ClusterName=drux-local
SlurmctldHost=$host
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$dir/munge/munge.socket
CredType=cred/munge
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/log/slurmctld.log
SlurmdLogFile=$dir/log/slurmd.log
SlurmctldPort=$port
SlurmdPort=$((port + 1))
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SchedulerType=sched/backfill
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
MpiDefault=none
JobCompType=jobcomp/none
AccountingStorageType=accounting_storage/none
JobAcctGatherType=jobacct_gather/none
MinJobAge=300
NodeName=$host CPUs=$cpus RealMemory=$mem State=UNKNOWN
PartitionName=local Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
  export SLURM_CONF="$dir/slurm.conf"
  /usr/sbin/slurmctld -f "$SLURM_CONF" || die "slurmctld did not start: see $dir/log/slurmctld.log"
  /usr/sbin/slurmd -f "$SLURM_CONF" || die "slurmd did not start: see $dir/log/slurmd.log"
  for _ in $(seq 1 60); do
    if sinfo -h -o '%T' 2>/dev/null | grep -Eq '^(idle|mixed|allocated)'; then
      echo "export SLURM_CONF=$dir/slurm.conf"
      return 0
    fi
    sleep 1
  done
  die "the node did not come up within 60 s: see $dir/log/slurmctld.log and $dir/log/slurmd.log"
}

case "$cmd" in
  start) start ;;
  stop) stop ;;
  env) echo "export SLURM_CONF=$dir/slurm.conf" ;;
  *) die "usage: slurm-local.sh start|stop|env [DIR]" ;;
esac
