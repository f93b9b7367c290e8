// FQstrerror: the text of a system error for a log line, kept in a buffer of the calling thread's
// own so that threads reporting failures at the same time never overwrite each other's text. Used
// wherever a failure of the operating system is logged; it never fails and never allocates.
#include "fqerror.h"

#include <string.h>

const char* FQstrerror(int no)
{
    // One buffer per thread, so that threads formatting errors at once keep their own text.
    static thread_local char buffer[1024];
    memset(buffer, 0, sizeof(buffer));
    char tmp[1024];
    // GNU strerror_r may return a static string instead of filling tmp.
    const char* text = strerror_r(no, tmp, sizeof(tmp));
    strncpy(buffer, text ? text : "", 1022);
    return buffer;
}
