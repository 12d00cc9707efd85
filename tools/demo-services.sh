#!/bin/bash
# The module services at work, in a private namespace (IPC, and tmpfs over
# /tmp, /run and /etc/conf.d, so nothing of this machine is touched):
# the stand-in daemons start, two modules register an analytics engine and
# a rule engine on one token, a third module a second token; the registry
# file and what the ONVIF daemons received are shown; the modules report
# their run status and the configuration daemon writes the order back; the
# modules unregister and the registry is shown again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-demo
if [ "${MOLK_DEMO_INSIDE:-}" != 1 ]; then
  echo "building molkmod and the stand-ins..."
  cmake -S "$root" -B "$build" -DBUILD_TESTING=OFF >/dev/null
  cmake --build "$build" -j2 --target molkmod onvifd onvifasd configer >/dev/null
  export MOLK_DEMO_INSIDE=1
  exec "$root/tests/support/isolated.sh" "$0" "$@"
fi
tools=$build/tools
registry=/etc/conf.d/config_onvif/config_onvifasd.xml
work=/tmp/molkdemo
mkdir -p $work /etc/conf.d/config_onvif
: > $registry
cat > /etc/conf.d/config_molkinfo.xml <<'XML'
<config><molk><module><order></order>
<i0><name>motion</name><vendor>acme</vendor><version>1.0</version><path>/opt/molk/motion</path></i0>
<i1><name>rules</name><vendor>acme</vendor><version>2.1</version><path>/opt/molk/rules</path></i1>
</module></molk></config>
XML
module() {  # file, token, name, sides (ae, re or both)
  local sides=""
  for side in ae re; do
    case "$4" in $side|both) sides+="<$side><pid>self</pid><config>$side.conf</config><description>$side.xml</description></$side>";; esac
  done
  echo "<molk><token>$2</token><vendor>acme</vendor><name>$3</name>$sides</molk>" > "$1"
}
module $work/motion-ae.xml Token_1 motion ae
module $work/rules-re.xml Token_1 rules re
module $work/motion-2.xml Token_2 motion both

cleanup() {
  kill $(jobs -p) 2>/dev/null || true
  wait 2>/dev/null || true
}
trap cleanup EXIT
"$tools/configer" > $work/configer.log 2>&1 &
"$tools/onvifasd" > $work/onvifasd.log 2>&1 &
"$tools/onvifd" > $work/onvifd.log 2>&1 &
for _ in $(seq 100); do
  [ -S /tmp/configer ] && [ -s /var/run/onvifasd.pid ] && [ -s /var/run/onvifd.pid ] && break
  sleep 0.05
done

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
show_registry() { say "\$ cat $registry"; tr -d '\r' < $registry; }
register() {  # description file: a module process holding its registration
  say "\$ molkmod register $1 &"
  local log=$work/$(basename "$1" .xml).log
  "$tools/molkmod" register "$1" > "$log" 2>&1 &
  for _ in $(seq 200); do grep -q '^molkmod: \(registered\|unregistered\)' "$log" 2>/dev/null && break; sleep 0.05; done
  grep '^molkmod: ' "$log" || { cat "$log"; exit 1; }
}
run() {  # the library's own progress lines are left out
  say "\$ molkmod $(printf '%q ' "$@")"
  "$tools/molkmod" "$@" > $work/out 2>&1 || { cat $work/out; exit 1; }
  grep -v '^\(RegisterOnvif\|Get install\|XMLProcessor\)' $work/out || true
}

register $work/motion-ae.xml
register $work/rules-re.xml
register $work/motion-2.xml
show_registry
sleep 0.2
say "what the ONVIF daemons received (one signal each per change):"
cat $work/onvifasd.log $work/onvifd.log

run status motion acme on "motion detection running"
run status rules acme on "rules running"
run order
say "what the configuration daemon received:"
cat $work/configer.log

run unregister Token_1
show_registry
run unregister Token_2
show_registry
sleep 0.2
say "the daemons' last word:"
tail -n 1 $work/onvifasd.log $work/onvifd.log
