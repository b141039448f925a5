#pragma once

class QAccessibleInterface;
class QObject;
class QString;

// Screen-reader access to the transcript. The transcript builds bubbles only near the visible
// area, so its accessible interface lists every message of the conversation itself: a built
// bubble is reported by its widget, any other message by a light stand-in with the same role and
// text. Installed once per process by the transcript.
void installTranscriptAccessibility();
