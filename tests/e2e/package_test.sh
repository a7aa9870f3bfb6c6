#!/usr/bin/env bash
# The Debian package end to end: built by CPack from this build tree,
# installed into a throwaway root with dpkg (maintainer scripts run there
# under busybox), used for a scan, then removed and purged.
#
#   package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
work=$(mktemp -d /tmp/ardent-package-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "package_test: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
deb=$(ls "$work"/out/ardent-agent_*.deb)
prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
rel=${prefix#/}

dpkg-deb -c "$deb" >"$work/contents"
for f in "./lib/systemd/system/ardent-agent.service" "./usr/share/man/man8/ardent-agent.8" "./$rel/bin/ardent-agent" "./$rel/module/libwebshell_module.so" \
         "./$rel/share/rules/webshell.yar" "./$rel/etc/agent.properties"; do
  grep -q " $f\$" "$work/contents" || fail "$f is not in the package"
done
dpkg-deb -e "$deb" "$work/control"
grep -qx "$prefix/etc/agent.properties" "$work/control/conffiles" || fail "agent.properties is not a conffile"
grep -q '^Depends:.*libpoco' "$work/control/control" || fail "no dependency on Poco: $(grep Depends "$work/control/control")"
dpkg-deb -x "$deb" "$work/unpacked"
unit="$work/unpacked/lib/systemd/system/ardent-agent.service"
grep -qx "ExecStart=$prefix/bin/ardent-agent run --install-dir $prefix" "$unit" || fail "ExecStart does not follow the prefix"
for key in ProtectSystem=strict PrivateTmp=yes NoNewPrivileges=yes MemoryMax= CPUQuota= CapabilityBoundingSet=; do
  grep -q "^$key" "$unit" || fail "the unit lacks $key"
done
if command -v systemd-analyze >/dev/null; then
  # Only the unit's own syntax: its binary lives in the package, not here.
  systemd-analyze verify "$unit" 2>&1 | grep -v "is not executable\|No such file" | grep . && fail "systemd-analyze found problems" || true
fi

# A root of our own with a dpkg database and a shell for the maintainer scripts.
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/bin" "$root/tmp"
touch "$root/var/lib/dpkg/status"
cp /bin/busybox "$root/bin/busybox"
for tool in sh chmod rm rmdir; do ln -s busybox "$root/bin/$tool"; done
dpkg --root="$root" --force-depends -i "$deb" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -i failed"; }
install=$root/$rel
[ -x "$install/bin/ardent-agent" ] || fail "the agent is not installed"
[ "$(stat -c %a "$install/data/upload")" = 700 ] || fail "data/upload is $(stat -c %a "$install/data/upload"), not 0700"

# The installed tree works on its own: a scan of the demo web root finds shells.
set +e
"$install/bin/ardent-agent" scan --install-dir "$install" --no-upload --events "$work/events.jsonl" "$src/examples/webroot" \
  >/dev/null 2>"$work/scan.err"
code=$?
set -e
[ $code -eq 1 ] || { cat "$work/scan.err" >&2; fail "scan exited $code, not 1"; }
grep -q '"file_path"' "$work/events.jsonl" || fail "no event from the installed agent"

echo "changed = 1" >>"$install/etc/agent.properties"
dpkg --root="$root" --force-depends -r ardent-agent >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -r failed"; }
[ ! -e "$install/bin/ardent-agent" ] || fail "the agent is still there after removal"
[ ! -e "$root/lib/systemd/system/ardent-agent.service" ] || fail "the unit is still there after removal"
grep -q "changed = 1" "$install/etc/agent.properties" || fail "removal lost the edited configuration"
dpkg --root="$root" --force-depends -P ardent-agent >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -P failed"; }
[ ! -e "$install" ] || fail "purge left $(find "$install" | head -5)"
echo "package_test: ok ($(basename "$deb"))"
