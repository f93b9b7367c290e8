// The records of a request and its reply as every handler sees them: the request text with its
// payload or staged key, and the slot for the reply text the handler leaves behind. Each handler call
// on the road of a scan job is made with one such pair. The free functions release the records only,
// never the texts and buffers inside, which belong to whoever set them.
#include "fq_request_reply_types.h"

#include <stdlib.h>

fq_message_t* fq_message_new(void)
{
    return static_cast<fq_message_t*>(calloc(1, sizeof(fq_message_t)));
}

fq_const_message_t* fq_const_message_new(void)
{
    return static_cast<fq_const_message_t*>(calloc(1, sizeof(fq_const_message_t)));
}

void fq_message_init(fq_message_t* msg)
{
    if (msg)
        *msg = fq_message_t{};
}

void fq_const_message_init(fq_const_message_t* msg)
{
    if (msg)
        *msg = fq_const_message_t{};
}

fq_const_request_reply_t* fq_const_request_reply_new(void)
{
    auto* rr = static_cast<fq_const_request_reply_t*>(calloc(1, sizeof(fq_const_request_reply_t)));
    if (!rr)
        return nullptr;
    rr->request = fq_const_message_new();
    rr->reply = fq_message_new();
    if (!rr->request || !rr->reply) {
        fq_const_request_reply_free_structs(&rr);
        return nullptr;
    }
    return rr;
}

void fq_const_request_reply_free_structs(fq_const_request_reply_t** rr)
{
    if (!rr || !*rr)
        return;
    free((*rr)->request);
    free((*rr)->reply);
    free(*rr);
    *rr = nullptr;
}

void fq_request_reply_free_structs(fq_request_reply_t** rr)
{
    if (!rr || !*rr)
        return;
    free((*rr)->request);
    free((*rr)->reply);
    free(*rr);
    *rr = nullptr;
}
