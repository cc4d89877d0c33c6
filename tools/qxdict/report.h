// What a command tells: facts with names, aligned for people or as a JSON object.

#ifndef TOOLS_QXDICT_REPORT_H
#define TOOLS_QXDICT_REPORT_H

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tool.h"

namespace tool {

// Bytes as a JSON string: printable ASCII as it is, every other byte as the code point of its number.
std::string JsonString(std::string_view bytes);

class Report {
 public:
  void Add(const char* name, unsigned long number);
  void Add(const char* name, double number);
  void Add(const char* name, std::string_view text);
  void Add(const char* name, const char* text) { Add(name, std::string_view(text)); }
  void Add(const char* name, bool flag);

  // Notes damage; more than a few are only counted.
  void Problem(const std::string& text);
  bool sound() const { return problems_ == 0; }

  void Print(const Options& options, std::FILE* out) const;

  // For a check: prints the verdict and the problems, and gives the exit code.
  Exit Verdict(const std::string& path, const Options& options, std::FILE* out);

 private:
  struct Fact {
    std::string name;
    std::string text;
    std::string json;
  };
  std::vector<Fact> facts_;
  std::vector<std::string> told_;
  size_t problems_ = 0;
};

}  // namespace tool

#endif
