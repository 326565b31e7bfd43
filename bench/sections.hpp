// Section files in the platform's own form, written in one go: section by section through the
// library they would take minutes.
#ifndef ZEVOBW_BENCH_SECTIONS_HPP
#define ZEVOBW_BENCH_SECTIONS_HPP

#include <cstdio>
#include <memory>
#include <string>

#include <zevocore.h>

#include "measure.hpp"

namespace bench {

class SectionWriter {
public:
    explicit SectionWriter(const std::string &path)
        : file_(std::fopen(path.c_str(), "we"), &std::fclose), hash_(VLIBCSzHashAlloc(0))
    {
        if (!file_ || hash_ == nullptr) Die("cannot write " + path);
    }
    ~SectionWriter() { VLIBCSzHashFree(hash_); }
    SectionWriter(const SectionWriter &) = delete;
    SectionWriter &operator=(const SectionWriter &) = delete;

    template <typename Record>
    void Write(const std::string &section, const Record &record,
               int (*toHash)(VLIB_SZ_HASH **, const Record *) noexcept)
    {
        if (toHash(&hash_, &record) != 0 ||
            VLIBCFileHash2File(file_.get(), section.c_str(), hash_, 0) < 0)
            Die("cannot write a section");
        std::fputc('\n', file_.get());
    }

private:
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file_;
    VLIB_SZ_HASH *hash_;
};

} // namespace bench

#endif // ZEVOBW_BENCH_SECTIONS_HPP
