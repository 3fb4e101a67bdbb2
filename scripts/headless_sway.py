#!/usr/bin/env python3
"""A private Wayland desktop with nothing attached, for the demo, the documentation pictures and the
tests: sway on wlroots' headless backend (software rendering, one 1280x800 output, no input devices,
no Xwayland) in a runtime directory of its own, with wtype as the user's keyboard.

  headless_sway.py run DIR [SCALE]      becomes sway (exec), so it is stopped by its pid; sway
                                        writes its messages to DIR/sway.log
  headless_sway.py ready DIR            waits until sway answers; prints its WAYLAND_DISPLAY, or
                                        sway's messages when it does not come up
  headless_sway.py window DIR TITLE     waits for a native Wayland (xdg-shell) window titled TITLE
                                        (a regular expression) that no earlier call returned to
                                        take the keyboard focus; prints sway's description of it
                                        (JSON)
  headless_sway.py type DIR TEXT KEY    types TEXT, then presses KEY ("Return"), into the focused window

sway refuses to run as root, so under root it runs as nobody, who is given DIR; root's clients still
reach the sockets in it (root passes file permissions), other users' do not. Clients take
XDG_RUNTIME_DIR=DIR and the printed WAYLAND_DISPLAY."""
import glob
import json
import os
import re
import subprocess
import sys
import time

CONFIG = """xwayland disable
output * resolution 1280x800 scale {scale}
# The window as its program draws it: the host draws its own title bar.
default_floating_border none
"""


def run(directory, scale="1"):
    config = os.path.join(directory, "config")
    with open(config, "w") as file:
        file.write(CONFIG.format(scale=scale))
    user = []
    if os.geteuid() == 0:
        # nobody must be able to pass through every folder above the runtime directory.
        above = os.path.dirname(directory)
        while above != "/":
            if not os.stat(above).st_mode & 0o001:
                raise SystemExit(f"nobody cannot reach {directory}: {above} is closed to others")
            above = os.path.dirname(above)
        os.chown(directory, 65534, 65534)
        os.chmod(directory, 0o700)
        user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    command = user + ["sway", "-c", config]
    log = os.open(os.path.join(directory, "sway.log"), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    os.dup2(log, 1)
    os.dup2(log, 2)
    os.execvpe(command[0], command, {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "XDG_RUNTIME_DIR": directory,
                                     "WLR_BACKENDS": "headless", "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"})


def environment(directory):
    """The environment of a client of the desktop in `directory`, swaymsg included."""
    sockets = [os.path.basename(path) for path in glob.glob(os.path.join(directory, "wayland-*")) if not path.endswith(".lock")]
    ipc = glob.glob(os.path.join(directory, "sway-ipc.*.sock"))
    return dict(os.environ, XDG_RUNTIME_DIR=directory, WAYLAND_DISPLAY=min(sockets, default=""), SWAYSOCK=min(ipc, default=""))


def swaymsg(directory, *arguments):
    done = subprocess.run(["swaymsg", "-r", *arguments], env=environment(directory), capture_output=True, text=True)
    return json.loads(done.stdout) if done.returncode == 0 else None


def wait(condition, what, timeout=20):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        found = condition()
        if found:
            return found
        time.sleep(0.1)
    raise SystemExit(f"no {what} within {timeout} s")


def ready(directory):
    try:
        wait(lambda: swaymsg(directory, "-t", "get_version"), "answer from sway")
    except SystemExit:
        log = os.path.join(directory, "sway.log")
        if os.path.exists(log):
            with open(log, errors="replace") as file:
                sys.stderr.write(file.read())
        raise
    return environment(directory)["WAYLAND_DISPLAY"]


def windows(node):
    if "shell" in node:
        yield node
    for child in node.get("nodes", []) + node.get("floating_nodes", []):
        yield from windows(child)


def window(directory, title):
    seen = os.path.join(directory, "windows-seen")
    known = []
    if os.path.exists(seen):
        with open(seen) as file:
            known = file.read().split()

    def focused():
        tree = swaymsg(directory, "-t", "get_tree") or {}
        return next((view for view in windows(tree) if view["focused"] and view["shell"] == "xdg_shell"
                     and re.search(title, view.get("name") or "") and str(view["id"]) not in known), None)
    found = wait(focused, f"new focused window titled {title}")
    with open(seen, "a") as file:
        file.write(f"{found['id']}\n")
    return found


def type_keys(directory, text, key):
    # Each run of wtype is a new virtual keyboard, whose keymap must reach the client before the
    # first key does: one run per entry, after a pause.
    subprocess.run(["wtype", "-s", "600", "-d", "40", *([text] if text else []), "-k", key],
                   env=environment(directory), check=True)


if __name__ == "__main__":
    command, directory, arguments = sys.argv[1], os.path.abspath(sys.argv[2]), sys.argv[3:]
    if command == "run":
        run(directory, *arguments)
    elif command == "ready":
        print(ready(directory))
    elif command == "window":
        print(json.dumps(window(directory, arguments[0])))
    elif command == "type":
        type_keys(directory, *arguments)
    else:
        raise SystemExit(__doc__)
