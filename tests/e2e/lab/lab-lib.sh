# Helpers of the lab test and the lab benchmark (sourced after trixie-lab.sh, with DESK, SRC, HERE
# and TESTDATA set): one desktop session, Dictora installations in fresh homes, targets, keys, dialogs.
APPID=com.dictora.Dictora
WORDS="please send the invoice to harbour road"
EXPECT="Please send the invoice to harbour road"
LAB_LOGS=$(mktemp -d /tmp/lab-test-$DESK.XXXXXX)
FAILED=(); CASE=
trap 'lab_stop >/dev/null 2>&1; exit 130' INT TERM

say() { echo "[$DESK $(date +%T)] $*"; }
pass() { say "PASS $CASE"; }
FAILS=0 # every failure, retried ones too: names its screenshot and log copy
fail() { say "FAIL $CASE: $*"; FAILED+=("$CASE"); FAILS=$((FAILS + 1)); screen_shot; show_logs; return 1; }
# GNOME's screen at a failure, into the logs
screen_shot() {
  [ "$DESK" = gnome ] || return 0
  local f=/tmp/lab-fail-$FAILS.png
  lab_gnome_shot "$f" >/dev/null 2>&1 && mv "$TRIXIE$f" "$LAB_LOGS/" && echo "   -- screen: $LAB_LOGS/${f#/tmp/}"
}
begin() { CASE=$1; say "---- $CASE"; }
show_logs() {
  cp "$DLOG" "$LAB_LOGS/runtime-$FAILS.log" 2>/dev/null
  echo "   -- runtime.log (last 25 lines; whole: $LAB_LOGS/runtime-$FAILS.log):"; tail -25 "$DLOG" 2>/dev/null | sed 's/^/   /'
  [ "$DESK" = gnome ] && { echo "   -- GNOME's global shortcuts:"; lab_run dconf dump /org/gnome/settings-daemon/global-shortcuts/ 2>&1 | sed 's/^/   /'; }
  echo "   -- portal (last 10 lines):"; grep -v '^$' "$LAB_LOGS/xdg-desktop-portal.log" 2>/dev/null | tail -10 | sed 's/^/   /'
}

