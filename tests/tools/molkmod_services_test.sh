#!/bin/sh
# molkmod's package, run-status and time commands against the stand-in
# configuration daemon and time-zone writer, and the exit codes of bad
# requests. Run inside isolated.sh.
# Usage: molkmod_services_test.sh TOOLS_DIR [EMULATOR...]
set -u
dir=$1; shift
run="$*"
fails=0
check() {  # description, expected exit code, command...
  what=$1; want=$2; shift 2
  out=$("$@" 2>&1); got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, expected $want"; echo "$out"; fails=$((fails + 1))
  fi
  LAST=$out
}
expect_in() {  # description, text
  case "$LAST" in *"$2"*) ;; *) echo "FAIL: $1: '$2' not in output:"; echo "$LAST"; fails=$((fails + 1));; esac
}
molkmod="$run $dir/molkmod"

cat > /etc/conf.d/config_molkinfo.xml <<'XML'
<config><molk><module><order>0</order>
<i0><name>rules</name><vendor>acme</vendor><version>2.1</version><path>/opt/rules</path></i0>
<i1><name>motion</name><vendor>acme</vendor><version>1.0</version><path>/opt/motion</path></i1>
</module></molk></config>
XML
printf '<s><system><info><modelname>VX-2000</modelname></info></system></s>' > /etc/conf.d/config_systeminfo.xml

check "pkg" 0 $molkmod pkg motion acme
[ "$LAST" = 1 ] || { echo "FAIL: pkg printed '$LAST'"; fails=$((fails + 1)); }
check "pkg unknown" 1 $molkmod pkg motion other
expect_in "pkg unknown says so" "no package 'motion' of vendor 'other'"
check "pkg no vendor" 1 $molkmod pkg motion
check "model" 0 $molkmod model
expect_in "model name" "VX-2000"
check "order" 0 $molkmod order
[ "$LAST" = 0 ] || { echo "FAIL: order printed '$LAST'"; fails=$((fails + 1)); }

$run "$dir/configer" --store /tmp/molkmod-test.values > /tmp/molkmod-configer.log 2>&1 &
daemon=$!
tries=0
until grep -q listening /tmp/molkmod-configer.log 2>/dev/null; do
  tries=$((tries + 1)); [ $tries -lt 3000 ] || break; sleep 0.01
done
done_count() { grep -c ' done$' /tmp/molkmod-configer.log; }
await() {  # number of requests the daemon must have finished
  tries=0
  until [ "$(done_count)" -ge "$1" ]; do
    tries=$((tries + 1)); [ $tries -lt 3000 ] || break; sleep 0.01
  done
}
check "status on" 0 $molkmod status motion acme on "up and running"
expect_in "status reported" "package 1 (motion, acme): status on sent"
await 1
check "order after on" 0 $molkmod order
[ "$LAST" = 0,1 ] || { echo "FAIL: order after on is '$LAST'"; fails=$((fails + 1)); }
grep -q '^molk_module_i1_statmsg=up and running$' /tmp/molkmod-test.values ||
  { echo "FAIL: message not kept"; fails=$((fails + 1)); }
check "status off" 0 $molkmod status rules acme off "stopped"
await 2
check "order after off" 0 $molkmod order
[ "$LAST" = 1 ] || { echo "FAIL: order after off is '$LAST'"; fails=$((fails + 1)); }
check "status bad word" 1 $molkmod status motion acme maybe x
check "status unknown package" 1 $molkmod status nosuch acme on x
check "status too few" 1 $molkmod status motion acme on
kill $daemon; wait $daemon
check "status with the daemon down" 0 $molkmod status motion acme on "nobody hears"
expect_in "daemon down" "Connect to configer failed..."

check "time before any record" 0 $molkmod time
expect_in "offsets 0" "offset0  0"
check "tzwriter" 0 $run "$dir/tzwriter" 3600 -600
check "time" 0 $molkmod time
expect_in "offset0" "offset0  3600"
expect_in "offset1" "offset1  -600"
expect_in "utc line" "utc "
check "tzwriter bad number" 2 $run "$dir/tzwriter" 1h 0
check "time extra argument" 1 $molkmod time now

rm -f /etc/conf.d/config_systeminfo.xml
check "model without file" 1 $molkmod model
if [ $fails = 0 ]; then echo "molkmod services: all checks passed"; fi
exit $fails
