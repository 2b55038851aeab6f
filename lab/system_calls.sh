#!/bin/bash
# shellcheck disable=SC2034,SC2154  # read by lab/torture.sh, beside lab/flows.sh
# Fails and kills the programs at one system call after another.
#
# A case is "FLOW SYSCALL N ERRNO": in FLOW, the Nth SYSCALL of each process and thread fails with
# ERRNO, or kills it when ERRNO is KILL. Of execve, N is the program that cannot be executed.
#
# A flow whose name begins with foreign_ is started with the effective ids of a service account; in
# one that begins with worker_ it is the worker that is disturbed, in one with deserted_ the program
# that has lost it.

sample_step=45

# What each call fails with. EINTR stands where a caller has to cope with it. Calls that cannot fail
# on what they are given here, such as the fcntl of an open descriptor, are not among them.
declare -A errnos=(
  [openat]='EACCES EMFILE' [read]='EIO EINTR' [write]='ENOSPC EIO EINTR' [fsync]=EIO [close]=EIO
  [pread64]=EIO [newfstatat]=EIO [getdents64]=EIO [getrandom]=ENOSYS
  [rename]='EIO ENOSPC' [renameat]='ENOSPC EIO' [renameat2]='ENOSPC EIO'
  [unlink]='EACCES EIO' [unlinkat]='EACCES EIO'
  [mkdir]=EACCES [mkdirat]=EACCES [umask]=''
  [chmod]=EACCES [fchmod]=EACCES [fchmodat]=EACCES [chown]=EACCES [fchown]=EACCES [fchownat]=EACCES
  [setresuid]=EPERM [setresgid]=EPERM [flock]='EINTR ENOLCK'
  [socket]='EMFILE EACCES' [socketpair]=EMFILE [connect]='ECONNREFUSED EINTR'
  [sendto]='ECONNRESET EINTR' [sendmsg]=ECONNRESET [recvfrom]='ECONNRESET EINTR'
  [recvmsg]=ECONNRESET [poll]='EINTR ENOMEM' [pipe2]=EMFILE [setsockopt]=ENOBUFS
  [getsockopt]=ENOBUFS [getsockname]=ENOBUFS [getpeername]=ENOTCONN
  [clone]=EAGAIN [clone3]=EAGAIN [fork]=EAGAIN [vfork]=EAGAIN [execve]='EACCES ENOMEM'
  [setpgid]=EPERM [close_range]=ENOSYS [wait4]='EINTR ECHILD'
  [setgroups]=EPERM [capset]=EPERM [chdir]=EACCES [dup2]=EBADF [prctl]=EPERM [prlimit64]=EPERM
  [landlock_create_ruleset]='ENOSYS EPERM' [landlock_add_rule]=EINVAL
  [landlock_restrict_self]=EPERM [seccomp]='ENOSYS EPERM' [pidfd_open]='ENOSYS EMFILE')
killing=' write fsync rename renameat renameat2 unlink unlinkat chmod fchmod chown'
killing+=' setresuid setresgid sendto recvfrom '
# What the worker does with its files, with the network and with its channel.
workers_killing=' prctl openat socket connect read write sendto recvfrom poll close '
# What matters when the effective ids change around each access.
foreign=' setresuid setresgid renameat write fsync chmod chown '

counters=(faults kills rescues not_reached)
faults=0 kills=0 rescues=0 not_reached=0

injected_call() {
  local call
  call=$(grep -m1 -E 'INJECTED|= \?$' "$work/trace.case" 2>/dev/null) || call='(unknown)'
  printf '%.160s' "$call"
}

record_unread() { grep -qE 'user\.conf.*INJECTED' "$work/trace.case"; }

