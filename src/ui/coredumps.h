#pragma once

namespace Shell {

// Keeps the process out of core dumps and out of reach of other processes' debuggers: its memory
// holds the user's API keys and conversations. Call once, first thing in main().
void disableCoreDumps();

} // namespace Shell
