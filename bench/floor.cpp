#include "floor.hpp"

#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "measure.hpp"

namespace bench {

Floor::Floor(std::string path) : path_(std::move(path)), temporary_(path_ + ".floor") {}

std::size_t Floor::Read()
{
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (fd < 0 || ::fstat(fd, &status) < 0) Die("cannot open " + path_);
    const auto cbFile = static_cast<std::size_t>(status.st_size);
    if (buffer_.size() < cbFile) buffer_.resize(cbFile * 2);
    if (::read(fd, buffer_.data(), cbFile) != status.st_size) Die("cannot read " + path_);
    ::close(fd);
    return cbFile;
}

std::size_t Floor::ReadAndScan()
{
    const std::size_t cbFile = Read();
    const char *at = buffer_.data();
    const char *const end = at + cbFile;
    std::size_t count = cbFile != 0 && *at == '[' ? 1 : 0;
    while ((at = static_cast<const char *>(
                std::memchr(at, '\n', static_cast<std::size_t>(end - at)))) != nullptr) {
        ++at;
        if (at == end) break;
        if (*at == '[') ++count;
    }
    return count;
}

void Floor::Rewrite(std::size_t cbLess)
{
    const std::size_t cbText = Read() - cbLess;
    const int fd = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const bool written = fd >= 0 &&
                         ::write(fd, buffer_.data(), cbText) == static_cast<ssize_t>(cbText) &&
                         ::fsync(fd) == 0 && ::fchmod(fd, 0666) == 0 && ::close(fd) == 0 &&
                         std::rename(temporary_.c_str(), path_.c_str()) == 0;
    if (!written) Die("cannot rewrite " + path_);
}

void Floor::Append(const std::string &text) const
{
    const int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(fd) == 0 && ::close(fd) == 0;
    if (!written) Die("cannot append to " + path_);
}

} // namespace bench
