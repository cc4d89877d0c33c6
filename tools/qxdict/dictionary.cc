// .dic files.

#include <cerrno>
#include <cstring>
#include <vector>

#include "dict/qxdict.hpp"
#include "report.h"
#include "text.h"
#include "tool.h"

namespace tool {
namespace {

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

void CheckImage(const Image& image, Report* report) {
  const char* why = nullptr;
  if (!image.opened()) return report->Problem("is shorter than its header says, or has none");
  if (!HashDictCheck(&image.dict(), &why)) return report->Problem(why);
  const size_t behind = image.size() - HashDictFileSize(&image.dict());
  if (behind != 0) report->Problem(std::to_string(behind) + " bytes behind the image");
}

// An image that look-ups may trust.
void MustBeSound(const std::string& path, const Image& image) {
  const char* why = nullptr;
  if (!image.opened()) throw Trouble{path + ": is shorter than its header says, or has none"};
  if (!HashDictCheck(&image.dict(), &why)) throw Trouble{path + ": is damaged: " + why};
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
