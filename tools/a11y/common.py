"""What the screen-reader checks share: finding the program on the accessibility bus, walking its
tree, driving it with xdotool keys, and running steps inside pyatspi's event loop."""
import atexit
import os
import shutil
import subprocess
import sys
import time

import pyatspi
from gi.repository import GLib


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def launch():
    """Start the program once this script's listeners are registered: a program that joins the
    bus first can miss a listener registered while it starts, and then never sends it events."""
    env = dict(os.environ, QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1", QT_ACCESSIBILITY="1")
    log = open(os.path.join(os.environ["XDG_RUNTIME_DIR"], "app.log"), "w")
    proc = subprocess.Popen([os.environ["A11Y_APP"]], stdout=log, stderr=subprocess.STDOUT, env=env)
    atexit.register(_stop, proc)
    return proc.pid


def _stop(proc):
    shot = os.environ.get("A11Y_SHOT")
    if shot and shutil.which("import"):
        subprocess.run(["import", "-window", "root", shot], check=False)
    proc.terminate()
    try:
        proc.wait(10)
    except subprocess.TimeoutExpired:
        proc.kill()


def find_app(pid, timeout=20):
    deadline = time.time() + timeout
    while time.time() < deadline:
        desktop = pyatspi.Registry.getDesktop(0)
        for i in range(desktop.childCount):
            app = desktop.getChildAtIndex(i)
            try:
                if app is not None and app.get_process_id() == pid and app.childCount > 0:
                    return app
            except Exception:
                pass
        time.sleep(0.2)
    fail("no accessible application with process id %d" % pid)


def walk(node, depth=0):
    """Every node below node, depth first, with its depth."""
    for i in range(node.childCount):
        child = node.getChildAtIndex(i)
        if child is None:
            continue
        yield child, depth + 1
        yield from walk(child, depth + 1)


def text_of(node):
    try:
        t = node.queryText()
        return t.getText(0, t.characterCount)
    except Exception:
        return ""


def find(root, role=None, name=None, showing=False):
    for node, _ in walk(root):
        if role is not None and node.getRoleName() != role:
            continue
        if name is not None and node.name != name:
            continue
        if showing and not node.getState().contains(pyatspi.STATE_SHOWING):
            continue
        return node
    return None


def outline(root):
    lines = []
    for node, depth in walk(root):
        line = "%s%s [%s]" % ("  " * depth, node.getRoleName(), node.name or "")
        text = text_of(node)
        if text:
            line += " %r" % text[:120]
        if node.description:
            line += "  help: " + node.description[:120].replace("\n", "\\n")
        lines.append(line)
    return "\n".join(lines)


def keys(*names):
    """Key presses through the X server, as a keyboard makes them: never a mouse event."""
    subprocess.run(["xdotool", "key", "--delay", "60"] + list(names), check=True)


def type_text(text):
    subprocess.run(["xdotool", "type", "--delay", "20", text], check=True)


def focus_window(pid):
    """Give the program's window the keyboard, as a window manager would on start."""
    out = subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--pid", str(pid)],
                         capture_output=True, text=True, timeout=20).stdout.split()
    if not out:
        fail("no window of process %d" % pid)
    subprocess.run(["xdotool", "windowfocus", "--sync", out[-1]], check=False)


def clipboard():
    return subprocess.run(["xclip", "-selection", "clipboard", "-o"], capture_output=True,
                          text=True).stdout


class Focus:
    """The focused object, as a screen reader learns of it."""

    def __init__(self):
        self.node = None
        pyatspi.Registry.registerEventListener(self._changed, "object:state-changed:focused")

    def _changed(self, event):
        if event.detail1:
            self.node = event.source

    def describe(self):
        try:
            return "%s [%s]" % (self.node.getRoleName(), self.node.name) if self.node else "nothing"
        except Exception:
            return "gone"


def pump(seconds):
    """Let events arrive for a while."""
    loop = GLib.MainLoop()
    GLib.timeout_add(int(seconds * 1000), loop.quit)
    loop.run()


def wait_for(condition, timeout, what):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if condition():
            return
        pump(0.1)
    fail("timed out waiting for " + what)
