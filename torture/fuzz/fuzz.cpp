#include "fuzz.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fuzz {

void Require(bool holds, const char *szWhat)
{
    if (holds) return;
    std::fprintf(stderr, "violated: %s\n", szWhat);
    std::abort();
}

std::string_view CutLine(std::string_view &text)
{
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    return line;
}

std::string CString(std::string_view text)
{
    return std::string(text.substr(0, text.find('\0')));
}

File::File(const char *szPath) : path_(szPath)
{
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
}

void File::Write(std::string_view text) const
{
    std::filesystem::remove(path_); // a file under the same name, but another one
    std::ofstream stream(path_, std::ios::binary);
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    stream.close();
    Require(!stream.fail(), "the target's own file can be written");
}

std::string File::Read() const
{
    std::ostringstream text;
    text << std::ifstream(path_, std::ios::binary).rdbuf();
    return text.str();
}

Hash::Hash() : pHash_(VLIBCSzHashAlloc(64))
{
    Require(pHash_ != nullptr, "there is memory for a hash");
}

void Hash::Set(const std::string &key, const std::string &value)
{
    Require(VLIBCSzHashSetValue(&pHash_, key.c_str(), value.c_str()) >= 0, "a value can be set");
}

std::map<std::string, std::string> CutPairs(std::string_view &text, Hash &hash)
{
    std::map<std::string, std::string> pairs;
    while (!text.empty()) {
        const std::string line = CString(CutLine(text));
        const std::size_t equals = line.find('=');
        if (equals == line.npos) break;
        const std::string key = line.substr(0, equals);
        hash.Set(key, pairs[key] = line.substr(equals + 1));
    }
    return pairs;
}

std::vector<std::string> Sections(const File &file)
{
    VLIB_SZ_LIST *pList = VLIBCSzListAlloc(0);
    Require(pList != nullptr, "there is memory for a list");
    const int count = VLIBCFileEnumSection(file.path(), &pList);
    Require(count == pList->nItem, "a listing counts its sections");
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.emplace_back(VLIBCSzListGet(pList, i));
    VLIBCSzListFree(pList);
    return names;
}

} // namespace fuzz
