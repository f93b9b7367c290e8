// Scope guards for the C resources the worker uses: json-c objects, malloc'ed texts and buffers,
// NATS handles, files, directories, descriptors, archives, locks and the worker's own records.
// Every unit takes its guards from here, so that a resource is released on every path of a
// function without a ladder of gotos and without a deleter of its own in each file. The guards
// own exactly one handle and never share it.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <dirent.h>
#include <errno.h>
#include <json-c/json.h>
#include <nats/nats.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include "fq_connection_client.h"
#include "fq_request_reply_types.h"
#include "fq_secretbox_encryption.h"
#include "fq_worker_RecursiveScan.h"
#include "fq_worker_scan_result.h"
#include "fq_worker_scanobject.h"

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

// For the worker's records, whose free functions take the address of the pointer.
template <auto Fn>
struct ref_deleter {
    template <typename T>
    void operator()(T* p) const
    {
        if (p)
            Fn(&p);
    }
};

}  // namespace fq

// A parsed or built JSON value.
using fq_json_ptr = std::unique_ptr<json_object, fq::fn_deleter<json_object_put>>;
// A text or buffer from malloc, strdup, asprintf and the like.
using fq_cstr_ptr = std::unique_ptr<char, fq::fn_deleter<free>>;
using fq_buf_ptr = std::unique_ptr<unsigned char, fq::fn_deleter<free>>;
// NATS handles.
using fq_nats_conn_ptr = std::unique_ptr<natsConnection, fq::fn_deleter<natsConnection_Destroy>>;
using fq_nats_msg_ptr = std::unique_ptr<natsMsg, fq::fn_deleter<natsMsg_Destroy>>;
using fq_nats_inbox_ptr = std::unique_ptr<natsInbox, fq::fn_deleter<natsInbox_Destroy>>;
using fq_nats_opts_ptr = std::unique_ptr<natsOptions, fq::fn_deleter<natsOptions_Destroy>>;
using fq_nats_sub_ptr = std::unique_ptr<natsSubscription, fq::fn_deleter<natsSubscription_Destroy>>;
using fq_kv_entry_ptr = std::unique_ptr<kvEntry, fq::fn_deleter<kvEntry_Destroy>>;
using fq_js_ctx_ptr = std::unique_ptr<jsCtx, fq::fn_deleter<jsCtx_Destroy>>;
using fq_js_puback_ptr = std::unique_ptr<jsPubAck, fq::fn_deleter<jsPubAck_Destroy>>;
using fq_js_consumer_info_ptr = std::unique_ptr<jsConsumerInfo, fq::fn_deleter<jsConsumerInfo_Destroy>>;
using fq_json_tokener_ptr = std::unique_ptr<json_tokener, fq::fn_deleter<json_tokener_free>>;
// cURL handles.
using fq_curl_ptr = std::unique_ptr<CURL, fq::fn_deleter<curl_easy_cleanup>>;
using fq_curl_mime_ptr = std::unique_ptr<curl_mime, fq::fn_deleter<curl_mime_free>>;
using fq_curl_slist_ptr = std::unique_ptr<struct curl_slist, fq::fn_deleter<curl_slist_free_all>>;
// Files, directories and archives.
using fq_file_ptr = std::unique_ptr<FILE, fq::fn_deleter<fclose>>;
using fq_dir_ptr = std::unique_ptr<DIR, fq::fn_deleter<closedir>>;
using fq_archive_read_ptr = std::unique_ptr<struct archive, fq::fn_deleter<archive_read_free>>;
using fq_archive_write_ptr = std::unique_ptr<struct archive, fq::fn_deleter<archive_write_free>>;
using fq_archive_entry_ptr = std::unique_ptr<struct archive_entry, fq::fn_deleter<archive_entry_free>>;
// The worker's records.
using fq_scan_result_ptr = std::unique_ptr<fq_worker_scan_result_t, fq::ref_deleter<fq_worker_free_scan_result>>;
using fq_file_scan_result_ptr =
    std::unique_ptr<fq_worker_file_scan_result_t, fq::ref_deleter<fq_worker_free_file_scan_result>>;
using fq_scanobject_ptr = std::unique_ptr<fq_worker_scanobject_t, fq::ref_deleter<fq_worker_FreeScanObject>>;
// The pair and its two message records; the texts and buffers inside stay with whoever set them.
using fq_const_rr_ptr =
    std::unique_ptr<fq_const_request_reply_t, fq::ref_deleter<fq_const_request_reply_free_structs>>;
// A list from fq_worker_tokenize_services.
using fq_services_list_ptr = std::unique_ptr<char*, fq::ref_deleter<fq_worker_free_services_list>>;
using fq_secretbox_key_ptr = std::unique_ptr<fq_secretbox_key_t, fq::fn_deleter<fq_secretbox_free_key>>;

// A payload this scope staged itself: removed from the store (and the key freed) however the
// scope ends. key is filled by fq_connection_stage_scan_data.
struct fq_staged_key {
    fq_connection_config* cfg = nullptr;
    char* key = nullptr;
    explicit fq_staged_key(fq_connection_config* c) : cfg(c) {}
    ~fq_staged_key()
    {
        if (key) {
            fq_connection_unstage_scan_data(cfg, key);
            free(key);
        }
    }
    fq_staged_key(const fq_staged_key&) = delete;
    fq_staged_key& operator=(const fq_staged_key&) = delete;
};

// A pthread mutex held for the guard's scope.
class fq_mutex_lock {
public:
    explicit fq_mutex_lock(pthread_mutex_t* mu) : mu_(mu) { pthread_mutex_lock(mu_); }
    ~fq_mutex_lock() { pthread_mutex_unlock(mu_); }
    fq_mutex_lock(const fq_mutex_lock&) = delete;
    fq_mutex_lock& operator=(const fq_mutex_lock&) = delete;

private:
    pthread_mutex_t* mu_;
};

// A file descriptor, closed when the guard goes; the close leaves errno as the caller's failure set it.
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
        if (fd_ >= 0) {
            const int saved = errno;
            close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_;
};
