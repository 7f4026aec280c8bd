#!/usr/bin/env bash
# Serves scenarios/ipmi-clients-story.json and reads it with the real clients (ipmitool over
# RMCP+ and IPMI 1.5, FreeIPMI's ipmi-sensors and ipmi-sel): what they decode must equal the
# files in tests/ipmi/expected/. Then hostile input (malformed datagrams, a wrong password,
# refused cipher suites and privilege, 4 x 2500 requests) must change nothing.
#   tests/ipmi/clients.sh ZNPDK_SIM SOURCE_DIR [--update]
# Exit 77 (skipped) when the clients or the engine are not installed.
set -uo pipefail
sim=$1
src=$2
update=${3:-}
expected=${src}/tests/ipmi/expected
for tool in ipmi_sim ipmitool ipmi-sensors ipmi-sel; do
  if ! command -v "${tool}" >/dev/null; then
    echo "skipped: ${tool} is not installed (scripts/setup-deps.sh installs it)"
    exit 77
  fi
done
work=$(mktemp -d /tmp/znpdk-ipmi-test-XXXXXX)
server=
cleanup() {
  [[ -n ${server} ]] && kill -TERM "${server}" 2>/dev/null && wait "${server}" 2>/dev/null
  rm -rf "${work}"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  [[ -f ${work}/server.log ]] && tail -20 "${work}/server.log" >&2
  exit 1
}
user=viewer
password=$(od -An -N6 -tx1 /dev/urandom | tr -d ' \n')

# A free range of 17 ports: the server says so (status 5) when one is taken.
for try in 1 2 3 4 5; do
  port=$((20000 + (RANDOM % 2000) * 20))
  "${sim}" run --serve "${src}/scenarios/ipmi-clients-story.json" --user "${user}" --password "${password}" \
    --port "${port}" >"${work}/server.log" 2>&1 &
  server=$!
  for _ in $(seq 1 200); do
    grep -q 'holding\|cannot listen' "${work}/server.log" && break
    kill -0 "${server}" 2>/dev/null || break
    sleep 0.1
  done
  grep -q holding "${work}/server.log" && break
  wait "${server}"
  rc=$?
  server=
  [[ ${rc} -eq 5 ]] || fail "server did not come up (status ${rc})"
done
[[ -n ${server} ]] || fail "no free port range found"

it() { ipmitool -I lanplus -C 3 -H 127.0.0.1 -U "${user}" -P "${password}" -L USER "$@" 2>/dev/null; }
fi_opts=(-h "127.0.0.1:${port}" -u "${user}" -p "${password}" -l USER --sdr-cache-directory="${work}")

