#!/usr/bin/python3
"""Prints each microphone, camera and speaker, then each one that starts or stops being used, as
`harkwell serve` reports them on the session bus. Usage: harkwell-indicator.py [CHANGES]"""
import sys
from gi.repository import Gio, GLib

manager = Gio.DBusObjectManagerClient.new_for_bus_sync(
    Gio.BusType.SESSION, Gio.DBusObjectManagerClientFlags.NONE,
    "org.harkwell.Devices1", "/org/harkwell/Devices1", None, None, None)
changes_left = [int(sys.argv[1]) if len(sys.argv) > 1 else -1]  # -1: until interrupted

def show(device):
    value = lambda name: device.get_cached_property(name).unpack()
    users = [c.get("ApplicationName") or c.get("ProcessName") or f"process {c['ProcessID']}"
             for c in value("Consumers")]
    use = "in use" + (" by " + ", ".join(users) if users else "") if value("IsRunning") else "idle"
    print(f"{value('Name')}: {use}", flush=True)

def changed(manager, device_object, device, properties, invalidated):
    if "IsRunning" in properties.keys():
        show(device)
        changes_left[0] -= 1
        if changes_left[0] == 0: loop.quit()

for device_object in sorted(manager.get_objects(), key=Gio.DBusObject.get_object_path):
    show(device_object.get_interface("org.harkwell.Devices1.Device"))
manager.connect("interface-proxy-properties-changed", changed)
loop = GLib.MainLoop()
loop.run()
