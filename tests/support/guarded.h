// A copy of some bytes that ends where a protected page begins, and may begin at any address: reading past it ends the
// process, in every build.
#ifndef TESTS_SUPPORT_GUARDED_H
#define TESTS_SUPPORT_GUARDED_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace support {

class Guarded {
 public:
  explicit Guarded(const std::string& bytes) : size_(bytes.size()) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    mapped_ = (size_ + page - 1) / page * page + 2 * page;
    void* base = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) std::abort();
    base_ = static_cast<uint8_t*>(base);
    if (size_ > 0 && mprotect(base_ + page, mapped_ - 2 * page, PROT_READ | PROT_WRITE) != 0) std::abort();
    data_ = base_ + mapped_ - page - size_;
    if (size_ > 0) std::memcpy(data_, bytes.data(), size_);
  }
  ~Guarded() { munmap(base_, mapped_); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  uint8_t* data() const { return data_; }
  uint8_t* end() const { return data_ + size_; }
  size_t size() const { return size_; }

 private:
  size_t size_, mapped_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

}  // namespace support

#endif
