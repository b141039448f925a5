"""The transcript reads as it is shown, and a streamed reply is announced: see run.sh."""
import os
import re
import time

import pyatspi

from common import (fail, find, find_app, focus_window, keys, launch, outline, pump, text_of, type_text, wait_for,
                    walk)

mock_pid = int(os.environ["A11Y_MOCK"])
reply = open(os.environ["A11Y_REPLY"], encoding="utf-8").read()
first_words = " ".join(reply.split()[:6])

heard = []


def showing(event):
    try:
        if event.detail1 and event.source.getRoleName() == "notification":
            heard.append((time.time(), event.source.name or ""))
    except Exception:  # an object gone by the time its event is read
        pass


pyatspi.Registry.registerEventListener(showing, "object:state-changed:showing")
app_pid = launch()
app = find_app(app_pid)


def transcript():
    node = find(app, role="list", name="Transcript")
    if node is None:
        fail("no transcript in:\n" + outline(app))
    return node


def markup_left(node):
    """Texts of the transcript that still hold Markdown syntax or a link's address."""
    found = []
    for child, _ in walk(node):
        role = child.getRoleName()
        parts = [child.name or "", text_of(child)]
        if role != "link":  # a link's own description is where its address belongs
            parts.append(child.description or "")
        for part in parts:
            if re.search(r"\*\*|```|\||https?://", part):
                found.append("%s [%s]: %r" % (role, child.name, part[:100]))
    return found


# The seeded conversation, with every block type, reads without its Markdown.
wait_for(lambda: transcript().childCount >= 2, 10, "the seeded conversation")
seeded = transcript()
print("-- the seeded conversation as a screen reader finds it:")
print(outline(seeded))
left = markup_left(seeded)
if left:
    fail("Markdown read aloud:\n" + "\n".join(left))
for role, name in [("table", None), ("link", "the docs"), ("heading", "Every block"),
                   ("push button", "Copy code"), ("list item", "\u2022 first")]:
    if find(seeded, role=role, name=name) is None:
        fail("no %s %s in the transcript" % (role, name or ""))

# A reply streams in; its end is announced with its first words.
focus_window(app_pid)
composer = find(app, role="text", name="Message")
if composer is None:
    fail("no composer named Message")
composer.queryComponent().grabFocus()
pump(0.5)
type_text("Read me a long reply")
keys("Return")


def mock_done():
    """The mock exits once it has sent the whole reply (its parent has not reaped it yet)."""
    try:
        state = open("/proc/%d/stat" % mock_pid).read().rsplit(")", 1)[1].split()[0]
    except FileNotFoundError:
        return True
    return state == "Z"


wait_for(mock_done, 60, "the reply to end")
ended = time.time()
pump(3.5)
print("-- announcements (seconds after the reply's end):")
for at, name in heard:
    print("%+6.2f  %r" % (at - ended, name))
told = [at - ended for at, name in heard if first_words in " ".join(name.split()) and 0 <= at - ended <= 3]
if not told:
    fail("no notification with %r within 3 s of the reply's end" % first_words)
print("-- the reply's end was announced %.2f s after it" % told[0])

left = markup_left(transcript())
if left:
    fail("Markdown read aloud after the reply:\n" + "\n".join(left))
print("PASS")
