"""From an empty profile to a copied reply by keyboard alone: see run.sh. Every step is a key
press through the X server; the accessibility bus only tells the script where the focus is."""
import os
import re

import pyatspi

from common import (Focus, clipboard, fail, find, find_app, focus_window, keys, launch, outline, pump, type_text,
                    wait_for)

base_url = os.environ["A11Y_BASE_URL"]
reply = open(os.environ["A11Y_REPLY"], encoding="utf-8").read()
code = re.search(r"```[^\n]*\n(.*?)\n```", reply, re.S).group(1)

focus = Focus()
app_pid = launch()
app = find_app(app_pid)
focus_window(app_pid)
pump(0.5)


def step(what):
    print("-- " + what + " (focus: " + focus.describe() + ")")


def focused(name):
    try:
        return focus.node is not None and focus.node.name == name
    except Exception:
        return False


def press_until(key, name, most=40):
    """Press key until the control called name has the focus."""
    for _ in range(most):
        if focused(name):
            return
        keys(key)
        pump(0.15)
    if not focused(name):
        fail("%s never reached %r; the focus is on %s" % (key, name, focus.describe()))


def replace_text(name, text):
    press_until("Tab", name)
    keys("ctrl+a")
    type_text(text)


step("an empty profile: the window invites to open the settings")
keys("ctrl+comma")
wait_for(lambda: find(app, role="push button", name="Add provider", showing=True) is not None, 10,
         "the settings window")
step("settings open")
press_until("Tab", "Add provider")
# The presets menu: Groq, OpenAI, Anthropic, Custom (OpenAI-compatible).
keys("space")
pump(0.5)
keys("Down", "Down", "Down", "Down", "Return")
wait_for(lambda: find(app, role="text", name="Base URL", showing=True) is not None, 10, "the provider form")
step("a custom provider added from the presets")
replace_text("Base URL", base_url)
replace_text("Model", "mock-small")
replace_text("API key", "sk-mock")
press_until("Tab", "Save")
keys("space")
wait_for(lambda: find(app, role="label", name="Saved", showing=True) is not None, 10, "the provider to be saved")
step("saved")
keys("Escape")
wait_for(lambda: find(app, role="push button", name="Add provider", showing=True) is None, 10,
         "the settings window to close")
focus_window(app_pid)
pump(0.5)
step("settings closed")

press_until("F6", "Message", most=4)
type_text("Show me some code")
keys("Return")
# The new conversation becomes the list's current row; a reader must stay with the composer.
pump(1.0)
step("message sent")
if not focused("Message"):
    fail("after sending, a screen reader follows the focus to " + focus.describe())
wait_for(lambda: find(app, role="push button", name="Copy code", showing=True) is not None, 60,
         "the reply's code")
wait_for(lambda: find(app, role="push button", name="Stop", showing=True) is None, 60, "the reply to end")



def on_message():
    """A message of the transcript has the focus (conversation rows are list items too)."""
    try:
        return focus.node.getRoleName() == "list item" and focus.node.name.split(" ")[0] in ("You", "Assistant")
    except Exception:
        return False


for _ in range(4):
    if on_message():
        break
    keys("F6")
    pump(0.3)
    step("F6")
if not on_message():
    fail("F6 did not reach a message; focus on " + focus.describe())
step("in the transcript")
if not focus.node.name.startswith("Assistant"):
    keys("Down")
    pump(0.3)
if not focus.node.name.startswith("Assistant"):
    fail("the reply is not the focused message: " + focus.describe())
step("on the reply")
press_until("Tab", "Copy code", most=6)
keys("space")
pump(0.5)
step("copy code pressed")
if clipboard().strip("\n") != code:
    fail("the clipboard holds %r, not the reply's code" % clipboard())
print("PASS: the reply's code is on the clipboard, and no mouse event was sent")