# What each client decodes, one file per view (ipmitool's "Get HPM.x" chatter goes to stderr).
look() {
  local out=$1
  mkdir -p "${out}"
  it -p "${port}" sdr elist >"${out}/chassis-sdr-elist.txt"
  it -p $((port + 1)) sdr elist >"${out}/node0-sdr-elist.txt"
  for s in "PSU Redundancy" "Fan Redundancy" "PSU4 Status"; do
    it -p "${port}" sensor get "${s}"
  done | grep -v 'Locating' >"${out}/chassis-sensor-get.txt"
  it -p "${port}" sel elist >"${out}/chassis-sel-elist.txt"
  ipmitool -I lan -H 127.0.0.1 -p "${port}" -U "${user}" -P "${password}" -L USER sel elist \
    >"${out}/chassis-sel-elist-lan15.txt" 2>/dev/null
  ipmi-sensors -D LAN_2_0 -W opensesspriv "${fi_opts[@]}" --output-event-bitmask --sdr-cache-recreate \
    >"${out}/chassis-ipmi-sensors.txt" 2>&1
  ipmi-sensors -D LAN "${fi_opts[@]}" -h "127.0.0.1:$((port + 1))" --output-event-bitmask --sdr-cache-recreate \
    >"${out}/node0-ipmi-sensors.txt" 2>&1
  ipmi-sel -D LAN_2_0 -W opensesspriv "${fi_opts[@]}" --sdr-cache-recreate >"${out}/chassis-ipmi-sel.txt" 2>&1
  ipmi-sel -D LAN "${fi_opts[@]}" --hex-dump >"${out}/chassis-ipmi-sel-hex.txt" 2>&1
  sed -i '/^Caching SDR/d' "${out}"/*.txt
}

# In the middle of the story: after the PSU pull the server holds until a client has looked.
it -p "${port}" sel elist >"${work}/mid-sel-elist.txt"
it -p "${port}" sdr elist | grep -E '^(PSU4 Status|PSU Redundancy) ' >"${work}/mid-sdr.txt"
mkdir -p "${work}/mid"
cat "${work}/mid-sel-elist.txt" "${work}/mid-sdr.txt" >"${work}/mid/mid-story.txt"
for _ in $(seq 1 300); do
  grep -q 'stays up' "${work}/server.log" && break
  sleep 0.1
done
grep -q 'FAILED' "${work}/server.log" && fail "the server reported a failure"
look "${work}/after"

compare() {
  local dir=$1 bad=0
  for f in "${dir}"/*.txt; do
    if [[ ${update} == --update ]]; then
      cp "${f}" "${expected}/"
    elif ! diff -u "${expected}/$(basename "${f}")" "${f}"; then
      bad=1
    fi
  done
  return ${bad}
}
compare "${work}/mid" || fail "mid-story view differs"
compare "${work}/after" || fail "client view differs"

# Hostile input: each is answered or refused, and nothing changes.
for d in '' '\x06' '\x06\x00\xff\x07' '\x06\x00\xff\x07\x06\x10' '\x06\x00\xff\x07\x06\x10\x00\x00\x00\x00\x00\x00\x00\x00\xff\xff' \
  '\x06\x00\xff\x07\x06\x12\x00\x00\x00\x00\x00\x00\x00\x00\x20\x00' '\x06\x00\xff\x07\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\xff' \
  '\x06\x00\xff\x06\x00\x00\x11\xbe\x80\x00\x00\x00' 'GET / HTTP/1.0\r\n\r\n'; do
  for p in "${port}" $((port + 5)); do
    printf "${d}" >/dev/udp/127.0.0.1/${p}
  done
done
head -c 300000 /dev/urandom | split -b 1000 - "${work}/junk."
for f in "${work}"/junk.*; do cat "${f}" >/dev/udp/127.0.0.1/${port}; done
ipmitool -I lanplus -C 3 -H 127.0.0.1 -p "${port}" -U "${user}" -P wrong -L USER mc info >/dev/null 2>&1 &&
  fail "a wrong password was let in"
ipmitool -I lanplus -C 17 -H 127.0.0.1 -p "${port}" -U "${user}" -P "${password}" -L USER mc info >/dev/null 2>&1 &&
  fail "cipher suite 17 was let in"
ipmitool -I lanplus -C 0 -H 127.0.0.1 -p "${port}" -U "${user}" -P wrong -L USER mc info >/dev/null 2>&1 &&
  fail "cipher suite 0 (no password check) was let in"
ipmitool -I lanplus -C 3 -H 127.0.0.1 -p "${port}" -U "${user}" -P "${password}" mc info >/dev/null 2>&1 &&
  fail "an administrator session was granted"
ipmitool -I lan -A NONE -H 127.0.0.1 -p "${port}" -U "${user}" -P wrong -L USER mc info >/dev/null 2>&1 &&
  fail "IPMI 1.5 without authentication was let in"
it -p "${port}" raw 0x0a 0x49 0 0 0 0 >/dev/null && fail "a client set the SEL time"
it -p "${port}" raw 0x0a 0x47 0 0 0x43 0x4c 0x52 0xaa >/dev/null && fail "a client cleared the SEL"

# A flood: 4 clients with 2500 requests each (Get Device ID, one session each).
yes 'raw 0x06 0x01' | head -2500 >"${work}/flood.cmds"
start=$(date +%s.%N)
for c in 1 2 3 4; do
  it -p $(((c - 1) * 3 + port)) exec "${work}/flood.cmds" >"${work}/flood.${c}" &
done
wait $(jobs -p | grep -v "^${server}$") 2>/dev/null
end=$(date +%s.%N)
answered=$(cat "${work}"/flood.? | grep -c '^ [0-9a-f][0-9a-f] ')
echo "flood: ${answered} of 10000 requests answered in $(echo "${end} - ${start}" | bc) s" \
  "($(echo "${answered} / (${end} - ${start})" | bc) per second)"
[[ ${answered} -eq 10000 ]] || fail "the flood was not answered in full"
kill -0 "${server}" || fail "the server died"

look "${work}/again"
compare "${work}/again" || fail "client view changed after hostile input"

kill -TERM "${server}"
wait "${server}"
rc=$?
server=
[[ ${rc} -eq 0 ]] || fail "server ended with status ${rc}"
grep -q 'ipmi-clients-story: 41 passed, 0 failed' "${work}/server.log" || fail "the story did not pass while served"
grep -q 'server ended' "${work}/server.log" || fail "server did not end cleanly"
echo "ipmi clients: every view as expected, before and after hostile input"
