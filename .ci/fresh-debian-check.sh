#!/usr/bin/env bash
# A newcomer's first hour, checked: on a fresh Debian 12 made with
# debootstrap, an ordinary user with sudo rights follows README.md.
#
#   1. With only cmake, ninja-build and g++ installed, configuring succeeds
#      and each part that misses its packages says so in a status line.
#   2. The README's install line, its demo command and its test command run
#      as written there (read out of README.md, never copied here), in the
#      order a reader runs them.
#   3. The README's host installation: the library is installed into
#      /usr/local as root, then a program links it with the README's
#      pkg-config line and the consumer example with find_package and
#      pkg-config, and all of them run.
#
# Needs root, debootstrap, and a reachable Debian mirror. Everything happens
# in a chroot under a temporary directory, in private mount and PID
# namespaces (own /proc, own /dev/shm), so nothing of the machine's node or
# shared memory is touched; the chroot is removed at the end.
#
# Usage: .ci/fresh-debian-check.sh [--keep] [--mirror URL] [--workdir DIR]
#   --keep     leave the chroot in place (its path is printed)
#   --mirror   the Debian mirror (default http://deb.debian.org/debian)
#   --workdir  where the chroot is made (default /var/tmp)
set -euo pipefail

mirror=http://deb.debian.org/debian
workdir=/var/tmp
keep=0
while (( $# > 0 )); do
  case $1 in
    --keep) keep=1 ;;
    --mirror) mirror=${2:?--mirror needs a URL}; shift ;;
    --workdir) workdir=${2:?--workdir needs a directory}; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "fresh-debian-check: unknown argument: $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$source_dir/.ci/readme-commands.sh"

if [[ $(id -u) -ne 0 ]]; then
  echo "fresh-debian-check: needs root (debootstrap, chroot, namespaces): run it with sudo" >&2
  exit 1
fi
for tool in debootstrap unshare chroot tar; do
  command -v "$tool" >/dev/null || { echo "fresh-debian-check: $tool not found" >&2; exit 1; }
done

readme=$source_dir/README.md
install_command=$(readme_command "$readme" install)
demo_command=$(readme_command "$readme" demo)
test_command=$(readme_command "$readme" test)
install_library_command=$(readme_command "$readme" install-library)
link_command=$(readme_command "$readme" link)

root=$(mktemp -d "$workdir/nodetrace-fresh-debian.XXXXXX")
chmod 0755 "$root"  # the chroot's /: mktemp makes it private to root
cleanup() {
  local status=$?
  if (( keep )); then
    echo "fresh-debian-check: the chroot stays in $root"
  else
    rm -rf --one-file-system "$root"
  fi
  exit "$status"
}
trap cleanup EXIT

step_start=0
step() {
  step_start=$(date +%s)
  printf '\n---- fresh Debian 12: %s ----\n' "$1"
}
step_done() {
  printf -- '---- done in %ss ----\n' $(( $(date +%s) - step_start ))
}

step "debootstrap (minimal Debian 12 with sudo) into $root"
debootstrap --variant=minbase --include=sudo bookworm "$root" "$mirror" > "$root.debootstrap.log" 2>&1 || {
  tail -n 30 "$root.debootstrap.log" >&2
  rm -f "$root.debootstrap.log"
  exit 1
}
rm -f "$root.debootstrap.log"
step_done

# The machine of a newcomer: a user with sudo rights, name resolution for
# apt and for sudo's host name check, the sources in the user's home.
user=newcomer
home=/home/$user
cp /etc/resolv.conf "$root/etc/resolv.conf"
printf '127.0.1.1\t%s\n' "$(hostname)" >> "$root/etc/hosts"
chroot "$root" useradd --create-home --shell /bin/bash "$user"
echo "$user ALL=(ALL) NOPASSWD:ALL" > "$root/etc/sudoers.d/$user"
chmod 0440 "$root/etc/sudoers.d/$user"
mkdir "$root$home/nodetrace"
# The files of the clone (tracked and new, not ignored), as they are now;
# from an unpacked source archive, everything but build directories.
if git -C "$source_dir" rev-parse --is-inside-work-tree > /dev/null 2>&1; then
  (cd "$source_dir" && git ls-files -z --cached --others --exclude-standard |
     while IFS= read -r -d '' f; do [[ -e $f || -L $f ]] && printf '%s\0' "$f"; done |
     tar --null -T - -cf -) | tar -xf - -C "$root$home/nodetrace"
