#pragma once

class QThreadPool;

// The threads the window's own background work runs on: colouring code, reading a conversation's
// text ahead for find. Kept apart from Qt's global pool, on which the paint engine shares out a
// large fill and waits for it: work of ours queued there would hold a repaint up.
//
// Made on first use; waited for and deleted as the application object is destroyed, while work
// still running can post its result to it (the result is then dropped). Main thread only.
QThreadPool *backgroundPool();
