#!/usr/bin/env bash
# Types the README's first session in and compares the screen with what stands there. The device is
# a kypserver on a second host: a network namespace beside the sandbox's own.
#   session.sh SOURCE KYPSERVER KYP
# In the README "..." stands for anything. Times, and hardware addresses, are never the same.
set -euo pipefail
source=$1 server=$2 kyp=$3
export PATH=$(dirname "$kyp"):$PATH:/usr/sbin:/sbin

unshare --net --uts sleep 600 &
there="nsenter --target=$! --net --uts"
until $there true 2>/dev/null && [ "$(readlink /proc/$!/ns/net)" != "$(readlink /proc/self/ns/net)" ]; do
    sleep 0.05
done
join() {
    ip link set lo up
    ip addr add "$1/24" broadcast + dev kyp0
    ip link set kyp0 up
    ip route add default dev kyp0
}
ip link add kyp0 type veth peer name kyp0 netns $!
join 10.77.0.1
export -f join
$there bash -c 'hostname plc-west; join 10.77.0.2'
$there "$server" >/tmp/server.log 2>&1 &
for _ in $(seq 600); do
    grep -q ready /tmp/server.log && break
    sleep 0.05
done

awk '/^```console$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source/README.md" >/tmp/expected
[ -s /tmp/expected ] || { echo "the README has no session"; exit 1; }
set +e
grep '^\$ ' /tmp/expected | while IFS= read -r line; do
    echo "$line"
    eval "${line#\$ }" 2>&1
done >/tmp/screen

comparable() {
    sed -E 's/[0-9]+\.[0-9]{3}/TIME/g; s/time [0-9]+ ms/time TIME ms/; s/([0-9a-f]{2}:){5}[0-9a-f]{2}/MAC/g; s/  +/ /g' "$1"
}
failed=0
while IFS= read -r wanted <&3; do
    IFS= read -r seen <&4
    [[ $seen == "${wanted%%...*}"*"${wanted##*...}" ]] && continue
    [[ $wanted != *...* && $seen == "$wanted" ]] && continue
    printf 'README: %s\nscreen: %s\n' "$wanted" "$seen"
    failed=1
done 3< <(comparable /tmp/expected) 4< <(comparable /tmp/screen)
[ "$(wc -l </tmp/expected)" = "$(wc -l </tmp/screen)" ] || { cat /tmp/screen; failed=1; }
exit "$failed"
