// SipHash-1-3, seeded once for the process: strong enough against chosen texts, and quick on short
// ones.
#include "text_index.hpp"

#include <bit>
#include <cstring>

#include <sys/random.h>

namespace zevo {
namespace {

struct Seed {
    uint64_t k0 = 0;
    uint64_t k1 = 0;

    Seed() noexcept
    {
        // Early at boot there may be no randomness yet: then the address layout has to do.
        if (::getrandom(this, sizeof(*this), GRND_NONBLOCK) != sizeof(*this))
            k0 ^= reinterpret_cast<uintptr_t>(this);
    }
};

// Made when the library is loaded: a forked child must not wait for another thread to make it.
const Seed seed;

class Sip {
public:
    void Add(uint64_t word) noexcept
    {
        v3_ ^= word;
        Round();
        v0_ ^= word;
    }
    uint64_t Finish() noexcept
    {
        v2_ ^= 0xFF;
        Round();
        Round();
        Round();
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

private:
    void Round() noexcept
    {
        v0_ += v1_, v1_ = std::rotl(v1_, 13) ^ v0_, v0_ = std::rotl(v0_, 32);
        v2_ += v3_, v3_ = std::rotl(v3_, 16) ^ v2_;
        v0_ += v3_, v3_ = std::rotl(v3_, 21) ^ v0_;
        v2_ += v1_, v1_ = std::rotl(v1_, 17) ^ v2_, v2_ = std::rotl(v2_, 32);
    }

    uint64_t v0_ = seed.k0 ^ 0x736F6D6570736575;
    uint64_t v1_ = seed.k1 ^ 0x646F72616E646F6D;
    uint64_t v2_ = seed.k0 ^ 0x6C7967656E657261;
    uint64_t v3_ = seed.k1 ^ 0x7465646279746573;
};

} // namespace

uint32_t SeededHash(std::string_view text) noexcept
{
    Sip sip;
    const uint64_t length = text.size();
    uint64_t word = 0;
    for (; text.size() >= sizeof(word); text.remove_prefix(sizeof(word))) {
        std::memcpy(&word, text.data(), sizeof(word));
        sip.Add(word);
    }
    word = length << 56;
    text.copy(reinterpret_cast<char *>(&word), text.size());
    sip.Add(word);
    return static_cast<uint32_t>(sip.Finish());
}

} // namespace zevo
