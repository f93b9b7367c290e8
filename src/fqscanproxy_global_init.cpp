// What this service sets up once for the process and takes down at its end: the service description
// that the service-init reply and the registry record show (its name from FQ_CLOUD_MODE and
// FQ_CLUSTER_NAME), libsodium, and OpenSSL's clean-up. main calls it before any serving thread exists
// and retries a failed init; nothing is left half set up.
#include <openssl/crypto.h>
#include <sodium.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include "fq_worker.h"
#include "log.h"

const char* fq_worker_service_name_from_env(void)
{
    // Only the presence of FQ_CLOUD_MODE counts, not its value.
    if (!getenv("FQ_CLOUD_MODE"))
        return FQ_SERVICE_DISPLAY_NAME;
    const char* cluster = getenv("FQ_CLUSTER_NAME");
    return cluster ? cluster : "Cloud scan proxy";
}

int fq_worker_global_init(fq_worker_config_t* config, fq_thread_global_params_t* global_params, char* errormsg)
{
    (void)errormsg;
    srand(static_cast<unsigned>(clock()));

    // A program directory that cannot be examined gives the time of the start instead,
    // so that the service-init reply never carries an undefined time.
    struct stat st;
    if (config && config->progdir && stat(config->progdir, &st) == 0)
        global_params->update_time = st.st_mtime;
    else
        global_params->update_time = time(nullptr);

    auto* desc = static_cast<fq_service_description_t*>(calloc(1, sizeof(fq_service_description_t)));
    if (!desc) {
        log_fatal("Failed to allocate serviceDescription");
        return -1;
    }
    desc->service_name = const_cast<char*>(fq_worker_service_name_from_env());
    desc->service_major_version = FQ_SERVICE_VERSION_MAJOR;
    desc->service_minor_version = FQ_SERVICE_VERSION_MINOR;
    desc->service_known_viruses = 0;
    desc->service_known_variants = 0;
    desc->update_time = global_params->update_time;

    if (sodium_init() < 0) {
        log_error("Failed to initialize libsodium");
        free(desc);
        return -1;
    }
    if (config && !config->quarantine_encryption_keys)
        config->quarantine_encryption_keys = zlist_new();
    free(global_params->serviceDescription);
    global_params->serviceDescription = desc;
    log_trace("Global Init complete");
    return 0;
}

int fq_worker_global_cleanup(fq_worker_config_t* config, fq_thread_global_params_t* global_params, char* errormsg)
{
    (void)config;
    (void)global_params;
    (void)errormsg;
    log_debug("Cleaning up SSL");
    OPENSSL_cleanup();
    return 0;
}
