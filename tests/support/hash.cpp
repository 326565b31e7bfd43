#include "hash.hpp"

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

Hash::Hash(const Pairs &pairs) : pHash_(VLIBCSzHashAlloc(1024))
{
    for (const auto &[key, value] : pairs)
        EXPECT_EQ(VLIBCSzHashSetValue(&pHash_, key.c_str(), value.c_str()), 0);
}

std::string Hash::operator[](const std::string &key) const
{
    const char *const szValue = VLIBCSzHashGetValue(pHash_, key.c_str());
    return szValue == nullptr ? "(absent)" : szValue;
}

std::string Hash::Text() const
{
    char *pText = nullptr;
    size_t cbText = 0;
    FILE *const pStream = ::open_memstream(&pText, &cbText);
    EXPECT_EQ(VLIBCFileHash2File(pStream, "s", pHash_, 0), 0);
    std::fclose(pStream);
    std::string text(pText, cbText);
    std::free(pText);
    return text;
}
