// The service-init reply: how this worker presents itself to a client that asks SERVICE_GET_INFO
// (versions, signature counts, the time of its package, its name). The dispatcher answers it on the
// client subject. Without a service description it answers nothing of its own rather than invent one.
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

#include "fq_worker.h"
#include "log.h"

char* fq_worker_CreateServiceInitializeReply(int servicerc, const char* name, unsigned short version_major,
                                             unsigned short version_minor, unsigned int num_viruses,
                                             unsigned int num_variants, time_t package_time)
{
    if (!name) {
        log_error("Invalid parameter for DriverName");
        return nullptr;
    }
    json_object* root = json_object_new_object();
    if (!root) {
        log_error("Failed to create root JSON object");
        return nullptr;
    }
    json_object_object_add(root, "ReturnCode", json_object_new_int(servicerc));
    json_object_object_add(root, "MajorVersion", json_object_new_int(version_major));
    json_object_object_add(root, "MinorVersion", json_object_new_int(version_minor));
    json_object_object_add(root, "NumberOfViruses", json_object_new_int64(num_viruses));
    json_object_object_add(root, "NumberOfVariants", json_object_new_int64(num_variants));
    json_object_object_add(root, "Timestamp", json_object_new_int64(static_cast<int64_t>(package_time)));
    json_object_object_add(root, "DriverName", json_object_new_string(name));
    const char* text = json_object_to_json_string_ext(root, JSON_C_TO_STRING_SPACED);
    char* result = nullptr;
    if (!text)
        log_error("Failed to dump JSON Object to string buffer");
    else
        result = strdup(text);
    json_object_put(root);
    return result;
}

char* fq_worker_handle_service_init_request(json_object* request_json, fq_worker_thread_t* thread_args)
{
    (void)request_json;
    const fq_service_description_t* desc = thread_args && thread_args->global_parameters
                                               ? thread_args->global_parameters->serviceDescription
                                               : nullptr;
    char* reply = nullptr;
    if (desc) {
        reply = fq_worker_CreateServiceInitializeReply(
            0, desc->service_name, static_cast<unsigned short>(desc->service_major_version),
            static_cast<unsigned short>(desc->service_minor_version),
            static_cast<unsigned int>(desc->service_known_viruses),
            static_cast<unsigned int>(desc->service_known_variants), desc->update_time);
    }
    if (reply)
        fq_atomic_store(thread_args->currentstatus, READY);
    else
        log_error("Failed to create Service Initialization reply");
    return reply;
}
