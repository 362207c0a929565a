# shellcheck shell=bash
# A Debian of its own for a script: made afresh, entered or booted in namespaces, gone when the script ends.
# Sourced after common.sh, not run. bash.
#
#   box_need                        stops with the reason where this user or this machine may make none
#   box_make SUITE [PACKAGE...]     a fresh root of Debian's bookworm or trixie with these packages: $box_root
#   box_bind HOST INSIDE            shows a folder of this machine in what is entered or booted from then on
#   box_copy_project INSIDE         copies the working tree there, without what was built
#   box_run COMMAND...              runs a command in the root, without systemd; with this machine's network
#   box_boot                        boots the root's systemd as process 1; it has a loopback network only
#   box_in COMMAND...               runs a command in the booted system, as root
#   box_end                         ends all of it and removes the root; happens by itself when the script ends
#
# There is one box at a time. The roots are kept, packed, in $QIXX_BOX_CACHE (else ~/.cache/qixxwatch), one for
# each suite and list of packages; remove that folder to have them made anew. A script with an EXIT trap of its
# own calls box_exit there.

box_cache=${QIXX_BOX_CACHE:-${XDG_CACHE_HOME:-${HOME:-${TMPDIR:-/tmp}}/.cache}/qixxwatch}
box_folder="" box_root="" box_outer="" box_leader="" box_group=""
box_binds=()
# Nothing of the caller's own environment reaches a box.
box_environment=(env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
  TERM="${TERM:-dumb}" DEBIAN_FRONTEND=noninteractive)

# Also after Ctrl-C and SIGTERM. A handler for these would only come to its turn when the running command has ended.
trap box_exit EXIT

box_need() {
  [ "$(id -u)" -eq 0 ] ||
    fail "this makes a Debian of its own in namespaces, which only root may here; start it with sudo"
  need_packages mmdebstrap debian-archive-keyring zstd util-linux
  unshare --pid --fork --mount --net --uts --ipc --cgroup \
    sh -c 'mount -t proc proc /proc && mount -t cgroup2 cgroup2 /mnt' 2>/dev/null ||
    fail "this machine lets not even root make namespaces and mount in them (a container without that right?)"
}

# Where this machine has its Debian packages from; Debian's own address on another distribution.
box_mirror() {
  local uri
  # shellcheck disable=SC2016 # apt-get fills these in
  uri=$(apt-get indextargets --format '$(ORIGIN) $(REPO_URI)' 'Created-By: Packages' 2>/dev/null |
    sed -n 's/^Debian //p' | grep -v -e security -e backports | head -n 1 || true)
  printf '%s\n' "${uri:-http://deb.debian.org/debian}"
}

# The packed root of a suite with packages; makes it when there is none yet. Sets `packed`.
box_pack() {
  local suite=$1 log
  shift
  packed=$(printf '%s\n' "$@" | LC_ALL=C sort -u | sha256sum | head -c 12)
  packed=$box_cache/$suite-$(dpkg --print-architecture)-$packed.tar.zst
  mkdir -p "$box_cache"
  exec 7>"$packed.lock"
  flock 7
  if [ ! -f "$packed" ]; then
    printf 'Making a Debian %s with %s ...\n' "$suite" "${*:-nothing more}"
    log=$(mktemp)
    # The name that it is made under ends like the last one: that says how it is packed.
    if ! mmdebstrap --mode=root --variant=apt --include="$(IFS=, && echo "$*")" "$suite" \
      "$box_folder/new.tar.zst" "$(box_mirror)" >"$log" 2>&1 </dev/null; then
      tail -n 15 "$log" >&2
      rm -f "$log"
      fail "could not make a Debian $suite (the last lines of mmdebstrap stand above)"
    fi
    rm -f "$log"
    cp "$box_folder/new.tar.zst" "$packed.new" && mv "$packed.new" "$packed"
    rm "$box_folder/new.tar.zst"
  fi
  exec 7>&-
}

box_make() {
  local packed
  box_end
  box_folder=$(mktemp -d "${TMPDIR:-/tmp}/qixxwatch-box.XXXXXX")
  chmod 755 "$box_folder"
  box_pack "$@"
  mkdir "$box_folder/root"
  tar --zstd -xpf "$packed" -C "$box_folder/root" --numeric-owner --xattrs --xattrs-include='*'
  box_root=$box_folder/root
}

box_bind() {
  mkdir -p "$1" "$box_root$2"
  box_binds+=("$1" "$2")
}

box_copy_project() {
  mkdir -p "$box_root$1"
  tar -C "$project" --exclude=./build --exclude='./build-*' --exclude=./.git -c . |
    tar -C "$box_root$1" -x --no-same-owner
}

# What happens in the namespaces first: the root becomes a mount point of its own, or programs in it could make no
# namespaces; it gets /proc and a small /dev; the folders of box_bind, given in pairs up to "--", are shown.
box_mounts='set -e
root=$1; shift
mount --make-rprivate /
mount --bind "$root" "$root"
mount -t proc -o nosuid,nodev,noexec proc "$root/proc"
mount -t tmpfs -o mode=755,nosuid,size=4m dev "$root/dev"
for device in null:3 zero:5 full:7 random:8 urandom:9; do
  mknod -m 666 "$root/dev/${device%:*}" c 1 "${device#*:}"
