#include "model/scratch_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/descriptor.hpp"
#include "base/write_file.hpp"

#include "failure.hpp"

namespace tool {

ScratchFile::ScratchFile(const std::string &name, std::string_view text)
{
    const char *const chosen = std::getenv("TMPDIR");
    directory_ = chosen != nullptr && *chosen != '\0' ? chosen : "/tmp";
    directory_ += "/zevobandwidth.XXXXXX";
    if (::mkdtemp(directory_.data()) == nullptr)
        throw Failure(kFailed, "cannot make a directory for the text in " + directory_ + ": " +
                                   std::strerror(errno) + "; set TMPDIR to another place");
    path_ = directory_ + "/" + name;
    const zevo::Place place(path_.c_str());
    const zevo::Fd file =
        zevo::OpenAt(place.dir(), place.name(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    if (file && !zevo::WriteAll(file.get(), text)) return;
    const int error = errno;
    Remove();
    throw Failure(kFailed, "cannot write " + path_ + ": " + std::strerror(error) +
                               "; make room there, or set TMPDIR to another place");
}

ScratchFile::~ScratchFile()
{
    if (!isKept_) Remove();
}

void ScratchFile::Remove() const
{
    std::error_code ignored; // nothing is lost with it
    std::filesystem::remove_all(directory_, ignored);
}

} // namespace tool
