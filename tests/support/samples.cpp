#include "samples.h"

#include <archive.h>
#include <archive_entry.h>

#include "fq_raii.h"

namespace fqtest {

std::string make_archive(ArchiveKind kind, const Members& members, const char* passphrase)
{
    size_t total = 4096;
    for (const auto& m : members)
        total += m.first.size() * 2 + m.second.size() + 1024;
    std::vector<char> buf(total);
    size_t used = 0;
    fq_archive_write_ptr a(archive_write_new());
    if (kind == ArchiveKind::Zip) {
        archive_write_set_format_zip(a.get());
        archive_write_zip_set_compression_deflate(a.get());
    } else {
        if (kind == ArchiveKind::Gz)
            archive_write_set_format_raw(a.get());
        else
            archive_write_set_format_pax_restricted(a.get());
        archive_write_add_filter_gzip(a.get());
    }
    if (passphrase && (archive_write_set_options(a.get(), "zip:encryption=zipcrypt") != ARCHIVE_OK ||
                       archive_write_set_passphrase(a.get(), passphrase) != ARCHIVE_OK))
        return "";
    if (archive_write_open_memory(a.get(), buf.data(), buf.size(), &used) != ARCHIVE_OK)
        return "";
    bool ok = true;
    for (const auto& m : members) {
        fq_archive_entry_ptr e(archive_entry_new());
        archive_entry_set_pathname(e.get(), m.first.c_str());
        archive_entry_set_size(e.get(), (la_int64_t)m.second.size());
        archive_entry_set_filetype(e.get(), AE_IFREG);
        archive_entry_set_perm(e.get(), 0644);
        ok = ok && archive_write_header(a.get(), e.get()) == ARCHIVE_OK &&
             archive_write_data(a.get(), m.second.data(), m.second.size()) == (la_ssize_t)m.second.size();
    }
    ok = ok && archive_write_close(a.get()) == ARCHIVE_OK;
    return ok ? std::string(buf.data(), used) : "";
}

}  // namespace fqtest
