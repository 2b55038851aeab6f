#!/bin/bash
# shellcheck disable=SC2034,SC2154  # read by lab/torture.sh, beside lab/flows.sh
# Cuts the power at every moment of a flow, keeps what was made durable, drops the rest, and checks
# that each file of the device's state is then the old or the new one.
#
# A case is "FLOW STATE": what lab/power_loss.cpp could not promise more than at that moment.

replayer=${LAB_POWER_LOSS?}
api_key=/usr/kivo/etc/cloudservice/api_key
states=$work/states
sample_step=12

# Whatever may change a file or a name. What is not listed is not seen, what cannot be replayed is
# refused.
calls=open,openat,openat2,creat,write,writev,pwrite64,pwritev,pwritev2,ftruncate,truncate,fallocate
calls+=,copy_file_range,sendfile,splice,fsync,fdatasync,sync_file_range,rename,renameat,renameat2
calls+=,link,linkat,symlink,symlinkat,unlink,unlinkat,rmdir,mkdir,mkdirat,mknod,mknodat,chmod,fchmod
calls+=,fchmodat,mmap

counters=(faults runs_again not_reached)
faults=0 runs_again=0 not_reached=0 old_key='' new_key=''

injected_call() { cat "$states/$state.at" 2>/dev/null || true; }

record_unread() { false; }

output_failed() { false; }

key_of() { if [[ -e $1 ]]; then cat "$1"; fi; }

# Leaves the states that FLOW passes through in $states.
survey() {
  local flow=$1 lost
  make_base "$flow"
  prepare "$flow"
  note_start
  old_key=$(key_of "$api_key")
  rm -rf "$work/start" "$states"
  mkdir -p "$work/start" "$states"
  tar --create --directory / "${folders[@]#/}" "${crontab#/}" |
    tar --extract --directory "$work/start"
  run_flow "$flow" strace -f -y -s 16777216 -o "$work/trace.all" -e trace="$calls"
  note_end "$flow"
  new_key=$(key_of "$api_key")
  lost=$("$replayer" "$work/trace.all" "$work/start" "$states" "${folders[@]}" /etc) ||
    die "$flow cannot be replayed"
  state=end case_name="$flow end"
  [[ -z $lost ]] || finding "at the end, ${lost//$'\n'/; }"
}

enter_state() {
  local file
  rm -rf "${private:?}"/* "$private"/.[!.]* /usr/kivo/etc/cloudservice/* \
    /usr/kivo/etc/cloudservice/.[!.]* /etc/cron.d/* /etc/cron.d/.[!.]* /etc/.[!.]*.tmp-* "$crontab" \
    /tmp/account_*.lock
  while IFS= read -r -d '' file; do
    cp -p "$states/$1/$file" "/$file"
  done < <(find "$states/$1" -type f -printf '%P\0')
}

check_key() {
  local key
  [[ -e $api_key ]] || { [[ -z $old_key ]] || finding 'the API key is gone' && return; }
  key=$(key_of "$api_key")
  [[ -n $key && ($key == "$old_key" || $key == "$new_key") ]] ||
    finding "the API key is neither old nor new: '$key'"
}

# The states of a recorded flow; some of them once more, to run the flow again from there.
list_cases() {
  (cd "$states" && printf '%s\n' */ | tr -d /) | awk -v flow="$1" -v every="$every" \
    -v share="$share" -v shares="$shares" "$hash_function"'
    { name = flow " " $0 }
    !is_shared(name) { next }
    { print name }
    NR > 1 && is_sampled(name) { again[++count] = name " again" }
    END { for (i = 1; i <= count; i++) print again[i] }'
}

run_case() { # run_case FLOW STATE [again]
  local flow=$1 again=${3-}
  if [[ -n $again ]]; then survey "$flow"; fi
  state=$2
  case_name="$*"
  if [[ ! -d $states/$state ]]; then # the network answered in other pieces this time
    not_reached=$((not_reached + 1))
    return
  fi
  enter_state "$state"
  check_state "$flow"
  check_key
  if [[ -z $again ]]; then
    faults=$((faults + 1))
  else # the server has seen the whole flow
    runs_again=$((runs_again + 1))
    check_again "$flow"
  fi
}

set_up_kind() { true; }
