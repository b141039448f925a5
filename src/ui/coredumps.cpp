#include "ui/coredumps.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace Shell {

void disableCoreDumps()
{
    // No core file for the kernel to write, and no attaching or reading /proc/<pid>/mem by
    // other processes of the same user.
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

} // namespace Shell
