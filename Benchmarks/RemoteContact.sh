#!/usr/bin/env bash
# Time from `corvex --ssh TARGET new-workspace` to a workspace with a shell, over a loopback
# sshd: on a fresh account (probe + upload + install), and on later contacts, with the
# control master still up (as within ten minutes of the last contact) and without it.
# The floors come from the same run: plain `ssh TARGET true`, and the upload alone.
#
# usage: Benchmarks/RemoteContact.sh [BIN_DIR]   (default build/bench/bin; needs root)
# RUNS=N sets the repetitions (default 5). Results: build/bench/RemoteContact.json.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$(cd "${1:-build/bench/bin}" && pwd)
runs=${RUNS:-5}
out=build/bench
if [ "$(id -u)" != 0 ]; then
  echo "RemoteContact: skipped, it needs root to make a throwaway account" >&2
  exit 0
fi
dist="$bin/../share/corvex/corvexd-dist"
[ -f "$dist/manifest.json" ] || { echo "RemoteContact: no $dist/manifest.json" >&2; exit 1; }
daemon=$(find "$dist" -name corvexd -type f | head -n 1)

dir=$(mktemp -d /tmp/cvxb-XXXXXX)
chmod 755 "$dir"
user=cvxb$$
home=/home/$user
sshd_pid=
useradd -M -d "$home" -s /bin/sh -p '*' "$user"
uid=$(id -u "$user")

end_user_processes() {
  local pid
  for pid in $(ps -u "$user" -o pid= 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
  sleep 0.2
}
close_master() {
  for socket in "$dir"/h/.ssh/cm-*; do
    [ -S "$socket" ] && ssh -F "$dir/ssh_config" -o ControlPath="$socket" -O exit "$user@127.0.0.1" 2>/dev/null || true
  done
}
fresh_account() {
  end_user_processes
  rm -rf "$home" "/tmp/corvexd-bin-$uid" "/tmp/corvexd-$uid"
  mkdir -p "$home"
  chown "$user:" "$home"
}
cleanup() {
  close_master
  end_user_processes
  [ -n "$sshd_pid" ] && kill "$sshd_pid" 2>/dev/null || true
  userdel -f "$user" 2>/dev/null || true
  rm -rf "$home" "/tmp/corvexd-bin-$uid" "/tmp/corvexd-$uid" "$dir"
}
trap cleanup EXIT

ssh-keygen -q -t ed25519 -N '' -f "$dir/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$dir/client_key"
cp "$dir/client_key.pub" "$dir/authorized_keys"
chmod 644 "$dir/authorized_keys"
mkdir -p /run/sshd "$dir/h"
# A port nothing listens on.
while :; do
  port=$((20000 + RANDOM % 40000))
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
done
cat >"$dir/sshd_config" <<CONF
ListenAddress 127.0.0.1
Port $port
HostKey $dir/host_key
PidFile $dir/sshd.pid
AuthorizedKeysFile $dir/authorized_keys
UsePAM no
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
StrictModes no
AllowUsers $user
LogLevel ERROR
CONF
cat >"$dir/ssh_config" <<CONF
Host 127.0.0.1
  Port $port
  IdentityFile $dir/client_key
  IdentitiesOnly yes
  UserKnownHostsFile $dir/known_hosts
  StrictHostKeyChecking no
  LogLevel ERROR
CONF
/usr/sbin/sshd -D -e -f "$dir/sshd_config" 2>"$dir/sshd.log" &
sshd_pid=$!
for _ in $(seq 100); do
  ssh -F "$dir/ssh_config" -o BatchMode=yes "$user@127.0.0.1" true 2>/dev/null && break
  sleep 0.1
done
target="$user@127.0.0.1"

# Milliseconds, with microsecond precision, that the command took.
timed() {
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null 2>"$dir/last.err" || { cat "$dir/last.err" >&2; return 1; }
  end=$(date +%s%N)
  awk -v ns=$((end - start)) 'BEGIN { printf "%.1f\n", ns / 1e6 }'
}
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
corvex() { HOME="$dir/h" CORVEX_SSH_CONFIG="$dir/ssh_config" "$bin/corvex" --ssh "$target" "$@" </dev/null; }

plain=() first=() warm=() cold=() upload=()
for _ in $(seq "$runs"); do
  plain+=("$(timed ssh -F "$dir/ssh_config" -o BatchMode=yes "$target" true)")
  upload+=("$(timed sh -c "ssh -F '$dir/ssh_config' -o BatchMode=yes '$target' 'cat >/dev/null' <'$daemon'")")
  fresh_account
  close_master
  first+=("$(timed corvex new-workspace)")
  warm+=("$(timed corvex new-workspace)")
  close_master
  cold+=("$(timed corvex new-workspace)")
done

m_plain=$(printf '%s\n' "${plain[@]}" | median)
m_upload=$(printf '%s\n' "${upload[@]}" | median)
m_first=$(printf '%s\n' "${first[@]}" | median)
m_warm=$(printf '%s\n' "${warm[@]}" | median)
m_cold=$(printf '%s\n' "${cold[@]}" | median)
size=$(stat -c %s "$daemon")
mkdir -p "$out"
cat >"$out/RemoteContact.json" <<JSON
{
  "runs": $runs,
  "daemon_bytes": $size,
  "median_ms": {
    "plain_ssh_true": $m_plain,
    "upload_alone": $m_upload,
    "first_contact": $m_first,
    "second_contact_master_up": $m_warm,
    "second_contact_master_down": $m_cold
  }
}
JSON
awk -v p="$m_plain" -v u="$m_upload" -v f="$m_first" -v w="$m_warm" -v c="$m_cold" -v s="$size" 'BEGIN {
  printf "plain ssh true            %8.1f ms\n", p
  printf "upload alone (%d bytes) %8.1f ms\n", s, u
  printf "first contact             %8.1f ms  (goal: 2x plain ssh + upload = %.1f ms)\n", f, 2 * p + u
  printf "second, control master up %8.1f ms  (%.2fx plain ssh; goal 2x)\n", w, w / p
  printf "second, no control master %8.1f ms  (%.2fx plain ssh)\n", c, c / p
}'
