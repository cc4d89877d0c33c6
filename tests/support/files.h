// Files for tests: a directory that goes when its object does, whole-file reading and writing, golden files.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace support {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "qxdict-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << path;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  ASSERT_TRUE(out.good()) << path;
}

inline std::string GoldenPath(const std::string& name) { return std::string(QX_SOURCE_DIR) + "/tests/golden/" + name; }

// Golden files are compared, never written, by the tests; what a test got lies beside its other output for a human.
inline void ExpectGolden(const std::string& name, const std::string& bytes) {
  const std::string golden = ReadFile(GoldenPath(name));
  if (golden == bytes) return;
  WriteFile("actual-" + name, bytes);
  size_t at = 0;
  while (at < golden.size() && at < bytes.size() && golden[at] == bytes[at]) at++;
  ADD_FAILURE() << name << ": " << golden.size() << " golden bytes, " << bytes.size() << " actual, first difference at "
                << at << "; the actual bytes are in actual-" << name;
}

}  // namespace support

#endif
