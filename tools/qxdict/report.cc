#include "report.h"

namespace tool {
namespace {

constexpr size_t kMostTold = 20;

}  // namespace

std::string JsonString(std::string_view bytes) {
  std::string json = "\"";
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7E || c == '"' || c == '\\') {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
      json += escape;
    } else {
      json += c;
    }
  }
  return json + '"';
}

void Report::Add(const char* name, unsigned long number) {
  facts_.push_back({name, std::to_string(number), std::to_string(number)});
}

void Report::Add(const char* name, double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", number);
  facts_.push_back({name, text, text});
}

void Report::Add(const char* name, std::string_view text) {
  facts_.push_back({name, std::string(text), JsonString(text)});
}

void Report::Add(const char* name, bool flag) {
  facts_.push_back({name, flag ? "yes" : "no", flag ? "true" : "false"});
}

void Report::Problem(const std::string& text) {
  problems_++;
  if (told_.size() < kMostTold) told_.push_back(text);
}

void Report::Print(const Options& options, std::FILE* out) const {
  if (!options.json) {
    for (const Fact& fact : facts_) std::fprintf(out, "%-24s %s\n", fact.name.c_str(), fact.text.c_str());
    return;
  }
  std::string json = "{";
  for (const Fact& fact : facts_) json += (json.size() > 1 ? ", " : "") + JsonString(fact.name) + ": " + fact.json;
  std::fprintf(out, "%s}\n", json.c_str());
}

Exit Report::Verdict(const std::string& path, const Options& options, std::FILE* out) {
  if (options.json) {
    std::string problems;
    for (const std::string& text : told_) problems += (problems.empty() ? "" : ", ") + JsonString(text);
    std::fprintf(out, "{\"file\": %s, \"sound\": %s, \"problems\": %zu, \"told\": [%s]}\n", JsonString(path).c_str(),
                 sound() ? "true" : "false", problems_, problems.c_str());
  } else {
    for (const std::string& text : told_) std::fprintf(out, "%s: %s\n", path.c_str(), text.c_str());
    if (problems_ > told_.size()) std::fprintf(out, "%s: and %zu more\n", path.c_str(), problems_ - told_.size());
    if (sound()) std::fprintf(out, "%s: sound\n", path.c_str());
  }
  return sound() ? kYes : kNo;
}

}  // namespace tool
