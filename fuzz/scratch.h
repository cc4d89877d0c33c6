// A directory in memory, for the whole run of a fuzzer.
#ifndef FUZZ_SCRATCH_H
#define FUZZ_SCRATCH_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace fuzz {

class Scratch {
 public:
  Scratch() {
    if (mkdtemp(name_.data()) == nullptr) std::abort();
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
  }
  const std::string& name() const { return name_; }

 private:
  std::string name_ = "/dev/shm/qxdict-fuzz-XXXXXX";
};

inline const std::string& Directory() {
  static const Scratch scratch;
  return scratch.name();
}

}  // namespace fuzz

#endif
