# shellcheck shell=bash disable=SC2034
# Sourced by the scenes, which run in the guest: starts qel-watch as the agent, has processes do things and
# compares what the agent printed with what it had to. While an agent watches, the scenes run nothing but
# builtins and what is to be seen, each in a process of its own.
set -u

readonly kLimit_s=40
# Long enough to show an event too many: those of late writes come within a tenth of a second.
readonly kQuiet_s=0.6
failures=0
prefix=()  # a command to start the agent with

mkfifo /tmp/never
exec {never}<>/tmp/never
nap() { read -rt "$1" <&"$never" || true; }

check() {  # TEXT COMMAND...
  if "${@:2}"; then
    echo "ok    $1"
  else
    echo "FAIL  $1"
    failures=$((failures + 1))
  fi
}
is() { [[ $1 == "$2" ]] || { echo "      \"$1\" is not \"$2\""; return 1; }; }
lacks() {  # PATTERN FILE
  ! grep -aE "$1" "$2"
}
end_scenes() { exit $((failures != 0)); }

# Waits until a file has as many lines, with a text if there is one, as wanted.
await() {  # NUMBER TEXT FILE
  local limit=$((SECONDS + kLimit_s)) lines line found
  while ((SECONDS < limit)); do
    mapfile -t lines <"$3"
    found=${#lines[@]}
    for line in ${2:+"${lines[@]}"}; do [[ $line == *"$2"* ]] || ((--found)); done
    ((found < $1)) || return 0
    nap 0.1
  done
  return 1
}

# Ready when it has logged as many registrations as it has options.
start_agent() {  # NAME OPTION...
  scene=$1 is_behind=''
  : >"$1.expected"
  : >"$1.log"
  "${prefix[@]}" ./qel-watch --take-over --json "${@:2}" </dev/null >"$1.events" 2>"$1.log" &
  agent=$!
  check "$1: the agent starts" await $(($# - 1)) "event callback" "$1.log"
}

# The agent must not start.
refuse_agent() {  # NAME REASON
  "${prefix[@]}" timeout "$kLimit_s" ./qel-watch --take-over --user </dev/null >"$1.events" 2>"$1.log"
  check "$1: the agent is refused" is $? 1
  check "$1: \"$2\" is logged" grep -q "$2" "$1.log"
}

stop_agent() {
  kill -TERM "$agent"
  wait "$agent"
  check "$scene: the agent ends well" is $? 0
  check "$scene: no request failed" lacks 'error audit_rule:' "$scene.log"
}

# One process that does something; its output is of no interest.
run() {
  "$@" </dev/null >/tmp/said 2>&1 &
  pid=$!
  wait "$pid"
}

# The event that the last process must bring: class, process, the rest of the JSON object.
saw() { saw_as root "$@"; }
saw_as() {  # USER CLASS PROCESS REST
  echo "{\"class\":\"$2\",\"user\":\"$1\",\"process\":\"$3\",\"pid\":$pid,\"ppid\":$$,$4}" >>"$scene.expected"
}
saw_account() {  # EVENT NAME GROUP
  echo "{\"class\":\"user\",\"event\":\"$1\",\"username\":\"$2\",\"groupname\":\"$3\"}" >>"$scene.expected"
}
saw_session() {  # EVENT NAME LINE PID ADDRESS [USER PROCESS]
  printf '{"class":"login","event":"%s","username":"%s","logintype":"%s",' "$1" "$2" "$3"
  printf '"ipaddr":"%s","pid":%s,"user":"%s","process":"%s","status":1}\n' "$5" "$4" "${6-}" "${7-}"
} >>"$scene.expected"

# Until the agent has printed as much as is expected, and nothing more for a while. An agent that has failed
# once is not waited for again.
catch_up() {
  local expected
  mapfile -t expected <"$scene.expected"
  [[ -n $is_behind ]] || await "${#expected[@]}" "" "$scene.events" || is_behind=1
  nap "$kQuiet_s"
}

# To be called after stop_agent. Times and what registers hold by chance cannot be known beforehand.
compare() {
  sed -E 's/"time":"[^"]*","epoch":[0-9]*,|,"arg[134]":"[^"]*"|,"arg2":"0x7[^"]*"//g' "$scene.events" \
    >"$scene.seen"
  check "$scene: $(wc -l <"$scene.expected") events, each once" diff -u "$scene.expected" "$scene.seen"
}

# A record of wtmp as utmp(5) has it on x86-64, on standard output. Types: 2 start, 7 login, 8 logout.
login_record() {  # TYPE PID LINE USER [ADDRESS]
  le32 "$1"
  le32 "$2"
  text 32 "$3"
  text 4 "${3: -4}"
  text 32 "$4"
  text 264 ''  # host, exit status, session
  le32 "$EPOCHSECONDS"
  le32 0
  # shellcheck disable=SC2046,SC2059  # four numbers, as bytes
  printf "$(printf '\\x%x' $(tr . ' ' <<<"${5:-0.0.0.0}"))"
  text 32 ''
}
# shellcheck disable=SC2059  # a format of bytes
le32() { printf "$(printf '\\x%x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24)))"; }
text() {  # LENGTH TEXT
  printf '%s' "$2"
  head -c $(($1 - ${#2})) /dev/zero
}
