# shellcheck shell=bash disable=SC2034 # read by those who source it
# What scripts call the device, its account and the cloud. For programs: lab/device.h and lab/flow.h.

control_address=127.0.0.1:8079
cloud=http://$control_address/v1
serial=NL00000001A
email=anna@example.org
password='correct horse'
log=/var/log/messages

private=/usr/kivo/etc/veltrix-account/private
record=$private/user.conf
tokens=$private/login_token.json
api_key=/usr/kivo/etc/cloudservice/api_key
job=/etc/cron.d/kivo-zomi
notices=/usr/kivo/var/notifications.jsonl

control() { curl --silent --show-error --fail "$cloud$1" "${@:2}"; } # control PATH [CURL_ARGUMENT...]

account() { # account [MEMBERS]: the account as the cloud is told it, in JSON
  printf '{"email": "%s", "password": "%s", "full_name": "Anna Example", "country": "CH",
    "timezone": "Europe/Zurich", "notify_language": "ger"%s}' "$email" "$password" "${1:+, $1}"
}

add_account() { control /accounts --output /dev/null --json "$(account "$@")"; }

log_in() { nodelink-login --password "$email" <<<"$password"; }
