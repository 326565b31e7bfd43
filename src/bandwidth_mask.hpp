// The file-creation mask belongs to the whole host process. It is touched only while something of
// ours is really made, by one thread at a time.
#ifndef BANDWIDTH_MASK_HPP
#define BANDWIDTH_MASK_HPP

namespace bandwidth {

// Clears the process's creation mask while it lives. Threads wait for each other.
class OpenMaskScope {
public:
    OpenMaskScope() noexcept;
    ~OpenMaskScope();
    OpenMaskScope(const OpenMaskScope &) = delete;
    OpenMaskScope &operator=(const OpenMaskScope &) = delete;
};

} // namespace bandwidth

#endif // BANDWIDTH_MASK_HPP
