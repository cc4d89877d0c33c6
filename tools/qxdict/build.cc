// A dictionary file from a list of keys.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "text.h"
#include "tool.h"

namespace tool {
namespace {

constexpr std::string_view kSuffix = ".dic";
constexpr size_t kLongestKey = 65535;
constexpr size_t kMostEqual = 10;  // pairs of equal keys that are named

struct List {
  std::vector<std::string> keys;
  std::vector<Id> values;
};

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Reads the keys, and their values where there are any. Names keys that are equal, and tells how many there were.
size_t ReadList(const std::string& path, const Options& options, List* list, std::FILE* err) {
  const std::unique_ptr<std::FILE, CloseFile> in(std::fopen(path.c_str(), "re"));
  if (in == nullptr) throw Trouble{"cannot read " + path + ": " + std::strerror(errno)};
  qx::Table<UInt> lines(1024);  // by key, the line it stands in
  size_t equal = 0;
  UInt number = 0;
  for (std::string line; ReadLine(in.get(), path, &line);) {
    number++;
    const std::string where = path + ":" + std::to_string(number) + ": ";
    if (options.values) {
      const size_t tab = line.rfind('\t');
      const std::optional<unsigned long> value =
          tab == std::string::npos ? std::nullopt : Number(std::string_view(line).substr(tab + 1), 0xFFFFFFFF);
      if (!value) throw Trouble{where + "is no key, tab and number"};
      list->values.push_back(static_cast<Id>(*value));
      line.resize(tab);
    }
    std::optional<std::string> key = Unescaped(line);
    if (!key) throw Trouble{where + "a backslash is written \\x5c, any byte \\xNN"};
    if (key->size() > kLongestKey) throw Trouble{where + "a key of more than 65535 bytes"};
    auto entry = lines.Insert(*key);
    if (entry.value() == 0) {
      entry.set(number);
      list->keys.push_back(std::move(*key));
    } else if (equal++ < kMostEqual) {
      std::fprintf(err, "%sthe same key as in line %u: %s\n", where.c_str(), entry.value(), Escaped(*key).c_str());
    }
  }
  return equal;
}

}  // namespace

Exit Build(const std::string& path, const std::string& list_path, const Options& options, std::FILE* err) {
  if (!path.ends_with(kSuffix)) throw Trouble{path + ": the name of a dictionary ends in .dic"};
  List list;
  const size_t equal = ReadList(list_path, options, &list, err);
  if (equal != 0) {
    std::fprintf(err, "%s: %zu keys stand there twice\n", list_path.c_str(), equal);
    return kNo;
  }
  const qx::BuildOptions how = {.probe = static_cast<UByte>(options.probe), .verbose = isatty(fileno(err)) != 0};
  const qx::Dict dict = options.values ? qx::Dict::Build(list.keys, list.values, how) : qx::Dict::Build(list.keys, how);
  if (!HashDictReplace(dict.get(), nullptr, path.substr(0, path.size() - kSuffix.size()).c_str(), nullptr, FALSE)) {
    throw Trouble{"cannot write " + path + ": " + std::strerror(errno)};
  }
  return kYes;
}

}  // namespace tool
