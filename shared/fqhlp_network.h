#pragma once

// The host name as gethostname gives it, in a static buffer shared by all callers; null on failure.
const char* fqhlp_GetMyFQDN(void);
