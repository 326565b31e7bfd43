// A string hash of the platform, as tests fill it and read it.
#ifndef ZEVOBW_TESTS_HASH_HPP
#define ZEVOBW_TESTS_HASH_HPP

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "zevocore.h"

using Pairs = std::vector<std::pair<std::string, std::string>>;

class Hash {
public:
    Hash(std::initializer_list<Pairs::value_type> pairs = {}) : Hash(Pairs(pairs)) {}
    explicit Hash(const Pairs &pairs);
    ~Hash() { VLIBCSzHashFree(pHash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    VLIB_SZ_HASH *get() const { return pHash_; }
    VLIB_SZ_HASH **address() { return &pHash_; }
    std::string operator[](const std::string &key) const; // "(absent)" without it
    std::string Text() const;                             // as section "s" of a file

private:
    VLIB_SZ_HASH *pHash_;
};

#endif // ZEVOBW_TESTS_HASH_HPP