done
mknod -m 666 "$root/dev/tty" c 5 0
ln -s /proc/self/fd "$root/dev/fd"
for descriptor in 0:stdin 1:stdout 2:stderr; do
  ln -s "/proc/self/fd/${descriptor%:*}" "$root/dev/${descriptor#*:}"
done
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=666,mode=620,gid=5 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
while [ "$1" != -- ]; do mount --bind "$1" "$root$2"; shift 2; done
shift
# A mere chroot would refuse user namespaces.
box_enter() { cd "$root"; pivot_root . mnt; umount -l /mnt; }
'

# The shell stays process 1 of the namespaces: a process 1 that is not made for it would be deaf to Ctrl-C.
box_run() {
  # shellcheck disable=SC2016 # for the inner shell
  setpriv --pdeathsig KILL unshare --mount --pid --fork --kill-child \
    sh -c "$box_mounts"'box_enter; code=0; "$@" || code=$?; exit $code' sh \
    "$box_root" "${box_binds[@]}" -- "${box_environment[@]}" "$@"
}

# Boots in a control group of its own, so that two boxes meet as little as two machines do.
box_boot() {
  local state tries=0
  echo box >"$box_root/etc/hostname"
  box_group=qixxwatch-box.$$
  # shellcheck disable=SC2016 # for the inner shells
  setpriv --pdeathsig KILL unshare --mount --propagation private sh -c 'set -e
    group=$1; shift
    mount -t cgroup2 cgroup2 /mnt
    mkdir "/mnt/$group"
    echo $$ >"/mnt/$group/cgroup.procs"
    umount /mnt
    exec unshare --pid --fork --kill-child --mount --net --uts --ipc --cgroup sh -c "$@"' sh "$box_group" \
    "$box_mounts"'
    mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$root/sys"
    mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$root/sys/fs/cgroup"
    mount -t tmpfs -o mode=755,nosuid,nodev run "$root/run"
    mount -t tmpfs -o mode=1777,nosuid,nodev tmp "$root/tmp"
    hostname box
    ip link set lo up
    box_enter
    exec env -i container=box /lib/systemd/systemd --system systemd.unit=multi-user.target' sh \
    "$box_root" "${box_binds[@]}" -- >"$box_folder/console.txt" 2>&1 </dev/null &
  box_outer=$!
  while :; do
    kill -0 "$box_outer" 2>/dev/null || fail "systemd did not start: $(tail -n 5 "$box_folder/console.txt")"
    box_leader=$(cat "/proc/$box_outer/task/$box_outer/children" 2>/dev/null || true) && box_leader=${box_leader% }
    state=
    # Entered before it has moved to its own root, a command would run on this machine.
    if [ -n "$box_leader" ] && [ "$(readlink "/proc/$box_leader/exe")" = /usr/lib/systemd/systemd ]; then
      state=$(box_in systemctl is-system-running 2>/dev/null || true)
    fi
    case $state in running | degraded) return 0 ;; esac
    [ $((tries += 1)) -lt 600 ] || fail "systemd did not come up in a minute (state: ${state:-none})"
    sleep 0.1
  done
}

box_in() {
  nsenter -t "$box_leader" -a "${box_environment[@]}" "$@"
}

# A command that still runs, as when the script alone was sent SIGTERM, would go on writing into the root.
box_exit() {
  local child
  trap '' INT TERM HUP
  {
    # unshare holds SIGTERM back while what it started runs; that dies with it.
    [ -z "$box_outer" ] || kill -KILL "$box_outer" || true
    # shellcheck disable=SC2013 # words, all in one line
    for child in $(cat "/proc/$$/task/$$/children"); do kill "$child" || true; done
    wait || true
  } 2>/dev/null # where bash would report each
  box_end
}

box_end() {
  trap '' INT TERM HUP # once begun, it goes on to its end
  if [ -n "$box_leader" ]; then
    # The end of its first process is the end of all the others.
    kill -KILL "$box_leader" 2>/dev/null || true
    wait 2>/dev/null || true
    box_leader="" box_outer=""
  fi
  if [ -n "$box_group" ]; then
    # shellcheck disable=SC2016 # for the inner shell
    unshare --mount --propagation private sh -c \
      'mount -t cgroup2 cgroup2 /mnt || exit
      for try in $(seq 50); do # what was killed needs a moment to be gone
        find "/mnt/$1" -depth -type d -exec rmdir {} + 2>/dev/null
        [ -d "/mnt/$1" ] || exit 0
        sleep 0.1
      done' sh "$box_group" || true
    box_group=
  fi
  [ -z "$box_folder" ] || rm -rf --one-file-system "$box_folder"
  box_folder="" box_root="" box_binds=()
  trap - INT TERM HUP
}
