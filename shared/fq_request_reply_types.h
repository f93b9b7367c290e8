// A request and its reply as the handlers see them, and the codes of the wire.
#pragma once

#include <stddef.h>

// Values of "Command".
typedef enum {
    SERVICE_GET_INFO = 1,
    CLIENT_SERVICE_REQUEST = 2,
    PING_SERVICE = 3,
    SERVICE_REPORT_READY = 4,
    CLIENT_GET_TENANT_ID = 5,
    CONSOLIDATED_INIT = 6,
    CONTROL_SERVICE_SHUTDOWN = 9,
    CONTROL_SERVICE_CLEAR_CONFIG_CACHE = 10,
    CONTROL_GET_CONTROL_CONFIG_HASH = 11,
    CONTROL_SERVICE_CLEAR_ALL_CONFIG_CACHE = 12,
    SCAN_GET_CONFIG = 100,
    SCAN_ONLY = 101,
    SCAN_CLEAN = 102,
    SERVICE_WORKER_REGISTER = 200,
    SERVICE_WORKER_HWM_EXCEEDED = 201,
    SERVICE_WORKER_LWM_EXCEEDED = 202,
    SERVICE_GET_ACTIVECONTENT_CONFIG = 203,
    SERVICE_GET_MIME_EXT_MAP = 204,
    SERVICE_GET_MIME_TRANSLATIONS = 205,
    EPOLOG_GET_LOG = 400,
    EVENTHANDLER_REGISTRATION = 500,
    EVENTHANDLER_HANDLE_EVENT = 501,
    QUARANTINE_STORE_FILE = 600,
} fq_command_t;

// Values of "ReturnCode". Where two meet, the lower number is the more critical.
typedef enum {
    NOT_SET = 1000,
    SERVICE_NO_DATA = 301,
    SCAN_RECURSIVE_OK = 1,
    SCAN_OK = 0,
    SCAN_NOT_COMPLETED = -100,
    SCAN_FILE_CLEANED = -101,
    SCAN_RESULT_BLOCK = -199,
    SCAN_POLICY_VIOLATION = -200,
    SCAN_ACTIVE_CONTENT_FOUND = -202,
    SCAN_VIRUS_FOUND = -210,
    SERVICE_ERROR = -1000,
} fq_msg_replies;

typedef struct fq_message_t {
    char* json_txt;
    unsigned char* data;
    size_t data_len;
    const char* staged_data_key;  // not owned
} fq_message_t;

typedef struct fq_const_message_t {
    const char* json_txt;
    const unsigned char* data;
    size_t data_len;
    const char* staged_data_key;  // not owned
} fq_const_message_t;

typedef struct fq_const_request_reply_t {
    fq_const_message_t* request;
    fq_message_t* reply;
} fq_const_request_reply_t;

typedef struct fq_request_reply_t {
    fq_message_t* request;
    fq_message_t* reply;
} fq_request_reply_t;

// A service handler: reads rr->request, leaves a heap JSON text in rr->reply->json_txt.
typedef int (*fq_request_handler_f_t)(void* handler_config, fq_const_request_reply_t* rr);

fq_message_t* fq_message_new(void);
fq_const_message_t* fq_const_message_new(void);
void fq_message_init(fq_message_t* msg);
void fq_const_message_init(fq_const_message_t* msg);
fq_const_request_reply_t* fq_const_request_reply_new(void);
// Free the pair and its two message records, not the texts and buffers inside them.
void fq_const_request_reply_free_structs(fq_const_request_reply_t** rr);
void fq_request_reply_free_structs(fq_request_reply_t** rr);
