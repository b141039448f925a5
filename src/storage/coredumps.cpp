#include "storage/coredumps.h"

#include <sys/prctl.h>
#include <sys/resource.h>

bool disableCoreDumps()
{
    // The size limit alone is not enough: with a core pattern that pipes to a program the kernel
    // ignores it, while a process that is not dumpable is never dumped at all.
    const rlimit none = {0, 0};
    const bool limited = ::setrlimit(RLIMIT_CORE, &none) == 0;
    const bool undumpable = ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
    return limited && undumpable;
}
