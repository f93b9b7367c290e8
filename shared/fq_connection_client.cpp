#include "fq_connection_client.h"

#include <stdlib.h>

fq_connection_config* fq_connection_config_new(void)
{
    return static_cast<fq_connection_config*>(calloc(1, sizeof(fq_connection_config)));
}
