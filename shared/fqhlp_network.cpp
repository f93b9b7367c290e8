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
