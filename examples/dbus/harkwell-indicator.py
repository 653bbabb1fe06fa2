#!/usr/bin/python3
"""Prints each microphone, camera or speaker as it starts or stops being used, as `harkwell serve`
reports it on the session bus. Usage: harkwell-indicator.py [CHANGES] (stop after that many)."""
import sys
from gi.repository import Gio, GLib

manager = Gio.DBusObjectManagerClient.new_for_bus_sync(
    Gio.BusType.SESSION, Gio.DBusObjectManagerClientFlags.NONE,
    "org.harkwell.Devices1", "/org/harkwell/Devices1", None, None, None)
changes_left = int(sys.argv[1]) if len(sys.argv) > 1 else -1
loop = GLib.MainLoop()

def show(device):
    users = [c.get("ApplicationName") or c.get("ProcessName") or f"process {c['ProcessID']}"
             for c in device.get_cached_property("Consumers").unpack()]
    use = "in use" + (" by " + ", ".join(users) if users else "")
    print(device.get_cached_property("Name").unpack() + ": " +
          (use if device.get_cached_property("IsRunning").unpack() else "idle"), flush=True)

def changed(manager, device_object, device, properties, invalidated):
    global changes_left
    if "IsRunning" in properties.keys():
        show(device)
        changes_left -= 1
        if changes_left == 0:
            loop.quit()

for device_object in sorted(manager.get_objects(), key=Gio.DBusObject.get_object_path):
    show(device_object.get_interface("org.harkwell.Devices1.Device"))
manager.connect("interface-proxy-properties-changed", changed)
loop.run()
