# shellcheck shell=bash
# Sourced by the scripts of the live tests in the guest: starts an agent, has processes do things and writes
# down which process did what. Between start_agent and stop_agent it runs nothing but builtins of the
# shell, and opens nothing, so that the agent sees only what the scenes do.
#
# What is left in /out: NAME.events, NAME.printed (standard output: deleted rules), NAME.log, NAME.steps.

readonly kAnswerLimit_s=40
# Events come within milliseconds, those of late writes within a tenth of a second.
readonly kEventLimit_s=15
readonly kQuiet_ms=600

mkfifo /tmp/never
exec {never}<>/tmp/never {nothing}</dev/null {said}>>/out/said

nap() { read -rt "$1" <&"$never" || true; }

# Answers and commands of the agent go through named pipes that this shell keeps open.
connect() {  # NAME
  rm -f "/tmp/$1."{commands,answers}
  mkfifo "/tmp/$1."{commands,answers}
  exec {commands}<>"/tmp/$1.commands" {answers}<>"/tmp/$1.answers" {steps}>"/out/$1.steps"
}

disconnect() { exec {commands}>&- {answers}>&- {steps}>&-; }

hear() {  # sets answer
  answer='no answer'
  read -rt "$kAnswerLimit_s" -u "$answers" answer || true
}

tell() {  # COMMAND... ; sets answer
  echo "$*" >&"$commands"
  hear
}

start_client() {  # NAME CALLBACK... ; sets agent and answer; PREFIX may hold a command to run it with
  scene=$1 agent_kind=client step=0
  connect "$1"
  "${PREFIX[@]}" ./client "${@:2}" <&"$commands" >"/out/$1.printed" 2>"/out/$1.log" 3>&"$answers" \
    4>"/out/$1.events" &
  agent=$!
  hear
}

# Ready when it has logged as many registrations as it has options.
start_watch() {  # NAME OPTION...
  scene=$1 agent_kind=watch step=0 answer='no answer'
  local log limit=$((SECONDS + kAnswerLimit_s))
  connect "$1"
  ./qel-watch --take-over --json "${@:2}" <&"$nothing" >"/out/$1.events" 2>"/out/$1.log" &
  agent=$!
  until [[ $answer == started ]] || ((SECONDS > limit)) || ! kill -0 "$agent"; do
    nap 0.1
    log=$(<"/out/$1.log")
    log=${log//[^#]event callback/#}  # one mark for each registration
    log=${log//[^#]/}
    ((${#log} < $# - 1)) || answer=started
  done
}

start_agent() {  # client|watch NAME WORD...
  "start_$1" "${@:2}"
  echo "agent $answer $$" >&"$steps"
}

count_events() {  # sets events
  local lines words
  if [[ $agent_kind == watch ]]; then
    mapfile -t lines <"/out/$scene.events"
    events=${#lines[@]}
  else
    tell counts
    read -ra words <<<"$answer"
    events=${words[5]-0}
  fi
}

await_events() {  # NUMBER-SO-FAR
  local limit=$((SECONDS + kEventLimit_s))
  count_events
  until ((events >= $1 || SECONDS > limit)); do
    nap 0.1
    count_events
  done
}

# Long enough to show an event too many.
await_quiet() {
  if [[ $agent_kind == watch ]]; then nap "0.$kQuiet_ms"; else tell settle "$kQuiet_ms"; fi
}

# Each step is one process; it says its number and process id before it does anything.
begin_step() { echo "step $step $BASHPID $EPOCHSECONDS" >&"$steps"; }
end_step() {  # STATUS
  echo "end $step $1 $EPOCHSECONDS" >&"$steps"
  step=$((step + 1))
}
run() {  # PROGRAM ARGUMENT...
  (begin_step; exec "$@") <&"$nothing" >&"$said" 2>&1
  end_step $?
}
do_shell() {  # COMMANDS ; for what builtins do
  (begin_step; eval "$1") <&"$nothing" >&"$said" 2>&1
  end_step $?
}

stop_agent() {
  if [[ $agent_kind == watch ]]; then kill -TERM "$agent"; else echo quit >&"$commands"; fi
  wait "$agent"
  echo "stopped $?" >&"$steps"
  disconnect
}
