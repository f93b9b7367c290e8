// fq-av-worker-control: the control service a worker pings before it takes work; until it answers,
// a worker waits and takes no scan jobs. Every request on fq-av-worker-control is answered
// {"ReturnCode": 0}: this reference peer holds no state and never refuses.
#include "fqhlp_replies.h"
#include "log.h"
#include "peer_common.h"

namespace {

int s_control_handler(void* context, fq_const_request_reply_t* rr)
{
    (void)context;
    if (!rr || !rr->reply)
        return -1;
    if (rr->request && rr->request->json_txt) {
        fq_json_ptr request(peer_parse_object(rr->request->json_txt));
        log_debug("Control request, command %d", request ? peer_read_command(request.get()) : -1);
    }
    fq_reply_set_OK(&rr->reply->json_txt);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    peer_program_t program{
        "fq-av-worker-control",
        "[options]",
        "Serves the subject fq-av-worker-control in its queue group and answers every request (a\n"
        "worker's ping {\"Command\": 3} or anything else) with {\"ReturnCode\": 0}.",
        {},
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;
    return peer_serve(program, opts, {"fq-av-worker-control", s_control_handler, nullptr, false});
}
