// A file of our own in a directory that nobody else may enter.
#ifndef ZEVOBW_TOOL_MODEL_SCRATCH_FILE_HPP
#define ZEVOBW_TOOL_MODEL_SCRATCH_FILE_HPP

#include <string>
#include <string_view>

namespace tool {

// The directory lies in TMPDIR, or in /tmp. It goes with the object, and with all that is in it, unless
// it is kept.
class ScratchFile {
public:
    // Throws Failure when the text cannot be written.
    ScratchFile(const std::string &name, std::string_view text);
    ~ScratchFile();
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;

    const std::string &directory() const { return directory_; }
    const std::string &path() const { return path_; }
    void Keep() { isKept_ = true; }

private:
    void Remove() const;

    std::string directory_;
    std::string path_;
    bool isKept_ = false;
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_SCRATCH_FILE_HPP
