#!/bin/bash
# shellcheck disable=SC2034,SC2295  # most of this is for the scripts that read it; $kinds is a pattern
# The flows that the lab's scripts disturb, and the checks of the device's state after each. Read by
# such a script inside the lab; it says itself what it did: `injected_call` names it, `output_failed`
# is true when it can have cost output, `record_unread` when the record may have been unreadable.
shopt -s extglob

cloud=http://127.0.0.1:8079/v1
private=/usr/kivo/etc/veltrix-account/private
record=$private/user.conf
tokens=$private/login_token.json
job=/etc/cron.d/kivo-zomi
crontab=/etc/crontab
folders=("$private" /usr/kivo/etc/cloudservice /etc/cron.d)
email=anna@example.org
password='correct horse'
work=/var/tmp/torture
workers_folder=$work/worker # where a worker may write, as long as it is not confined
time_limit=20

flows=(query password_login browser_login renewal rescue report logout update)
# The same, started with the effective ids of a service account: what can be done with those.
foreign_flows=(foreign_query foreign_report)
service_account=(setpriv --euid 1026 --egid 100 --clear-groups)
# The same, where not the program but its worker is disturbed: one flow for each kind of request.
worker_flows=(worker_query worker_password_login worker_renewal)
# And where the worker dies as soon as it is to connect.
deserted_flows=(deserted_query deserted_renewal)
kinds='@(foreign|worker|deserted)_'
worker=/usr/kivo/lib/nodelink-http

expired='s/("created_at" *: *)[0-9]+/\11/'
refused='s/("refresh_token" *: *)"[^"]*"/\1"refused"/'

# A new value of its own at every login or query.
volatile=' hs_auth_key last_query_time '

declare -A old_record new_record now_record
declare -A old_file new_file
known_limits=0 findings=0 findings_before=0
case_name='' well_linked='' whole_tokens='' default_job='' server_job='' ends_with_tokens=no

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

control() { curl --silent --show-error --fail "$cloud$1" "${@:2}"; }

# --- The flows: what each one starts from, and the command that it is. ---

forget_everything() {
  rm -rf "${private:?}"/* "$private"/.[!.]* /usr/kivo/etc/cloudservice/* "$job" /tmp/account_*.lock
  printf '# the older schedule\n1 2 * * * root true\n' >"$crontab"
}

log_in() { nodelink-login --password "$email" <<<"$password" >/dev/null || die 'cannot log in'; }

# The first report of a device that was linked by password gets tokens for its auth key.
link() {
  forget_everything
  log_in
  nodelink --report_info || die 'cannot report'
  [[ -s $tokens ]] || die 'the report stored no tokens'
}

# What the case before left, when that ended well, is a linked device too.
stay_linked() { [[ -n $well_linked ]] || link; }

edit_tokens() { # edit_tokens SED_COMMAND
  local before
  before=$(<"$tokens")
  sed -i -E "$1" "$tokens"
  [[ $(<"$tokens") != "$before" ]] || die "the tokens cannot be edited: $1"
}

save_base() {
  tar --create --file "$work/base" --absolute-names "${folders[@]}" "$crontab"
}

restore_base() {
  rm -rf "${private:?}"/* "$private"/.[!.]* /usr/kivo/etc/cloudservice/* "$job" /tmp/account_*.lock
  tar --extract --file "$work/base" --absolute-names
}

# The base is what a flow starts from when running it leaves the server as it was.
make_base() {
  well_linked=''
  case ${1#$kinds} in
    query) link && sed -i -e 's/^last_query_time=.*/last_query_time="0"/' \
      -e 's/^full_name=.*/full_name="Former Name"/' -e 's/^country=.*/country="AT"/' "$record" ;;
    report) link && sed -i 's/^report_cron_timestring=.*/report_cron_timestring="1 2 * * 3"/' "$record" &&
      nodelink --update ;;
    update)
      link
      sed -i 's/^report_cron_timestring=.*/report_cron_timestring="1 2 * * 3"/' "$record"
      echo '5 6 * * 1 root /usr/kivo/bin/nodelink --report_info' >>"$crontab"
      ;;
    *) return 0 ;;
  esac
  save_base
}

prepare() {
  case ${1#$kinds} in
    query | report | update) restore_base ;;
    password_login | browser_login) forget_everything ;;
    renewal) stay_linked && edit_tokens "$expired" ;;
    rescue) stay_linked && edit_tokens "$expired" && edit_tokens "$refused" ;;
    logout) link ;;
    *) die "no flow $1" ;;
  esac
}

