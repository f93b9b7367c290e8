// The host name the worker puts into failed scan replies, in a buffer of the calling thread's own so
// that replies written on many threads at once never mix up their names. A host name that cannot be
// read is logged and given as null, never as a made-up name.
#include "fqhlp_network.h"

#include <string.h>
#include <unistd.h>

#include "log.h"

const char* fqhlp_GetMyFQDN(void)
{
    // One buffer per thread: scan replies on many threads ask for the name at once.
    static thread_local char hostname[2048];
    memset(hostname, 0, sizeof(hostname));
    if (gethostname(hostname, sizeof(hostname) - 1) != 0) {
        log_error("Failed to get hostname");
        return nullptr;
    }
    return hostname;
}
