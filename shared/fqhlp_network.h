#pragma once

// The host name as gethostname gives it, in a buffer of the calling thread (valid until that
// thread calls again); null on failure.
const char* fqhlp_GetMyFQDN(void);