flow_command() { # sets `command`
  case ${1#$kinds} in
    query) command=(nodelink --query_account) ;;
    password_login) command=(nodelink-login --password "$email") ;;
    browser_login) command=(nodelink-login --browser) ;;
    renewal | rescue | report) command=(nodelink --report_info) ;;
    logout) command=(nodelink --logout) ;;
    update) command=(nodelink --update) ;;
  esac
  [[ $1 != foreign_* ]] || command=("${service_account[@]}" "${command[@]}")
}

# run_flow FLOW WRAPPER...: leaves the exit status in $status, the text in $work/out and $work/err.
run_flow() {
  local flow=$1 command
  shift
  flow_command "$flow"
  status=0
  if [[ $flow == *browser_login ]]; then
    play_browser "$@" "${command[@]}"
  else
    { "$@" "${command[@]}" <<<"$password" >"$work/out" 2>"$work/err" || status=$?; } 2>/dev/null
  fi
}

# --- The worker of the programs. ---

# A program that takes the worker's place, and starts it itself: COMMAND WORKER.
start_worker_behind() { # start_worker_behind COMMAND...
  if [[ ! -e $worker.real ]]; then mv "$worker" "$worker.real"; fi
  printf '#!/bin/sh\nexec %s %s\n' "${*@Q}" "$worker.real" >"$worker"
  chmod 755 "$worker"
}

start_worker_alone() { if [[ -e $worker.real ]]; then mv "$worker.real" "$worker"; fi; }

