// What the fuzz targets share. Each is one file NAME_fuzz.cpp with libFuzzer's entry point, which
// reads its input as text, so that the corpus can be read and written by hand. Built by clang with its
// fuzzer to search (scripts/fuzz), by any compiler to replay the corpus as an ordinary test.
#ifndef ZEVOBW_FUZZ_HPP
#define ZEVOBW_FUZZ_HPP

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zevocore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb);

namespace fuzz {

inline std::string_view Text(const std::uint8_t *pBytes, std::size_t cb)
{
    return {reinterpret_cast<const char *>(pBytes), cb};
}

// Ends the program, and with it the run, as a finding.
void Require(bool holds, const char *szWhat);

// Cuts the next line off, without its line end.
std::string_view CutLine(std::string_view &text);

// A text as C takes it: up to the first NUL.
std::string CString(std::string_view text);

// The one file that a target works on, in a directory of its own.
class File {
public:
    explicit File(const char *szPath); // makes the directory
    const char *path() const { return path_.c_str(); }
    void Write(std::string_view text) const;
    std::string Read() const;

private:
    std::string path_;
};

// A string hash of the platform.
class Hash {
public:
    Hash();
    ~Hash() { VLIBCSzHashFree(pHash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    VLIB_SZ_HASH **address() { return &pHash_; }
    VLIB_SZ_HASH *get() const { return pHash_; }
    void Set(const std::string &key, const std::string &value);

private:
    VLIB_SZ_HASH *pHash_;
};

// Sets the pairs that stand as "key=value" lines up to an empty line, and cuts them off; returns them.
std::map<std::string, std::string> CutPairs(std::string_view &text, Hash &hash);

// The names of all sections, as the platform lists them.
std::vector<std::string> Sections(const File &file);

} // namespace fuzz

#endif // ZEVOBW_FUZZ_HPP
