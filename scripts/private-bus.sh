# Sourced by the demo and soak scripts: the configuration of a private session bus.
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