# The umask and the effective ids of each process when it ended, against those that it was started
# with, or that it had when one of its calls to change them failed: from then on it keeps those.
check_identity() {
  local changed
  changed=$(awk '
    { pid = $1; call = $2; id = substr(call, 7, 1) }
    call ~ /^umask\(/ { if (!(pid in first_mask)) first_mask[pid] = $NF + 0
                       mask[pid] = substr(call, 7) + 0 }
    call ~ /^setres[ug]id\(0,/ { start[pid, id] = now[pid, id] = $3 + 0 }
    call ~ /^setres[ug]id\(-1,/ && !/INJECTED/ { now[pid, id] = $3 + 0 }
    call ~ /^setres[ug]id\(-1,/ && /INJECTED/ {
      start[pid, "u"] = now[pid, "u"]; start[pid, "g"] = now[pid, "g"] }
    END {
      for (pid in mask)
        if (mask[pid] != first_mask[pid]) print "umask", mask[pid], "instead of", first_mask[pid]
      for (i in now) if (now[i] != start[i]) print "effective id", now[i], "instead of", start[i]
    }' "$work/trace.case")
  [[ -z $changed ]] || finding "not restored: $changed"
}

output_failed() { grep -qE '^[0-9]+ +write\([12]<.*INJECTED' "$work/trace.case"; }

# The server had given new tokens for the old refresh token when the program was killed, so that
# token is used up: the next run must have used the auth key.
check_rescue() {
  grep -qE 'login_token\.json.*= \?$' "$work/trace.case" || return 0
  rescues=$((rescues + 1))
  (($(rescue_log_lines) > rescue_lines)) ||
    finding 'the lost tokens were not rescued by the auth key'
}

rescue_log_lines() { grep -c 'Rescue hos renew pkce token by authkey' /var/log/messages || true; }

# --- The cases. ---

list_of_calls() {
  local IFS=,
  echo "${!errnos[*]}"
}

# Numbers the calls of a traced run, from the program's own first one: the loader's are not its own,
# nor are those that load a system library later. A call of another thread or process can only be
# reached beyond the loader's number. Of the programs that it runs only removals count. A close that
# fails has closed all the same, yet strace leaves it out: that would keep the lock on a folder or
# on a lock of root's, so those are not taken. Crypto libraries end a process that is denied randomness: only the names of
# temporary files have to do without.
number_calls() {
  awk '
    { pid = $1; line = $0; sub(/^[0-9]+ +/, "", line) }
    line !~ /^[a-z_0-9]+\(/ { next }
    { call = line; sub(/\(.*/, "", call); count[pid, call]++ }
    NR == 1 { main = pid }
    line ~ /^execve\("[^"]*\/nodelink/ { running = 1 }
    call == "execve" && pid != main && !executed[pid] {
      split(line, part, "\""); print call, part[2] }
    call == "execve" { executed[pid] = 1; next }
    pid == main && running && !started &&
      (line ~ /kivo|\/tmp\/account_|^read\(0/ || call == "socket" || call == "prctl") {
      started = 1
      for (i in count) { split(i, part, SUBSEP); if (part[1] == main) loader[part[2]] = count[i] }
      loader[call]--
    }
    !started { next }
    pid != main && executed[pid] && call !~ /^unlink/ { next }
    count[pid, call] <= loader[call] { next }
    line ~ /[<"]\/(usr\/)?lib\/[^>"]*\.so|\/ld\.so\./ { next }
    call == "close" && line ~ /<[^>]*\/(private|cloudservice|cron\.d|etc|var|\.[a-z]+\.lock)>/ { next }
    call == "close" && line !~ /\/usr\/kivo|\/tmp\/account_|\/etc\/cron|socket:/ { next }
    call == "getrandom" && line !~ /, 8, 0\)/ { next }
    call == "newfstatat" && line !~ /\/usr\/kivo|\/tmp\/account_|\/etc\/cron/ { next }
    !seen[call, count[pid, call]]++ { print call, count[pid, call] }
  ' "$work/trace.all" | sort -k1,1 -k2,2n
}

# Runs FLOW undisturbed, for what it makes of its state and for the calls it makes on the way.
survey() {
  local flow=$1
  make_base "$flow"
  prepare "$flow"
  note_start
  run_traced "$flow" "$work/trace.all" -e trace="execve,$(list_of_calls)"
  note_end "$flow"
  if [[ $flow == deserted_* ]]; then survey_deserted "$flow"; fi
}

survey_deserted() {
  prepare "$1"
  desert
  run_traced "$1" "$work/trace.all" -e trace="execve,$(list_of_calls)"
  start_worker_alone
}

# The worker dies when it is to connect.
desert() { start_worker_behind strace -f -o /dev/null -e 'inject=connect:signal=KILL'; }

# Runs FLOW with strace's OPTIONs for whichever of its programs is disturbed; what they do goes to
# TRACE.
run_traced() { # run_traced FLOW TRACE OPTION...
  local flow=$1 trace=$2
  shift 2
  if [[ $flow == worker_* ]]; then
    rm -f "$workers_folder/trace" "$trace"
    start_worker_behind strace -f -y -o "$workers_folder/trace" "$@"
    run_flow "$flow" timeout --kill-after=5 "$time_limit"
    start_worker_alone
    cp "$workers_folder/trace" "$trace" || finding 'no worker was started'
  else
    run_flow "$flow" timeout --kill-after=5 "$time_limit" strace -f -y -o "$trace" "$@"
  fi
}

# The cases of FLOW in this share: the first of each call, and every so many of all.
list_cases() {
  local flow=$1 calls call n errno deadly=$killing
  calls=$(number_calls)
  if [[ $flow == worker_* ]]; then deadly=$workers_killing; fi
  {
    while read -r call n; do
      [[ $flow != foreign_* || $foreign == *" $call "* ]] || continue
      for errno in ${errnos[$call]}; do echo "$flow $call $n $errno"; done
    done <<<"$calls"
    while read -r call n; do
      [[ $deadly != *" $call "* || $flow == foreign_* && $foreign != *" $call "* ]] ||
        echo "$flow $call $n KILL"
    done <<<"$calls"
    answered_renewal "$flow"
  } | awk -v every="$every" -v share="$share" -v shares="$shares" "$hash_function"'
    { group = $2 ($4 == "KILL")
      if ((group != last_group || is_sampled($0)) && is_shared($0) && !seen[$0]++) print
      last_group = group }'
}

# The kill between the answer to a renewal and the storing of its tokens is in every sample.
answered_renewal() {
  [[ $1 == renewal ]] || return 0
  awk '{ sub(/^[0-9]+ +/, "") }
    /^renameat\(/ && ++n && /login_token/ { print "renewal renameat", n, "KILL"; exit }' \
    "$work/trace.all"
}

run_case() { # run_case FLOW SYSCALL N ERRNO
  local flow=$1 call=$2 n=$3 errno=$4 how rescue_lines
  case_name="$*"
  how_to_inject
  prepare "$flow"
  note_start
  rescue_lines=$(rescue_log_lines)
  if [[ $flow == deserted_* ]]; then desert; fi
  run_traced "$flow" "$work/trace.case" "${how[@]}"
  count_case "$errno"
  if [[ $errno != KILL || $flow == worker_* ]]; then
    check_end "$flow"
    check_leftovers 'after the fault'
    check_identity
  elif ((status == 124)); then
    finding "no end within $time_limit s"
  fi
  check_state "$flow"
  check_again "$flow"
  [[ $flow != renewal || $errno != KILL ]] || check_rescue
}

how_to_inject() { # sets `how`
  local traced=$call,umask,setresuid,setresgid
  if [[ $call == execve ]]; then # the path chooses among the programs
    how=(--trace-path="$n" '--quiet=attach,path-resolution' -e "inject=$call:error=$errno:when=1"
      -e trace="$call")
  elif [[ $errno == KILL ]]; then # a signal is lost at the stop that the filter makes
    how=(-e "inject=$call:signal=KILL:when=$n" -e trace="$call")
  else
    how=(--seccomp-bpf -e "inject=$call:error=$errno:when=$n" -e trace="$traced")
  fi
}

count_case() {
  if ! grep -qE 'INJECTED|killed by SIGKILL' "$work/trace.case"; then
    not_reached=$((not_reached + 1)) # the network answered in other pieces this time
  elif [[ $1 == KILL ]]; then
    kills=$((kills + 1))
  else
    faults=$((faults + 1))
  fi
}

set_up_kind() {
  flows+=("${worker_flows[@]}" "${deserted_flows[@]}")
  if "${service_account[@]}" true 2>/dev/null; then
    flows+=("${foreign_flows[@]}")
  else
    echo 'No other users in the lab of an ordinary user: no flows of a service account.'
  fi
}