# Opens the address that COMMAND prints, signs in, and enters the address it is sent back to.
play_browser() {
  local line address='' pid
  : >"$work/out"
  { coproc LOGIN { "$@" 2>"$work/err"; }; } 2>/dev/null
  pid=$LOGIN_PID
  exec {from}<&"${LOGIN[0]}" {to}>&"${LOGIN[1]}"
  eval "exec ${LOGIN[0]}<&- ${LOGIN[1]}>&-"
  while read -r -t 5 line <&"$from"; do # an injected fault may have eaten the lines
    [[ $line != https://* ]] || address=$line
    [[ $line != Then* ]] || break
  done
  if [[ -n $address ]]; then sign_in "$address" 2>/dev/null 1>&"$to" || true; fi
  exec {to}>&-
  cat <&"$from" >"$work/out"
  exec {from}<&-
  { wait "$pid" || status=$?; } 2>/dev/null
}

sign_in() {
  local address=$1 page fields=() name value
  page=$(curl --silent --fail --cookie-jar "$work/cookies" "$address")
  while IFS=$'\t' read -r name value; do
    fields+=(--data-urlencode "$name=$value")
  done < <(sed -nE 's/.*type="hidden" name="([^"]*)" value="([^"]*)".*/\1\t\2/p' <<<"$page" |
    sed 's/&amp;/\&/g; s/&#39;/'\''/g; s/&quot;/"/g; s/&lt;/</g; s/&gt;/>/g')
  curl --silent --output /dev/null --cookie "$work/cookies" --write-out '%{redirect_url}\n' \
    "${fields[@]}" --data-urlencode "email=$email" --data-urlencode "password=$password" \
    --data choice=sign_in "${address%%\?*}"
}

set_up_cloud() {
  mkdir -p "$work" "$workers_folder"
  chmod 1777 "$workers_folder"
  control /accounts --json '{"email": "'$email'", "password": "'"$password"'",
    "full_name": "Anna Example", "country": "CH", "timezone": "Europe/Zurich",
    "notify_language": "ger", "report_cron_timestring": "30 3 * * 6",
    "critical_version_list": {"7.1": true}}' >/dev/null
}

# Plug-ins make the logins and the logout start processes.
install_plugins() {
  local folder
  for folder in /usr/kivo/lib/plugin/zomi/{login,logout}; do
    mkdir -p "$folder"
    cp /bin/true "$folder/1-true"
  done
}

note_jobs() {
  link
  server_job=$(<"$job")
  forget_everything
  nodelink --update
  default_job=$(<"$job")
}

note_start() {
  findings_before=$findings
  read_record old_record || die 'the record to start from is not whole'
  read_files old_file
}

# What FLOW, undisturbed, has made of its state.
note_end() {
  good_end "$1" || die "$1 does not work: $status $(cat "$work/out" "$work/err")"
  read_record new_record || die "the record after $1 is not whole"
  read_files new_file
  ends_with_tokens=no
  if [[ -e $tokens ]]; then ends_with_tokens=yes; fi
}

# --- The checks. ---

finding() {
  findings=$((findings + 1))
  printf 'FINDING  %s\n         %s\n         at: %s\n' "$case_name" "$1" "$(injected_call)"
}

known_limit() {
  known_limits=$((known_limits + 1))
  printf 'KNOWN    %s\n         %s\n         at: %s\n' "$case_name" "$1" "$(injected_call)"
}

# read_record ARRAY: false when a line is not of the form key="value" or is cut off.
read_record() {
  local -n into=$1
  local text line
  into=()
  [[ -e $record ]] || return 0
  IFS= read -r -d '' text <"$record" || true
  [[ $text == *$'\n' ]] || return 1
  while IFS= read -r line; do
    [[ $line =~ ^([A-Za-z_]+)=\"([^\"]*)\"$ ]] || return 1
    # shellcheck disable=SC2034,SC2004  # an associative array of the caller, by reference
    into[${BASH_REMATCH[1]}]=${BASH_REMATCH[2]}
  done <"$record"
}

read_files() { # read_files ARRAY: the text of the schedule files
  local -n files=$1
  local path
  files=()
  for path in "$job" "$crontab"; do
    # shellcheck disable=SC2034,SC2004  # an associative array of the caller, by reference
    if [[ -e $path ]]; then files[$path]=$(<"$path"); fi
  done
}

# What a flow may leave half done: a rescue that cannot be carried through ends in a logout.
may_vanish() {
  [[ $1 == rescue ]] || ((${#old_record[@]} == 0 || ${#new_record[@]} == 0))
}

check_record() {
  local flow=$1 key
  if ! read_record now_record; then
    finding 'the record is not whole'
  elif [[ ! -e $record ]]; then
    may_vanish "$flow" || finding 'the record is gone'
  else
    for key in "${!now_record[@]}"; do check_value "$key"; done
    for key in "${!old_record[@]}"; do
      [[ -v now_record[$key] || ! -v new_record[$key] ]] || finding "the record has lost $key"
    done
    check_mode "$record" root
  fi
}

check_value() {
  local key=$1 value=${now_record[$1]}
  if [[ $volatile == *" $key "* && -n $value ]]; then return; fi
  if [[ -v old_record[$key] && $value == "${old_record[$key]}" ]]; then return; fi
  if [[ -v new_record[$key] && $value == "${new_record[$key]}" ]]; then return; fi
  finding "the record's $key is neither old nor new: $value"
}

check_mode() { # check_mode PATH GROUP
  local mode
  mode=$(stat -c '%a %U %G' "$1")
  # shellcheck disable=SC2053  # the group is a pattern
  [[ $mode == '600 root '$2 ]] || finding "$1 has mode and owner $mode"
}

# A token file of a shape that was found whole, whatever the tokens, need not be parsed again.
check_tokens() {
  local shape
  [[ -e $tokens ]] || return 0
  shape=$(sed -E 's/: *"[^"\\]+"/: ""/g; s/: *[1-9][0-9]*/: 0/g' "$tokens")
  if [[ $shape != "$whole_tokens" ]]; then
    if jq -e '[.access_token, .id_token, .refresh_token, .created_at] | all' "$tokens" \
      >/dev/null 2>&1; then
      whole_tokens=$shape
    else
      finding 'the token file is not whole'
    fi
  fi
  check_mode "$tokens" '*' # of whatever group the process was left with
}

check_files() {
  local flow=$1 path
  local -A now_file
  read_files now_file
  for path in "$job" "$crontab"; do
    if [[ ! -v now_file[$path] ]]; then
      [[ ! -v old_file[$path] || ! -v new_file[$path] || $flow == rescue && $path == "$job" ]] ||
        finding "$path is gone"
    elif [[ ${now_file[$path]} != "${old_file[$path]-none}" &&
      ${now_file[$path]} != "${new_file[$path]-none}" ]]; then
      is_other_good_job "$flow" "$path" || finding "$path is neither old nor new"
    fi
  done
}

# A record that cannot be read gives the default schedule. A login installs the job before it knows
# the server's schedule, unless an earlier login has stored it. A service account cannot write the
# job, unless its ids could not be put back.
is_other_good_job() {
  local flow=$1 path=$2
  [[ $path == "$job" && -e $job ]] || return 1
  case $flow in
    *_login | foreign_report) [[ $(<"$job") == "$default_job" || $(<"$job") == "$server_job" ]] ;;
    *) [[ $(<"$job") == "$default_job" ]] && record_unread ;;
  esac
}

check_leftovers() {
  local left
  left=$(find "${folders[@]}" /etc -maxdepth 1 -name '.*' ! -name '.*.lock' -type f)
  [[ -z $left ]] || finding "left behind $1: ${left//$'\n'/ }"
}

check_state() {
  check_record "$1"
  check_tokens
  check_files "$1"
  check_locks
  check_processes
}

# One program for all of them; 0 opens for reading, 6 asks for an exclusive lock without waiting.
check_locks() {
  local held
  held=$(perl -e '
    for (@ARGV) { sysopen(my $file, $_, 0) or next; flock($file, 6) or print "$_ " }' \
    "${folders[@]}" "$private"/.*.lock /tmp/account_*.lock)
  [[ -z $held ]] || finding "still locked: $held"
}

check_processes() {
  local path name
  for path in /proc/[0-9]*/comm; do
    { read -r name <"$path"; } 2>/dev/null || continue # it has ended meanwhile
    [[ $name != nodelink* ]] || finding "still running: $name"
  done
}

# The end of a flow that was allowed to end.
check_end() {
  local flow=$1 out err
  out=$(<"$work/out") err=$(<"$work/err")
  if ((status == 124)); then
    finding "no end within $time_limit s"
  elif ((status > 128)) && ((status < 255)); then
    finding "ended by signal $((status - 128)): ${err:0:200}"
  else
    known_end "$flow" "$out" "$err" ||
      finding "unknown end: status $status, printed '${out:0:200}', errors '${err:0:200}'"
  fi
}

known_end() {
  local flow=${1#$kinds} out=$2 err=$3
  if output_failed; then return 0; fi
  case $flow in
    query) ((status == 0)) && [[ -z $err && ($out == '{'*'}' || $out == 'Query account failed') ]] ;;
    renewal | rescue | report) ((status == 0 || status == 255)) && [[ -z $out$err ]] ;;
    logout) ((status == 0)) && [[ -z $err && $out =~ ^("Failed to logout: "|$) ]] ;;
    update) ((status == 0)) && [[ -z $err && $out =~ ^("Failed to update crond: "|$) ]] ;;
    *_login) known_login "$out" "$err" ;;
  esac
}

known_login() {
  local out=$1 err=$2
  if ((status == 0)); then
    [[ -z $err ]] && { [[ $out == *"Logged in as $email" ]] ||
      { [[ $out == *"Logged in" ]] && record_unread; }; }
  else
    local texts='Success|Wrong parameters|Wrong JSON format|Failed to get zomi account'
    texts+='|Failed to send the request|Failed to get the response|System error'
    texts+='|Failed to get the payment config \(url\)|Failed to auth'
    ((status == 1)) && [[ $out != *Logged* && $err =~ ^nodelink-login:\ ($texts)\ \(code\ [0-9]+\)$ ]]
  fi
}

# The flow once more, undisturbed: it must end as if nothing had happened.
check_again() {
  local flow=$1 key
  well_linked=''
  start_worker_alone
  if [[ $flow == rescue && ! -e $record ]]; then return; fi # logged out, for good
  if record_outlived_logout "$flow"; then
    known_limit 'the record outlived the logout'
    rm "$record" # as the operating instructions say
  fi
  run_flow "$flow" timeout --kill-after=5 "$time_limit"
  good_end "$flow" ||
    finding "run again: status $status, $(head -c 200 "$work/out") $(head -c 200 "$work/err")"
  check_state "$flow"
  for key in "${!new_record[@]}"; do
    if [[ $volatile != *" $key "* && ${now_record[$key]-} != "${new_record[$key]}" ]]; then
      finding "run again: the record's $key is '${now_record[$key]-}'"
    fi
  done
  check_ending_files "$flow"
  check_leftovers 'after the flow was run again'
  if ((findings == findings_before)); then well_linked=yes; fi
}

# A known limit: a logout goes on when the record could not be removed (or its plug-ins failed). Then
# the server has forgotten a device that believes it is linked, and refuses every later logout: an
# administrator has to remove the record.
record_outlived_logout() {
  [[ $1 == logout && $case_name != *KILL && -e $record && ! -e $tokens ]]
}

good_end() {
  ((status == 0)) || return 1
  case ${1#$kinds} in
    query) [[ $(<"$work/out") == '{'* ]] ;;
    *_login) [[ $(<"$work/out") == *"Logged in as $email" ]] ;;
    *) [[ ! -s $work/out ]] ;;
  esac
}

check_ending_files() {
  local flow=$1 path
  local -A now_file
  read_files now_file
  for path in "$job" "$crontab"; do
    [[ ${now_file[$path]-none} == "${new_file[$path]-none}" ]] ||
      { [[ $flow == *_login || $flow == foreign_report ]] && is_other_good_job "$flow" "$path"; } ||
      finding "run again: $path is not what the flow makes"
  done
  local has=no
  if [[ -e $tokens ]]; then has=yes; fi
  [[ $has == "$ends_with_tokens" ]] || finding "run again: token file there: $has"
}
