// Growing text in memory. Nothing here throws: kNoMemory is the only fault.
#ifndef BASE_BYTES_HPP
#define BASE_BYTES_HPP

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include <sys/uio.h>

#include "fault.hpp"

namespace zevo {

// Bytes in one block.
class Bytes {
public:
    Bytes() noexcept = default;
    ~Bytes() { std::free(data_); }
    Bytes(Bytes &&other) noexcept { Swap(other); }
    Bytes &operator=(Bytes &&other) noexcept
    {
        Swap(other);
        return *this;
    }

    std::string_view view() const noexcept { return {data_ == nullptr ? "" : data_, size_}; }
    size_t size() const noexcept { return size_; }
    void Clear() noexcept { size_ = 0; }

    Fault Append(std::string_view text) noexcept
    {
        if (const Fault fault = Reserve(text.size())) return fault;
        if (!text.empty()) std::memcpy(end(), text.data(), text.size());
        size_ += text.size();
        return kNoFault;
    }

    // For a caller that writes into the block itself: Reserve(), at most freeBytes() bytes from end()
    // on, then Grow().
    Fault Reserve(size_t cbMore) noexcept
    {
        if (freeBytes() >= cbMore) return kNoFault;
        constexpr size_t kFirstBytes = 1000; // holds the sections of a few transfers
        size_t cbWanted = capacity_ == 0 ? kFirstBytes : capacity_ * 2;
        if (cbWanted < size_ + cbMore) cbWanted = size_ + cbMore;
        char *const pLarger = static_cast<char *>(std::realloc(data_, cbWanted));
        if (pLarger == nullptr) return kNoMemory;
        data_ = pLarger;
        capacity_ = cbWanted;
        return kNoFault;
    }
    char *begin() noexcept { return data_; }
    char *end() noexcept { return data_ + size_; }
    size_t freeBytes() const noexcept { return capacity_ - size_; }
    void Grow(size_t cb) noexcept { size_ += cb; }

private:
    void Swap(Bytes &other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

    char *data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

// Plain records, one behind the other.
template <class T> class Records {
public:
    Fault Append(const T &record) noexcept
    {
        if (const Fault fault = bytes_.Reserve(sizeof(T))) return fault;
        std::memcpy(bytes_.end(), &record, sizeof(T));
        bytes_.Grow(sizeof(T));
        return kNoFault;
    }
    void Clear() noexcept { bytes_.Clear(); }
    T *begin() noexcept { return reinterpret_cast<T *>(bytes_.begin()); }
    T *end() noexcept { return begin() + size(); }
    T &operator[](size_t i) noexcept { return begin()[i]; }
    size_t size() const noexcept { return bytes_.size() / sizeof(T); }

private:
    static_assert(std::is_trivially_copyable_v<T>);
    Bytes bytes_;
};

// A text put together from pieces of other texts, which must outlive it. A rewrite keeps most of the
// old text: the pieces are written from where they stand, without a copy.
class Pieces {
public:
    Fault Append(std::string_view text) noexcept
    {
        if (text.empty()) return kNoFault;
        if (text.data() == pEnd_) { // the next line of the same text: the last piece grows
            pieces_[count() - 1].iov_len += text.size();
        } else {
            const struct iovec piece = {const_cast<char *>(text.data()), text.size()};
            if (const Fault fault = pieces_.Append(piece)) return fault;
        }
        size_ += text.size();
        pEnd_ = text.data() + text.size();
        return kNoFault;
    }
    void Clear() noexcept
    {
        pieces_.Clear();
        size_ = 0;
        pEnd_ = nullptr;
    }
    size_t size() const noexcept { return size_; } // of the whole text
    struct iovec *begin() noexcept { return pieces_.begin(); }
    size_t count() const noexcept { return pieces_.size(); }

private:
    Records<struct iovec> pieces_;
    size_t size_ = 0;
    const char *pEnd_ = nullptr; // where the last piece ends
};

} // namespace zevo

#endif // BASE_BYTES_HPP
