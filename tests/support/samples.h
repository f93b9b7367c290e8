// Objects the scan tests send: the test signatures, text, and archives made in memory.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace fqtest {

// Put together at run time, so that no source file is itself a finding.
inline const std::string kEicar =
    std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
// The pattern the shipped fq-av-clamav database has a signature for.
inline const std::string kPattern = std::string("FQ-AV-TEST-") + "PATTERN-VIRUS-7D3E19A4";
inline const std::string kText = "Dear reader,\nnothing to see here but two lines of text.\n";

// n bytes of a pattern that differs with seed and shows no period at chunk boundaries.
inline std::vector<unsigned char> pattern(size_t n, unsigned seed = 0)
{
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = (unsigned char)((i * 131 + seed * 7 + (i >> 9)) & 0xff);
    return v;
}

using Members = std::vector<std::pair<std::string, std::string>>;
enum class ArchiveKind { Zip, TarGz, Gz };

// Zip members are deflated, so that no member's bytes show in the archive; Gz is one compressed
// file without an archive around it. Empty when libarchive cannot write it.
std::string make_archive(ArchiveKind kind, const Members& members, const char* passphrase = nullptr);
inline std::string make_zip(const Members& members, const char* passphrase = nullptr)
{
    return make_archive(ArchiveKind::Zip, members, passphrase);
}

}  // namespace fqtest
