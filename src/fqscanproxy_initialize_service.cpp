// The per-thread start-up hook of this service, called for each serving thread before it takes work.
// This service keeps nothing per thread, so it always succeeds; a service that needed an engine per
// thread would build it here and keep the thread from starting when it cannot.
#include "fq_worker.h"

int fq_initialize_service(fq_worker_thread_t* params, fq_service_description_t* pservice, char* errormsg,
                          size_t errormsg_maxlen)
{
    (void)params;
    (void)pservice;
    (void)errormsg;
    (void)errormsg_maxlen;
    return 0;
}
