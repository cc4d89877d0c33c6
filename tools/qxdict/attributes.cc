// Attribute dictionaries: pairs of an .idx and a .dat file, named by either or by what they have in common.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "report.h"
#include "text.h"
#include "tool.h"

namespace tool {
namespace {

std::string NameOf(const std::string& path) {
  return path.ends_with(".idx") || path.ends_with(".dat") ? path.substr(0, path.size() - 4) : path;
}

qx::Attributes Open(const std::string& path) {
  try {
    return qx::Attributes::Open(nullptr, NameOf(path).c_str());
  } catch (const std::system_error& error) {
    throw Trouble{"cannot read " + NameOf(path) + ".idx and .dat: " + error.code().message()};
  }
}

Exit Info(const std::string& path, const Options& options, std::FILE* out) {
  const qx::Attributes attributes = Open(path);
  Report report;
  report.Add("kind", "attributes");
  report.Add("identifiers", ULong{attributes.size()});
  report.Add("index bytes", attributes.get()->a_idx_size);
  report.Add("data bytes", attributes.get()->a_dat_size);
  report.Print(options, out);
  return kYes;
}

Exit Check(const std::string& path, const Options& options, std::FILE* out) {
  const qx::Attributes attributes = Open(path);
  Report report;
  const char* why = nullptr;
  if (!AttrDictCheck(attributes.get(), &why)) report.Problem(why);
  return report.Verdict(NameOf(path), options, out);
}

void MustBeSound(const std::string& path, const qx::Attributes& attributes) {
  const char* why = nullptr;
  if (!AttrDictCheck(attributes.get(), &why)) throw Trouble{NameOf(path) + ": is damaged: " + why};
}

Exit Statistics(const std::string& path, const Options& options, std::FILE* out) {
  const qx::Attributes attributes = Open(path);
  MustBeSound(path, attributes);
  ULong bytes = 0;
  ULong longest = 0;
  ULong empty = 0;
  attributes.ForEach([&](std::string_view string) {
    bytes += string.size();
    longest = std::max<ULong>(longest, string.size());
    empty += string.empty();
  });
  Report report;
  report.Add("identifiers", ULong{attributes.size()});
  report.Add("string bytes", bytes);
  if (attributes.size() != 0) {
    report.Add("mean length", static_cast<double>(bytes) / static_cast<double>(attributes.size()));
  }
  report.Add("longest", longest);
  report.Add("empty", empty);
  report.Print(options, out);
  return kYes;
}

Exit Get(const std::string& path, const std::vector<std::string>& ids, const Options& options, std::FILE* out) {
  const qx::Attributes attributes = Open(path);
  Exit exit = kYes;
  for (const std::string& text : ids) {
    const std::optional<unsigned long> id = Number(text, 0xFFFFFFFF);
    if (!id) throw Trouble{text + " is no identifier"};
    const std::optional<std::string_view> string = attributes.Get(static_cast<Id>(*id));
    if (!string) exit = kNo;
    Report report;
    report.Add("identifier", *id);
    if (string) report.Add("string", *string);
    if (options.json) {
      report.Print(options, out);
    } else {
      std::fprintf(out, "%lu\t%s\n", *id, string ? Escaped(*string).c_str() : "-");
    }
  }
  return exit;
}

Exit Dump(const std::string& path, const Options&, std::FILE* out) {
  const qx::Attributes attributes = Open(path);
  MustBeSound(path, attributes);
  std::fprintf(out, "%%qxdict attributes 1\n");
  attributes.ForEach([out](std::string_view string) { std::fprintf(out, "\t%s\n", Escaped(string).c_str()); });
  return kYes;
}

Exit Load(const std::string& path, std::FILE* in) {
  const std::string name = NameOf(path);
  const std::string beside = name + ".new";
  try {
    qx::AttributesBuilder builder(nullptr, beside.c_str());
    ReadDump(
        in, "attributes", {}, [](const auto&) {},
        [&builder](const std::string& line, const std::string& where) {
          // The tab in front keeps a string that starts with % apart from a setting.
          const std::optional<std::string> string =
              line.starts_with('\t') ? Unescaped(std::string_view(line).substr(1)) : std::nullopt;
          if (!string) throw Trouble{where + ": no tab and string"};
          if (string->size() > 255) throw Trouble{where + ": a string of more than 255 bytes"};
          builder.Add(*string);
        });
    builder.Commit();
  } catch (const std::exception& error) {
    unlink((beside + ".idx").c_str());
    unlink((beside + ".dat").c_str());
    throw Trouble{"cannot write " + name + ".idx and .dat: " + error.what()};
  } catch (const Trouble&) {
    unlink((beside + ".idx").c_str());
    unlink((beside + ".dat").c_str());
    throw;
  }
  TakePlace(beside + ".dat", name + ".dat");
  TakePlace(beside + ".idx", name + ".idx");
  return kYes;
}

}  // namespace

const Commands kAttributes = {"attributes", " .idx .dat ", Info, Check, Statistics, Get, Dump, Load};

}  // namespace tool
