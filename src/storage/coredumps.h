#pragma once

// The process holds every API key in memory: a core dump would write them to disk (and often hand
// them to a crash collector). Turns core dumps off for this process; call it first thing in main.
// Returns false when the system refused.
bool disableCoreDumps();
