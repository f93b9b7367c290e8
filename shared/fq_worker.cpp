#include "fq_worker.h"

#include "log.h"

volatile sig_atomic_t killed = 0;

int fq_worker_main(int argc, char** argv)
{
    (void)argc;
    (void)argv;
    return 0;
}

#ifdef FQ_WORKER_MAIN
int main(int argc, char** argv)
{
    return fq_worker_main(argc, argv);
}
#endif
