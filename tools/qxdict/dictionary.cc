// .dic files. An image is measured against docs/formats.md before the library looks anything up in it.

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "dict/qxdict.hpp"
#include "report.h"
#include "text.h"
#include "tool.h"

namespace tool {
namespace {

constexpr size_t kHeader = 48;

// A mapped dictionary file.
class Image {
 public:
  explicit Image(const std::string& path) {
    Boolean empty = FALSE;
    bytes_ = static_cast<UByte*>(FileMapRead(nullptr, path.c_str(), &size_, &empty));
    if (bytes_ == nullptr && empty) throw Trouble{path + ": is empty"};
    if (bytes_ == nullptr) throw Trouble{"cannot read " + path + ": " + std::strerror(errno)};
    opened_ = HashDictMemOpen_(&dict_, bytes_, size_, FALSE) != FALSE;
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;
  ~Image() { FileUnmap(bytes_, size_); }

  // Whether the file is as long as its header says; only then the record's fields mean anything.
  bool opened() const { return opened_; }
  size_t size() const { return size_; }
  const HashDict& dict() const { return dict_; }

 private:
  UByte* bytes_ = nullptr;
  size_t size_ = 0;
  bool opened_ = false;
  HashDict dict_ = {};
};

// A number of the image, which may lie at any address.
template <class Number>
Number At(const Number* numbers, size_t i) {
  Number number;
  std::memcpy(&number, reinterpret_cast<const UByte*>(numbers) + i * sizeof number, sizeof number);
  return number;
}

ULong RoundUp(ULong n) { return (n + 7) / 8 * 8; }

void CheckHeader(const Image& image, Report* report) {
  const HashDict& d = image.dict();
  if (d.h_nentries > 1717986914) return report->Problem("more keys than a dictionary can have");
  const ULong vertices = ULong{d.h_nentries} + d.h_nentries / 4 + 5;
  if (d.h_size != vertices) {
    report->Problem(std::to_string(d.h_size) + " vertices where the keys need " + std::to_string(vertices));
  }
  if (d.h_nchars > 256) report->Problem("more than 256 byte values");
  if (d.h_nbits < 1 || d.h_nbits > 32) report->Problem("a value of " + std::to_string(d.h_nbits) + " bits");
  if (d.h_probe > 8) report->Problem("a probe code of " + std::to_string(d.h_probe) + " bytes");
  const auto expect = [report](const char* what, ULong is, ULong wanted) {
    if (is == wanted) return;
    report->Problem(std::to_string(is) + " bytes of " + what + " where the header asks for " + std::to_string(wanted));
  };
  expect("ranks", d.h_rank_size, 512);
  expect("coefficients", d.h_coef_size, RoundUp(ULong{12} * d.h_maxlen * d.h_nchars));
  expect("function values", d.h_fun_size, ((ULong{d.h_size} + 1) * d.h_nbits + 63) / 64 * 8);
  expect("probe codes", d.h_probe_size, RoundUp(ULong{d.h_nentries} * d.h_probe * d.h_probe));
  const ULong all = kHeader + d.h_rank_size + d.h_coef_size + d.h_fun_size + d.h_probe_size;
  if (image.size() != all) report->Problem(std::to_string(image.size() - all) + " bytes behind the image");
}

void CheckArrays(const HashDict& d, Report* report) {
  std::vector<bool> seen(d.h_nchars);
  size_t ranked = 0;
  for (size_t byte = 0; byte < 256; byte++) {
    const int rank = At(d.h_rank, byte);
    if (rank == -1) continue;
    if (rank < 0 || rank >= d.h_nchars || seen[static_cast<size_t>(rank)]) {
      report->Problem("byte " + std::to_string(byte) + " has the rank " + std::to_string(rank));
      continue;
    }
    seen[static_cast<size_t>(rank)] = true;
    ranked++;
  }
  if (ranked != d.h_nchars) {
    report->Problem(std::to_string(ranked) + " bytes have ranks, not " + std::to_string(d.h_nchars));
  }
  const size_t coefficients = size_t{3} * d.h_maxlen * d.h_nchars;
  for (size_t i = 0; i < coefficients; i++) {
    const Id coefficient = At(d.h_coef, i);
    if (coefficient >= d.h_size) {
      report->Problem("coefficient " + std::to_string(i) + " is " + std::to_string(coefficient) + ", not below " +
                      std::to_string(d.h_size));
    }
  }
}

// Everything that can be known of an image without its keys.
void CheckImage(const Image& image, Report* report) {
  if (!image.opened()) return report->Problem("is shorter than its header says, or has none");
  CheckHeader(image, report);
  if (report->sound()) CheckArrays(image.dict(), report);
}

// An image that look-ups may trust.
void MustBeSound(const std::string& path, const Image& image) {
  Report report;
  CheckImage(image, &report);
  if (!report.sound()) throw Trouble{path + ": is damaged; see qxdict check"};
}

Exit Info(const std::string& path, const Options& options, std::FILE* out) {
  const Image image(path);
  if (!image.opened()) throw Trouble{path + ": is no dictionary: shorter than its header says, or without one"};
  const HashDict& d = image.dict();
  Report report;
  report.Add("kind", "dictionary");
  report.Add("keys", ULong{d.h_nentries});
  report.Add("longest key", ULong{d.h_maxlen});
  report.Add("byte values", ULong{d.h_nchars});
  report.Add("value bits", ULong{d.h_nbits});
  report.Add("probe bytes", ULong{d.h_probe});
  report.Add("file bytes", image.size());
  report.Print(options, out);
  return kYes;
}

Exit Check(const std::string& path, const Options& options, std::FILE* out) {
  const Image image(path);
  Report report;
  CheckImage(image, &report);
  return report.Verdict(path, options, out);
}

Exit Statistics(const std::string& path, const Options& options, std::FILE* out) {
  const Image image(path);
  MustBeSound(path, image);
  const HashDict& d = image.dict();
  Report report;
  report.Add("keys", ULong{d.h_nentries});
  report.Add("vertices", ULong{d.h_size});
  report.Add("rank bytes", d.h_rank_size);
  report.Add("coefficient bytes", d.h_coef_size);
  report.Add("function bytes", d.h_fun_size);
  report.Add("probe code bytes", d.h_probe_size);
  report.Add("file bytes", image.size());
  if (d.h_nentries != 0) {
    report.Add("bits a key", 8.0 * static_cast<double>(image.size()) / static_cast<double>(d.h_nentries));
  }
  report.Print(options, out);
  return kYes;
}

Exit Get(const std::string& path, const std::vector<std::string>& keys, const Options& options, std::FILE* out) {
  const Image image(path);
  MustBeSound(path, image);
  Exit exit = kYes;
  for (const std::string& key : keys) {
    const Id id = key.size() > image.dict().h_maxlen
                      ? HASHDICT_NOT_FOUND
                      : HashDictFind(&image.dict(), qx::Bytes(key).data(), qx::Bytes(key).length());
    Report report;
    report.Add("key", key);
    if (id == HASHDICT_NOT_FOUND) exit = kNo;
    if (id != HASHDICT_NOT_FOUND) report.Add("value", ULong{id});
    if (options.json) {
      report.Print(options, out);
    } else if (id == HASHDICT_NOT_FOUND) {
      std::fprintf(out, "%s\t-\n", Escaped(key).c_str());
    } else {
      std::fprintf(out, "%s\t%u\n", Escaped(key).c_str(), id);
    }
  }
  return exit;
}

}  // namespace

// The keys of a dictionary are not in it: there is nothing to dump, and load is `build`.
const Commands kDictionary = {"dictionary", " .dic ", Info, Check, Statistics, Get, nullptr, nullptr};

}  // namespace tool
