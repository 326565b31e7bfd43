// What the files themselves cost: the same bytes moved by bare system calls, with nothing read into
// them. The library cannot be faster; how close it comes is what bench/work.cpp shows.
#ifndef ZEVOBW_BENCH_FLOOR_HPP
#define ZEVOBW_BENCH_FLOOR_HPP

#include <string>

namespace bench {

// One file. Its buffer is made once, so that no allocation is part of the floor.
class Floor {
public:
    explicit Floor(std::string path);

    // open, fstat, read, close, and a look for what begins a section at the start of a line; how many
    // there are.
    std::size_t ReadAndScan();
    // open, fstat, read, close; then a temporary file: open, write, fsync, fchmod, close, rename.
    // The last cbLess bytes are left out.
    void Rewrite(std::size_t cbLess = 0);
    // open, write, fsync, close.
    void Append(const std::string &text) const;

private:
    std::size_t Read();

    std::string path_;
    std::string temporary_;
    std::string buffer_;
};

} // namespace bench

#endif // ZEVOBW_BENCH_FLOOR_HPP
