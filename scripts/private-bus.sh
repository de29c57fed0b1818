# Sourced by the demo, soak, examples and picture scripts: the configuration of a private session
# bus, and the end of the processes a script started.
# write_bus_conf FILE LISTEN writes a configuration that listens on LISTEN (a D-Bus address such as
# unix:dir=/tmp/x or unix:path=/tmp/x/bus), lets anyone own any name, and authenticates by uid.
write_bus_conf() {
    cat >"$1" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>$2</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
}

# start_private_bus DIR starts a dbus-daemon listening under DIR (configuration DIR/bus.conf),
# exports KELVRA_BUS_ADDRESS for it and sets PRIVATE_BUS_PID. The daemon forks: it is not the
# caller's child, so stop it with kill.
start_private_bus() {
    write_bus_conf "$1/bus.conf" "unix:dir=$1"
    # --fork returns once the daemon listens; it writes its address and pid first.
    dbus-daemon --config-file="$1/bus.conf" --fork --print-address=3 --print-pid=4 \
        3>"$1/address" 4>"$1/pid" 2>/dev/null
    read -r KELVRA_BUS_ADDRESS <"$1/address"
    read -r PRIVATE_BUS_PID <"$1/pid"
    export KELVRA_BUS_ADDRESS
    unset DBUS_SESSION_BUS_ADDRESS
}

# stop_processes PID... sends SIGTERM to each of the script's children given, then reaps them all.
stop_processes() {
    for pid in "$@"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "$@"; do
        wait "$pid" 2>/dev/null || true
    done
}

# open_workspace sets work (a scratch directory) and pids (children for stop_processes); when the
# script exits, the children are stopped and the directory removed.
open_workspace() {
    work=$(mktemp -d)
    pids=()
    trap 'stop_processes "${pids[@]}"; rm -rf "$work"' EXIT
}