# lab_prepare BUILD_DIR: the session, accessibility on, Dictora and its desktop file installed, a microphone
lab_prepare() {
  # A run that was killed (a timeout) left its session: end it first.
  local logs=$LAB_LOGS
  if [ -f "/run/trixie-lab/t-lab-$DESK.state" ]; then lab_attach "t-lab-$DESK" && lab_stop >/dev/null 2>&1; LAB_LOGS=$logs; fi
  lab_mount >/dev/null && lab_install_tools && LAB_FRESH=1 lab_session "$DESK" "t-lab-$DESK" 2>/dev/null ||
    { echo "the $DESK session did not start; logs in $LAB_LOGS"; return 1; }
  mkdir -p "$TRIXIE/usr/local/lib/dictora-lab"; cp "$HERE/atspi.py" "$TRIXIE/usr/local/lib/dictora-lab/"
  atspi enable >/dev/null
  # A Dictora left running by an earlier run keeps its old file; ours takes a new one.
  rm -f "$TRIXIE"/opt/dictora/bin/*
  lab_install_dictora "$1" >/dev/null || { echo "cannot install $1 into the chroot"; lab_stop; return 1; }
  local f; for f in "$SRC"/data/*.desktop; do cp "$f" "$TRIXIE/usr/local/share/applications/"; done
  # As the package has it: "dictora" on PATH, which the desktop file runs.
  ln -sf /opt/dictora/bin/dictora-scripted "$TRIXIE/usr/local/bin/dictora"
  lab_pulse
  sox "$TESTDATA/speech/jfk.wav" "$LAB_LOGS/speech.wav" trim 0 1.5 2>/dev/null || cp "$TESTDATA/speech/jfk.wav" "$LAB_LOGS/speech.wav"
  lab_layout us
  # GNOME starts in the overview, whose search takes every key and whose grab holds the shortcuts back.
  [ "$DESK" = gnome ] && key key:1 sleep:0.5
  return 0
}
key() { if [ "$DESK" = gnome ]; then lab_gnome_input "$@"; else lab_kde_input "$@"; fi >/dev/null 2>&1; }
atspi() { lab_run python3 /usr/local/lib/dictora-lab/atspi.py "$@" 2>&1; }
# The portal's dialogs: any application but Dictora (the portal back-end, or the shell).
DIALOG_APP="!dictora"

# --- one Dictora installation and its run -------------------------------------------------------------
DHOME=; DLOG=; DPID=
# fresh_home NAME: an empty home for a new user (config, data, the empty-weight model in place)
fresh_home() {
  DHOME=$LAB_HOME/$1; DLOG=$TRIXIE$DHOME/.local/share/Dictora/runtime.log
  rm -rf "${TRIXIE:?}$DHOME"
  install -d -o "$LAB_UID" -g "$LAB_UID" "$TRIXIE$DHOME" "$TRIXIE$DHOME/.local" "$TRIXIE$DHOME/.local/share" \
    "$TRIXIE$DHOME/.local/share/Dictora" "$TRIXIE$DHOME/.local/share/Dictora/Models"
  cp "$TESTDATA/models/for-tests-ggml-tiny.en.bin" "$TRIXIE$DHOME/.local/share/Dictora/Models/"
  # Nothing listens on the discard port: the model is there, nothing is downloaded.
  printf '{"fileName":"for-tests-ggml-tiny.en.bin","bytes":586836,"sha256":"%s","url":"http://127.0.0.1:9/x"}\n' \
    dd6b7796204a1cdf7164666423034e6e1a7a3e9f5c22327b4b7974c4584bd82d >"$TRIXIE$DHOME/contract.json"
  printf '{"fileName":"ggml-silero-v6.2.0.bin","bytes":885098,"sha256":"%s","url":"http://127.0.0.1:9/vad"}\n' \
    2aa269b785eeb53a82983a20501ddf7c1d9c48e33ab63a41391ac6c9f7fb6987 >"$TRIXIE$DHOME/vad-contract.json"
  # Dictora's own files are fresh; the desktop's settings (GNOME's dconf, KDE's layouts) are the
  # session's, as in a real home.
  install -d -o "$LAB_UID" -g "$LAB_UID" "$TRIXIE$DHOME/.config" "$TRIXIE$LAB_HOME/.config/dconf"
  ln -s "$LAB_HOME/.config/dconf" "$TRIXIE$DHOME/.config/dconf"
  ln -s "$LAB_HOME/.config/kxkbrc" "$TRIXIE$DHOME/.config/kxkbrc"
  chown -R -h "$LAB_UID:$LAB_UID" "$TRIXIE$DHOME"
}
# start_dictora [VAR=VALUE...]: the installed build in the current home, with these in its environment
start_dictora() {
  local before; before=$(count 'app started')
  LAB_EXTRA=(HOME="$DHOME" DICTORA_MODEL_CONTRACT="$DHOME/contract.json" DICTORA_VAD_CONTRACT="$DHOME/vad-contract.json"
    DICTORA_SCRIPTED_TRANSCRIPT="$WORDS"
    QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 "$@")
  lab_spawn "$LAB_LOGS/dictora.out" /opt/dictora/bin/dictora-scripted
  DPID=$LAB_LAST_PID; LAB_EXTRA=()
  wait_line 'app started' $((before + 1)) 30 || { fail "no 'app started' in runtime.log"; return 1; }
}
stop_dictora() {
  [ -n "$DPID" ] || return 0
  kill "$DPID" 2>/dev/null
  local i; for i in $(seq 50); do kill -0 "$DPID" 2>/dev/null || break; sleep 0.2; done
  kill -9 "$DPID" 2>/dev/null; DPID=
  kill_tagged dictora-scripte; sleep 0.5
}
count() { local n; n=$(grep -c -- "$1" "$DLOG" 2>/dev/null); echo "${n:-0}"; }
# wait_line TEXT N SECONDS: until N lines of runtime.log contain TEXT
wait_line() {
  local i; for i in $(seq $(($3 * 5))); do [ "$(count "$1")" -ge "$2" ] && return 0; sleep 0.2; done; return 1
}

# --- targets -------------------------------------------------------------------------------------------
TARGET=
# foot_target NAME: a terminal whose input ends up in /tmp/NAME.txt; it takes the focus
foot_target() {
  TARGET=$TRIXIE/tmp/$1.txt; rm -f "$TARGET"
  lab_spawn "$LAB_LOGS/$1.log" foot --app-id="$1" sh -c "stty -icanon; cat > /tmp/$1.txt"
  local i; for i in $(seq 50); do [ -e "$TARGET" ] && break; sleep 0.2; done; sleep 1
  focus_target
}
# GNOME does not focus a window started without an activation token while another has focus: a click
# into it (new windows open at the centre), as a user would.
focus_target() { [ "$DESK" = gnome ] && { key click:640,380; sleep 0.5; }; return 0; }
# editor_target NAME: l3afpad on /tmp/NAME.txt; read back by saving (Ctrl+S)
editor_target() {
  TARGET=$TRIXIE/tmp/$1.txt; : >"$TARGET"; chown "$LAB_UID" "$TARGET"
  lab_spawn "$LAB_LOGS/$1.log" l3afpad "/tmp/$1.txt"; sleep 3
  focus_target
}
# dictate: the key below Escape, speech, the key again; then the text must reach TARGET
PASTES=0
DICTATE_KEY=key:41
dictate() {
  local started; started=$(count 'recording started')
  key $DICTATE_KEY
  wait_line 'recording started' $((started + 1)) 10 || { fail "$DICTATE_KEY started no recording"; return 1; }
  lab_play "$LAB_LOGS/speech.wav" >/dev/null 2>&1
  key $DICTATE_KEY
  wait_line 'recording completed' $((started + 1)) 30 || { fail "the second press ended no recording"; return 1; }
  [ "${1:-}" = editor ] && { sleep 1; key key:29+31; }
  local i; for i in $(seq 40); do grep -qF "$EXPECT" "$TARGET" 2>/dev/null && return 0; sleep 0.25
    [ "${1:-}" = editor ] && [ $((i % 8)) = 0 ] && key key:29+31; done
  fail "the target holds \"$(head -c 200 "$TARGET" | cat -v)\", not \"$EXPECT\""
}
# instance_command TEXT: one line to the running Dictora's socket, its answer printed
instance_command() {
  lab_run python3 -c 'import os, socket, sys
s = socket.socket(socket.AF_UNIX); s.settimeout(10)
s.connect(os.environ["XDG_RUNTIME_DIR"] + "/dictora.socket"); s.sendall(sys.argv[1].encode() + b"\n")
print(s.makefile().readline().strip())' "$1" 2>&1
}
close_targets() { kill_tagged foot; kill_tagged l3afpad; sleep 0.5; }
# kill_tagged COMM: this session's processes of that name (other sessions run as the same user)
kill_tagged() { local p; for p in $(lab_tagged_pids); do [ "$(cat "/proc/$p/comm" 2>/dev/null)" = "$1" ] && kill -9 "$p"; done; }

# --- the portal's dialogs ------------------------------------------------------------------------------
# answer BUTTON...: presses the first of these buttons to show in a portal dialog, within ANSWER_WAIT s
answer() {
  local out= names; names=$(IFS='|'; echo "$*")
  if atspi find "$names" "$DIALOG_APP" "${ANSWER_WAIT:-15}" >/dev/null; then
    # GNOME's typing dialog forgets the answer unless asked to remember it,
    # and shares the screen only, unless input is allowed too.
    switch_on "Remember This Selection"; switch_on "Allow Remote Interaction"
    out=$(atspi press "$names" "$DIALOG_APP" 1) || { say "dialog: none of $* ($out)"; buttons; return 1; }
    say "dialog: pressed \"${out% *}\""; sleep 1
    return 0
  fi
  say "dialog: none of $* ($out)"; buttons; return 1
}
# switch_on NAME: a dialog's switch or check box, turned on unless it is
switch_on() {
  atspi on "$1" "$DIALOG_APP" 0 >/dev/null || return 0
  sleep 0.3; atspi checked "$1" "$DIALOG_APP" >/dev/null 2>&1 || say "dialog: \"$1\" stays off"
}
dialog_showing() { atspi find "$1" "$DIALOG_APP" "${2:-3}" >/dev/null; }
# onboarding BUTTON [S]: presses a button of Dictora's own window
# (again each second: a button can show before its screen enables it)
press() {
  local i; for i in $(seq "${2:-20}"); do atspi press "$1" "dictora" 1 >/dev/null && return 0; sleep 1; done
  buttons; fail "no \"$1\" in Dictora's window"; return 1
}
press_if_shown() { atspi find "$1" "dictora" "${2:-5}" >/dev/null && atspi press "$1" "dictora" 2 >/dev/null; return 0; }
# What can be pressed now, for a failure's output.
buttons() { echo "   -- showing buttons, and Dictora's texts:"; { atspi dump | grep -iE 'button|switch|check box'; atspi dump dictora | grep -E '\| label \|'; } | head -30 | sed 's/^/   /'; }