else
  tar -C "$source_dir" --exclude='./build*' -cf - . | tar -xf - -C "$root$home/nodetrace"
fi
chroot "$root" chown -R "$user:$user" "$home/nodetrace"

# The steps, run inside the chroot. The commands reach it through files, so
# that no quoting stands between README.md and the shell that runs them.
mkdir "$root/fresh-check"
printf '%s\n' "$install_command" > "$root/fresh-check/install"
printf '%s\n' "$demo_command" > "$root/fresh-check/demo"
printf '%s\n' "$test_command" > "$root/fresh-check/test"
printf '%s\n' "$install_library_command" > "$root/fresh-check/install-library"
printf '%s\n' "$link_command" > "$root/fresh-check/link"
cat > "$root/fresh-check/steps" <<EOF
#!/bin/bash
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
user=$user
home=$home
EOF
cat >> "$root/fresh-check/steps" <<'EOF'
step_start=0
step() { step_start=$(date +%s); printf '\n---- fresh Debian 12: %s ----\n' "$1"; }
step_done() { printf -- '---- done in %ss ----\n' $(( $(date +%s) - step_start )); }

# as_user FILE [DIR]: runs the command in FILE as the newcomer, in DIR
# (default the sources), with a login environment as after ssh.
as_user() {
  local command dir=${2:-$home/nodetrace}
  command=$(cat "/fresh-check/$1")
  echo "\$ $command"
  sudo -u "$user" -H -- bash -lc 'cd "$1" && eval "$2"' bash "$dir" "$command"
}

step "configure with no optional package"
apt-get install -y --no-install-recommends cmake ninja-build g++ > /fresh-check/apt.log 2>&1 ||
  { tail -n 30 /fresh-check/apt.log >&2; exit 1; }
echo 'cmake -S . -B /tmp/bare -G Ninja' > /fresh-check/bare
as_user bare | tee /fresh-check/bare.log
for part in 'GoogleTest not found' 'CLI11 not found' 'Google Benchmark not found'; do
  grep -q "^-- $part" /fresh-check/bare.log ||
    { echo "configuring without the optional packages printed no \"$part\" line" >&2; exit 1; }
done
rm -rf /tmp/bare
step_done

step "the README's install line"
as_user install
step_done

step "the README's demo command"
as_user demo
step_done

step "the README's test command"
as_user test
step_done

step "the README's host installation, linked with pkg-config and find_package"
as_user install-library
app_dir=$(sudo -u "$user" mktemp -d)
sudo -u "$user" cp "$home/nodetrace/examples/consumer/main.c" "$app_dir/app.c"
as_user link "$app_dir"
sudo -u "$user" "$app_dir/app"
echo "cmake -S $home/nodetrace/examples/consumer -B $app_dir/consumer -G Ninja && cmake --build $app_dir/consumer && $app_dir/consumer/consumer_cmake && $app_dir/consumer/consumer_pkgconfig" \
  > /fresh-check/consumer
as_user consumer "$app_dir" > "$app_dir/consumer.log" 2>&1 || { cat "$app_dir/consumer.log" >&2; exit 1; }
tail -n 2 "$app_dir/consumer.log"
step_done
EOF
chmod +x "$root/fresh-check/steps"

# Private mounts and PIDs: a fresh /proc (the lock's holder checks read it)
# and a fresh /dev/shm for the node's shared memory and semaphores; both
# vanish with the namespaces.
unshare --mount --pid --fork --propagation private -- bash -c '
  set -e
  root=$1
  mount -t proc proc "$root/proc"
  mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
  exec chroot "$root" /fresh-check/steps
' bash "$root"

echo
echo "fresh Debian 12: the README's set-up works as written"
