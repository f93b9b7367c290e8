#include "fq_worker.h"

// Per-thread start-up hook; this service needs nothing per thread.
int fq_initialize_service(fq_worker_thread_t* params, fq_service_description_t* pservice, char* errormsg,
                          size_t errormsg_maxlen)
{
    (void)params;
    (void)pservice;
    (void)errormsg;
    (void)errormsg_maxlen;
    return 0;
}
