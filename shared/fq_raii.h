// Scope guards for the C resources the worker uses: json-c objects, malloc'ed texts and buffers,
// NATS handles, files and descriptors. Every unit takes its guards from here, so that a resource
// is released on every path of a function without a ladder of gotos and without a deleter of
// its own in each file. The guards own exactly one handle and never share it.
#pragma once

#include <dirent.h>
#include <json-c/json.h>
#include <nats/nats.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

namespace fq {

template <auto Fn>
struct fn_deleter {
    template <typename T>
    void operator()(T* p) const
    {
        if (p)
            Fn(p);
    }
};

}  // namespace fq

// A parsed or built JSON value.
using fq_json_ptr = std::unique_ptr<json_object, fq::fn_deleter<json_object_put>>;
// A text or buffer from malloc, strdup, asprintf and the like.
using fq_cstr_ptr = std::unique_ptr<char, fq::fn_deleter<free>>;
using fq_buf_ptr = std::unique_ptr<unsigned char, fq::fn_deleter<free>>;
// NATS handles.
using fq_nats_msg_ptr = std::unique_ptr<natsMsg, fq::fn_deleter<natsMsg_Destroy>>;
using fq_nats_opts_ptr = std::unique_ptr<natsOptions, fq::fn_deleter<natsOptions_Destroy>>;
using fq_nats_sub_ptr = std::unique_ptr<natsSubscription, fq::fn_deleter<natsSubscription_Destroy>>;
using fq_kv_entry_ptr = std::unique_ptr<kvEntry, fq::fn_deleter<kvEntry_Destroy>>;
using fq_js_puback_ptr = std::unique_ptr<jsPubAck, fq::fn_deleter<jsPubAck_Destroy>>;
using fq_js_consumer_info_ptr = std::unique_ptr<jsConsumerInfo, fq::fn_deleter<jsConsumerInfo_Destroy>>;
using fq_json_tokener_ptr = std::unique_ptr<json_tokener, fq::fn_deleter<json_tokener_free>>;
// Files.
using fq_file_ptr = std::unique_ptr<FILE, fq::fn_deleter<fclose>>;
using fq_dir_ptr = std::unique_ptr<DIR, fq::fn_deleter<closedir>>;

// A file descriptor, closed when the guard goes.
class fq_fd_guard {
public:
    explicit fq_fd_guard(int fd = -1) : fd_(fd) {}
    ~fq_fd_guard() { reset(); }
    fq_fd_guard(const fq_fd_guard&) = delete;
    fq_fd_guard& operator=(const fq_fd_guard&) = delete;
    fq_fd_guard(fq_fd_guard&& o) noexcept : fd_(o.release()) {}
    fq_fd_guard& operator=(fq_fd_guard&& o) noexcept
    {
        if (this != &o)
            reset(o.release());
        return *this;
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};
